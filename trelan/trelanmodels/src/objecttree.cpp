#include "objecttree.h"

#include <QtCore/QStringList>

#include <algorithm>
#include <iterator>

namespace bus
{

namespace
{

const QLatin1Char DOT('.');

auto lowerBound(const std::vector<std::unique_ptr<ObjectNode>> &nodes, QStringView segment)
{
    return std::lower_bound(nodes.begin(), nodes.end(), segment,
                            [](const std::unique_ptr<ObjectNode> &node, QStringView wanted) {
                                return NameOrder()(node->segment, wanted);
                            });
}

int rowAt(const std::vector<std::unique_ptr<ObjectNode>> &nodes, QStringView segment)
{
    return int(std::distance(nodes.begin(), lowerBound(nodes, segment)));
}

bool isEmpty(const ObjectNode &node)
{
    return !node.object && node.children.empty();
}

} // namespace

bool NameOrder::operator()(QStringView left, QStringView right) const
{
    const auto rank = [](QChar character) { return character == DOT ? -1 : character.unicode(); };
    return std::lexicographical_compare(
        left.begin(), left.end(), right.begin(), right.end(),
        [rank](QChar one, QChar other) { return rank(one) < rank(other); });
}

/// What becomes of the rows under one node. Rows are numbered as before any of it.
struct ObjectTree::Update
{
    struct Change
    {
        int row;
        Fields fields;
    };

    ObjectNode &node;
    const bool isShown; // whether the listener knows the node
    std::vector<Change> changes = {};
    std::vector<int> emptied = {};
    Nodes fresh = {};
};

ObjectTree::ObjectTree(Shape shape, Listener &listener)
    : _shape(shape)
    , _listener(listener)
{}

void ObjectTree::apply(const ObjectChanges &changes)
{
    apply(_root, changes.begin(), changes.end(), 0, true);
}

int ObjectTree::rowOf(const ObjectNode &node)
{
    return rowAt(node.parent->children, node.segment);
}

QString ObjectTree::nameOf(const ObjectNode &node)
{
    QStringList segments;
    for (const ObjectNode *at = &node; at->parent; at = at->parent)
        segments.prepend(at->segment);
    return segments.join(DOT);
}

const ObjectNode *ObjectTree::find(const QString &name) const
{
    const ObjectNode *node = &_root;
    for (int offset = 0; offset <= name.size();) {
        const QStringView segment = segmentAt(name, offset);
        const auto child = lowerBound(node->children, segment);
        if (child == node->children.end() || (*child)->segment != segment)
            return nullptr;
        node = child->get();
        offset += int(segment.size()) + 1;
    }
    return node;
}

QStringView ObjectTree::segmentAt(const QString &name, int offset) const
{
    const int end = _shape == Flat ? -1 : name.indexOf(DOT, offset);
    return QStringView(name).mid(offset, end < 0 ? -1 : end - offset);
}

/// The entries are those of names that go on below \a node, from \a offset on.
void ObjectTree::apply(ObjectNode &node, Entry first, Entry last, int offset, bool isShown)
{
    Update update {node, isShown};
    while (first != last) {
        const QStringView segment = segmentAt(first->first, offset);
        const Entry next = std::find_if(first, last, [&](const ObjectChanges::value_type &entry) {
            return segmentAt(entry.first, offset) != segment;
        });
        applyGroup(update, first, next, segment, offset);
        first = next;
    }
    // In this order, so that the rows that an update has noted are right.
    tellChanged(update);
    removeEmpty(update);
    insertFresh(update);
}

/// All entries have \a segment at \a offset. The one that ends there, if any, is the first of them.
void ObjectTree::applyGroup(Update &update, Entry first, Entry last, QStringView segment,
                            int offset)
{
    const Nodes &siblings = update.node.children;
    const auto place = lowerBound(siblings, segment);
    const bool isKnown = place != siblings.end() && (*place)->segment == segment;
    std::unique_ptr<ObjectNode> made;
    if (!isKnown) {
        made = std::make_unique<ObjectNode>();
        made->segment = segment.toString();
        made->parent = &update.node;
    }
    ObjectNode &child = isKnown ? **place : *made;
    const int below = offset + int(segment.size()) + 1;
    Fields fields;
    if (first->first.size() < below)
        fields = assign(child, (first++)->second);
    apply(child, first, last, below, isKnown && update.isShown);

    const int row = int(std::distance(siblings.begin(), place));
    if (!isKnown && !isEmpty(child))
        update.fresh.push_back(std::move(made));
    else if (isKnown && isEmpty(child))
        update.emptied.push_back(row);
    else if (isKnown && fields)
        update.changes.push_back({row, fields});
}

ObjectTree::Fields ObjectTree::assign(ObjectNode &node, const std::optional<TrelanObject> &value)
{
    Fields fields;
    if (node.object.has_value() != value.has_value()) {
        fields = Presence;
    } else if (value) {
        fields.setFlag(Publisher, value->publisher() != node.object->publisher());
        fields.setFlag(Content, value->content() != node.object->content());
        fields.setFlag(Time, value->timestamp() != node.object->timestamp() || !fields);
    }
    node.object = value;
    node.contentText.clear();
    return fields;
}

void ObjectTree::tellChanged(const Update &update)
{
    for (auto change = update.changes.begin(); update.isShown && change != update.changes.end();) {
        const int first = change->row;
        const Fields fields = change->fields;
        int end = first;
        for (; change != update.changes.end() && change->row == end && change->fields == fields;
             ++change)
            ++end;
        _listener.changed(update.node, first, end - 1, fields);
    }
}

void ObjectTree::removeEmpty(const Update &update)
{
    Nodes &nodes = update.node.children;
    // From behind, so that the rows in front keep their numbers.
    for (auto row = update.emptied.rbegin(); row != update.emptied.rend();) {
        const int last = *row;
        int first = last + 1;
        for (; row != update.emptied.rend() && *row == first - 1; ++row)
            --first;
        if (update.isShown)
            _listener.aboutToRemove(update.node, first, last);
        nodes.erase(nodes.begin() + first, nodes.begin() + last + 1);
        if (update.isShown)
            _listener.removed();
    }
}

void ObjectTree::insertFresh(Update &update)
{
    Nodes &nodes = update.node.children;
    for (auto first = update.fresh.begin(); first != update.fresh.end();) {
        const int row = rowAt(nodes, (*first)->segment);
        auto end = std::next(first);
        while (end != update.fresh.end() && rowAt(nodes, (*end)->segment) == row)
            ++end;
        if (update.isShown)
            _listener.aboutToInsert(update.node, row, row + int(std::distance(first, end)) - 1);
        nodes.insert(nodes.begin() + row, std::make_move_iterator(first),
                     std::make_move_iterator(end));
        if (update.isShown)
            _listener.inserted();
        first = end;
    }
}

} // namespace bus
