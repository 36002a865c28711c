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

/// \brief Who has subscribed to what, and who is to hear of a name.
///
/// A name is held against few of the wildcards: one without a wildcard segment is found by its
/// text, and of the others those that have a segment in common with the name, in its place where
/// the place is known. TrelanObject::testWildCard() has the last word on each. Wildcards without
/// anything to look for, such as "*" or "+.+", are all tried.
///
/// What a name was found to match is remembered, for the names used last. It is not forgotten when
/// subscriptions change: those that are gone are passed over, and those that are new are tried when
/// the name is asked for again.
///
/// One thread.
class SubscriptionIndex
{
public:
    SubscriptionIndex();

    /// One that is there already is no second one.
    void add(const QString &client, const QString &wildcard);
    void remove(const QString &client, const QString &wildcard);
    void removeClient(const QString &client);

    bool contains(const QString &client, const QString &wildcard) const;
    int count(const QString &client) const;

    /// The clients with at least one wildcard that takes \a name in, each once.
    QStringList receivers(const QString &name);

private:
    /// What the names have in common that a group of patterns may take in.
    struct Anchor
    {
        int segments = 0;  // that such a name has; 0 if any number will do
        int position = -1; // of the text among them; negative if it may be anywhere
        QString text;      // of a segment; empty if there is nothing to look for

        bool operator==(const Anchor &other) const;
        friend uint qHash(const Anchor &anchor, uint seed)
        {
            return ::qHash(anchor.text, seed) ^ uint(anchor.segments * 31 + anchor.position);
        }
    };

    struct Wildcard
    {
        QString text;
        QSet<QString> clients; // none: it is gone, and only remembered names still know it
        bool isPattern = false;
        // Of a pattern:
        quint64 number = 0; // in the order of coming
        Anchor anchor;      // of its group
    };
    using WildcardRef = std::shared_ptr<Wildcard>;

    struct Remembered
    {
        std::vector<WildcardRef> patterns;
        quint64 upTo; // the last one that was tried
    };

    static std::vector<Anchor> anchorsOf(const QString &wildcard);
    int sizeOf(const Anchor &anchor) const;
    void insertPattern(const WildcardRef &pattern);
    void removePattern(const WildcardRef &pattern);
    void leave(const QString &client, const QString &wildcard);
    std::vector<WildcardRef> find(const QString &name) const;
    bool tryNewer(const QString &name, Remembered &remembered) const;
    std::vector<WildcardRef> patternsOf(const QString &name);

    QHash<QString, QSet<QString>> _wildcardsOfClient;
    QHash<QString, WildcardRef> _wildcards; // by text
    std::map<quint64, WildcardRef> _patterns;
    QHash<Anchor, QHash<quint64, WildcardRef>> _groups; // of patterns, by number
    quint64 _lastNumber = 0;
    QCache<QString, Remembered> _remembered; // by name
};

} // namespace bus
