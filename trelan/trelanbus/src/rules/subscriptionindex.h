#pragma once

#include <QtCore/QCache>
#include <QtCore/QHash>
#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <map>
#include <memory>
#include <vector>

namespace bus
{

/// What a group of patterns has in common: a segment of text that names have to have.
struct SubscriptionAnchor
{
    int segments = 0;  // of such a name; 0 if any number will do
    int position = -1; // of the text among them; negative if it may be anywhere
    QString text;      // of a segment; empty if there is nothing to look for

    bool operator==(const SubscriptionAnchor &other) const;
};

inline uint qHash(const SubscriptionAnchor &anchor, uint seed)
{
    return ::qHash(anchor.text, seed) ^ uint(anchor.segments * 31 + anchor.position);
}

/// \brief Who has subscribed to what, and who is to hear of a name.
///
/// A name is compared with few of the wildcards. A wildcard without a wildcard segment is found by
/// its text. A pattern is found by a segment that it has in common with the name, at a place that
/// is known for most patterns; TrelanObject::testWildCard() decides. Patterns without any text,
/// such as
/// "*" or "+.+", are all tried.
///
/// The index remembers which patterns the names used last have matched. It does not forget them
/// when subscriptions change: patterns that are gone are passed over, and new ones are tried when
/// the name is asked for again.
///
/// One thread.
class SubscriptionIndex
{
public:
    SubscriptionIndex();

    /// Does nothing if the client has this wildcard already.
    void add(const QString &client, const QString &wildcard);
    void remove(const QString &client, const QString &wildcard);
    void removeClient(const QString &client);

    bool contains(const QString &client, const QString &wildcard) const;
    int count(const QString &client) const;
    bool isEmpty() const;

    /// The clients with at least one wildcard that matches \a name, each once.
    QStringList receivers(const QString &name);

private:
    using Anchor = SubscriptionAnchor;

    struct Wildcard
    {
        QString text;
        QSet<QString> clients; // empty when it is gone and only remembered names know it
        bool isPattern = false;
        quint64 number = 0; // of a pattern, in the order of coming
        Anchor anchor;      // of a pattern: its group
    };
    using WildcardRef = std::shared_ptr<Wildcard>;

    /// The patterns that a name matches.
    struct Matches
    {
        std::vector<WildcardRef> patterns;
        quint64 upTo; // number of the last pattern that was tried
    };

    static std::vector<Anchor> anchorsOf(const QString &wildcard);
    int sizeOf(const Anchor &anchor) const;
    void insertPattern(const WildcardRef &pattern);
    void removePattern(const WildcardRef &pattern);
    void leave(const QString &client, const QString &wildcard);
    std::vector<WildcardRef> find(const QString &name) const;
    bool tryNewer(const QString &name, Matches &matches) const;
    std::vector<WildcardRef> patternsOf(const QString &name);

    QHash<QString, QSet<QString>> _wildcardsOfClient;
    QHash<QString, WildcardRef> _wildcards; // by text
    std::map<quint64, WildcardRef> _patterns;
    QHash<Anchor, QHash<quint64, WildcardRef>> _groups; // of patterns, by number
    quint64 _lastNumber = 0;
    QCache<QString, Matches> _remembered; // by name
};

} // namespace bus
