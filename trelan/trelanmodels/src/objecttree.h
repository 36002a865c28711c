#pragma once

#include <trelanobject.h>

#include <QtCore/QFlags>
#include <QtCore/QString>
#include <QtCore/QStringView>

#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace bus
{

/// Orders names by their segments: everything of "a" stands together, and before "a-b".
struct NameOrder
{
    bool operator()(QStringView left, QStringView right) const;
};

/// The newest change of each object: its value, or nothing if it was removed.
using ObjectChanges = std::map<QString, std::optional<TrelanObject>, NameOrder>;

/// \brief A row: an object, a segment that objects have in common, or both. Internal to the
/// library.
struct ObjectNode
{
    QString segment; // the whole name if the tree is flat
    ObjectNode *parent = nullptr;
    std::optional<TrelanObject> object;
    std::vector<std::unique_ptr<ObjectNode>> children; // by segment
    mutable QString contentText;                       // empty until somebody asks
};

/// \brief Which rows there are, and what becomes of them when objects change. Internal to the
/// library; pure, one thread.
///
/// Flat, each object is a row. As a tree, each segment of a name is a level. A row goes when its
/// object is removed and it has no children, and so do the rows above it that are empty then.
/// Rows that change together and stand side by side are told together.
class ObjectTree
{
public:
    enum Shape { Flat, Tree };

    enum Field { Presence = 1, Publisher = 2, Time = 4, Content = 8 };
    Q_DECLARE_FLAGS(Fields, Field)

    /// \brief Is told of changes of the rows \a first to \a last under \a parent. What is about to
    /// happen has not happened yet; each of these is followed by its end.
    class Listener
    {
    public:
        virtual ~Listener() = default;
        virtual void aboutToInsert(const ObjectNode &parent, int first, int last) = 0;
        virtual void inserted() = 0;
        virtual void aboutToRemove(const ObjectNode &parent, int first, int last) = 0;
        virtual void removed() = 0;
        virtual void changed(const ObjectNode &parent, int first, int last, Fields fields) = 0;
    };

    ObjectTree(Shape shape, Listener &listener);

    void apply(const ObjectChanges &changes);

    const ObjectNode &root() const { return _root; }
    /// The row of \a node under its parent.
    static int rowOf(const ObjectNode &node);
    /// The full name of \a node.
    static QString nameOf(const ObjectNode &node);
    /// The row of this name, whether it has an object or not; none if there is no such row.
    const ObjectNode *find(const QString &name) const;

private:
    using Entry = ObjectChanges::const_iterator;
    using Nodes = std::vector<std::unique_ptr<ObjectNode>>;
    struct Update;

    QStringView segmentAt(const QString &name, int offset) const;
    void apply(ObjectNode &node, Entry first, Entry last, int offset, bool isShown);
    void applyGroup(Update &update, Entry first, Entry last, QStringView segment, int offset);
    static Fields assign(ObjectNode &node, const std::optional<TrelanObject> &value);
    void tellChanged(const Update &update);
    void removeEmpty(const Update &update);
    void insertFresh(Update &update);

    const Shape _shape;
    Listener &_listener;
    ObjectNode _root;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(ObjectTree::Fields)

} // namespace bus
