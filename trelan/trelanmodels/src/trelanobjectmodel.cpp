#include "trelanobjectmodel.h"

#include "contentedit.h"
#include "objecttree.h"

#include <QtCore/QDateTime>
#include <QtCore/QElapsedTimer>
#include <QtCore/QPointer>
#include <QtCore/QTimer>

namespace bus
{

namespace
{

constexpr int UPDATE_INTERVAL_MS = 50;
constexpr int UPDATE_BUDGET_MS = 20;
constexpr size_t CHUNK = 500;
constexpr int SHOWN_TEXT = 1000; // a view lays out every character of a cell

const QString TIME_FORMAT = QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz");

QVariant shown(const QVariant &value)
{
    if (value.userType() != QMetaType::QString || value.toString().size() <= SHOWN_TEXT)
        return value;
    return value.toString().left(SHOWN_TEXT) + QChar(0x2026);
}

} // namespace

/// Gathers what the client tells, and hands it to the tree by a timer.
class TrelanObjectModel::Private : public ObjectTree::Listener
{
public:
    Private(TrelanObjectModel *model, TrelanClient *bus, const QString &pattern,
            const QStringList &contentKeys, Layout shape)
        : q(model)
        , client(bus)
        , wildcard(pattern)
        , keys(contentKeys)
        , layout(shape)
        , tree(shape == Tree ? ObjectTree::Tree : ObjectTree::Flat, *this)
    {
        _timer.setSingleShot(true);
        _timer.setTimerType(Qt::PreciseTimer);
        connect(&_timer, &QTimer::timeout, q, [this] { update(); });
    }

    void watch();
    const ObjectNode *nodeOf(const QModelIndex &index) const;
    QModelIndex indexOf(const ObjectNode &node, int column = 0) const;
    QVariant field(const ObjectNode &node, int role) const;
    QVariant cell(const ObjectNode &node, int column, int role) const;
    bool editContent(const QString &name, const QString &text);
    bool editKey(const ObjectNode &node, const QString &key, const QVariant &edited);

    void aboutToInsert(const ObjectNode &parent, int first, int last) override
    {
        q->beginInsertRows(indexOf(parent), first, last);
    }
    void inserted() override { q->endInsertRows(); }
    void aboutToRemove(const ObjectNode &parent, int first, int last) override
    {
        q->beginRemoveRows(indexOf(parent), first, last);
    }
    void removed() override { q->endRemoveRows(); }
    void changed(const ObjectNode &parent, int first, int last, ObjectTree::Fields fields) override;

    TrelanObjectModel *const q;
    const QPointer<TrelanClient> client;
    const QString wildcard;
    const QStringList keys;
    const Layout layout;
    bool isEditable = false;
    ObjectTree tree;

private:
    void gather(const QString &name, const std::optional<TrelanObject> &value);
    void schedule();
    void update();
    ObjectChanges takeChunk();
    void edit(const QString &name, const std::function<void(QVariantMap &)> &change);

    ObjectChanges _waiting;
    QString _last; // the name where the last update ended; the next one goes on behind it
    QTimer _timer;
    QElapsedTimer _sinceUpdate;
    bool _isUpdating = false;
};

void TrelanObjectModel::Private::watch()
{
    if (!client)
        return;
    client->watch(
        wildcard, q,
        [this](const TrelanObject &object) {
            // An event has no row: nothing would tell that it is gone.
            if (object.isStored())
                gather(object.name(), object);
        },
        [this](const QString &name) { gather(name, std::nullopt); });
}

void TrelanObjectModel::Private::gather(const QString &name,
                                        const std::optional<TrelanObject> &value)
{
    _waiting.insert_or_assign(name, value);
    schedule();
}

void TrelanObjectModel::Private::schedule()
{
    if (_timer.isActive() || _isUpdating)
        return;
    const qint64 passed = _sinceUpdate.isValid() ? _sinceUpdate.elapsed() : UPDATE_INTERVAL_MS;
    _timer.start(int(qMax<qint64>(UPDATE_INTERVAL_MS - passed, 0)));
}

void TrelanObjectModel::Private::update()
{
    // A slot of a view may run an event loop, and more may be gathered there.
    _isUpdating = true;
    QElapsedTimer taken;
    taken.start();
    do {
        tree.apply(takeChunk());
    } while (!_waiting.empty() && !taken.hasExpired(UPDATE_BUDGET_MS));
    _isUpdating = false;
    _sinceUpdate.start();
    if (!_waiting.empty())
        schedule();
}

/// Goes round by name, so that objects that change all the time do not keep others waiting.
ObjectChanges TrelanObjectModel::Private::takeChunk()
{
    ObjectChanges chunk;
    auto next = _waiting.upper_bound(_last);
    if (next == _waiting.end())
        next = _waiting.begin();
    while (next != _waiting.end() && chunk.size() < CHUNK) {
        _last = next->first;
        chunk.insert(chunk.end(), _waiting.extract(next++));
    }
    return chunk;
}

void TrelanObjectModel::Private::changed(const ObjectNode &parent, int first, int last,
                                         ObjectTree::Fields fields)
{
    const int end = q->columnCount() - 1;
    int left = TimeColumn;
    int right = TimeColumn;
    if (fields & (ObjectTree::Publisher | ObjectTree::Presence))
        left = PublisherColumn;
    else if (!(fields & ObjectTree::Time))
        left = ContentColumn;
    if (fields & (ObjectTree::Content | ObjectTree::Presence))
        right = end;
    emit q->dataChanged(indexOf(*parent.children[size_t(first)], left),
                        indexOf(*parent.children[size_t(last)], qMax(left, right)));
}

const ObjectNode *TrelanObjectModel::Private::nodeOf(const QModelIndex &index) const
{
    return index.isValid() ? static_cast<const ObjectNode *>(index.internalPointer())
                           : &tree.root();
}

QModelIndex TrelanObjectModel::Private::indexOf(const ObjectNode &node, int column) const
{
    if (&node == &tree.root())
        return {};
    return q->createIndex(ObjectTree::rowOf(node), column, const_cast<ObjectNode *>(&node));
}

/// What a role beside the usual ones has.
QVariant TrelanObjectModel::Private::field(const ObjectNode &node, int role) const
{
    if (role == NameRole)
        return ObjectTree::nameOf(node);
    if (!node.object || role < NameRole || role >= FirstKeyRole + keys.size())
        return {};
    switch (role) {
    case PublisherRole:
        return node.object->publisher();
    case TimeRole:
        return node.object->dt();
    case ContentRole:
        return node.object->content();
    case ContentTextRole:
        if (node.contentText.isEmpty())
            node.contentText = edit::toText(node.object->content());
        return node.contentText;
    default:
        return node.object->content().value(keys.at(role - FirstKeyRole));
    }
}

QVariant TrelanObjectModel::Private::cell(const ObjectNode &node, int column, int role) const
{
    const bool isShown = role == Qt::DisplayRole;
    switch (column) {
    case NameColumn:
        return node.segment;
    case PublisherColumn:
        return field(node, PublisherRole);
    case TimeColumn: {
        const QVariant time = field(node, TimeRole);
        return isShown && time.isValid() ? time.toDateTime().toString(TIME_FORMAT) : time;
    }
    case ContentColumn: {
        const QVariant text = field(node, ContentTextRole);
        return isShown ? shown(text) : text;
    }
    default: {
        const QVariant value = edit::toCell(field(node, FirstKeyRole + column - FirstKeyColumn));
        return isShown ? shown(value) : value;
    }
    }
}

bool TrelanObjectModel::Private::editContent(const QString &name, const QString &text)
{
    const std::optional<QVariantMap> content = edit::fromText(text);
    if (content)
        edit(name, [content](QVariantMap &old) { old = *content; });
    return content.has_value();
}

bool TrelanObjectModel::Private::editKey(const ObjectNode &node, const QString &key,
                                         const QVariant &edited)
{
    const std::optional<QVariant> value = edit::fromCell(edited, node.object->content().value(key));
    if (value)
        edit(ObjectTree::nameOf(node),
             [key, value](QVariantMap &content) { content[key] = *value; });
    return value.has_value();
}

/// Loads first, since a watch does not tell the flags of an object, and others may have changed it.
void TrelanObjectModel::Private::edit(const QString &name,
                                      const std::function<void(QVariantMap &)> &change)
{
    const auto fail = [this, name](const TrelanFailure &failure) {
        emit q->editFailed(name, failure);
    };
    const auto publish = [this, fail, change](const TrelanObject &loaded) {
        QVariantMap content = loaded.content();
        change(content);
        TrelanObject object;
        object.setName(loaded.name());
        object.setOptions(loaded.options());
        object.setContent(content);
        if (client)
            client->publish(object).onError(q, fail);
    };
    client->load(name).then(q, publish).onError(q, fail);
}

TrelanObjectModel::TrelanObjectModel(TrelanClient *client, const QString &wildcard,
                                     const QStringList &keys, Layout layout, QObject *parent)
    : QAbstractItemModel(parent)
    , d(std::make_unique<Private>(this, client, wildcard, keys, layout))
{
    d->watch();
}

TrelanObjectModel::~TrelanObjectModel() = default;

QString TrelanObjectModel::wildcard() const
{
    return d->wildcard;
}

QStringList TrelanObjectModel::keys() const
{
    return d->keys;
}

TrelanObjectModel::Layout TrelanObjectModel::layout() const
{
    return d->layout;
}

QModelIndex TrelanObjectModel::indexOf(const QString &name) const
{
    const ObjectNode *node = d->tree.find(name);
    return node ? d->indexOf(*node) : QModelIndex();
}

TrelanObject TrelanObjectModel::object(const QModelIndex &index) const
{
    return d->nodeOf(index)->object.value_or(TrelanObject());
}

bool TrelanObjectModel::isEditable() const
{
    return d->isEditable;
}

void TrelanObjectModel::setEditable(bool editable)
{
    if (d->isEditable == editable)
        return;
    d->isEditable = editable;
    emit editableChanged(editable);
}

QModelIndex TrelanObjectModel::index(int row, int column, const QModelIndex &parent) const
{
    if (!hasIndex(row, column, parent))
        return {};
    return createIndex(row, column, d->nodeOf(parent)->children[size_t(row)].get());
}

QModelIndex TrelanObjectModel::parent(const QModelIndex &index) const
{
    return index.isValid() ? d->indexOf(*d->nodeOf(index)->parent) : QModelIndex();
}

int TrelanObjectModel::rowCount(const QModelIndex &parent) const
{
    return parent.column() > 0 ? 0 : int(d->nodeOf(parent)->children.size());
}

int TrelanObjectModel::columnCount(const QModelIndex &) const
{
    return FirstKeyColumn + d->keys.size();
}

QVariant TrelanObjectModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid())
        return {};
    const ObjectNode &node = *d->nodeOf(index);
    if (role == Qt::DisplayRole || role == Qt::EditRole)
        return d->cell(node, index.column(), role);
    return d->field(node, role);
}

bool TrelanObjectModel::setData(const QModelIndex &index, const QVariant &value, int role)
{
    if (role != Qt::EditRole || !(flags(index) & Qt::ItemIsEditable))
        return false;
    const ObjectNode &node = *d->nodeOf(index);
    if (index.column() == ContentColumn)
        return d->editContent(ObjectTree::nameOf(node), value.toString());
    return d->editKey(node, d->keys.at(index.column() - FirstKeyColumn), value);
}

QVariant TrelanObjectModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole || section < 0 ||
        section >= columnCount())
        return QAbstractItemModel::headerData(section, orientation, role);
    switch (section) {
    case NameColumn:
        return tr("Name");
    case PublisherColumn:
        return tr("Publisher");
    case TimeColumn:
        return tr("Time");
    case ContentColumn:
        return tr("Content");
    default:
        return d->keys.at(section - FirstKeyColumn);
    }
}

Qt::ItemFlags TrelanObjectModel::flags(const QModelIndex &index) const
{
    Qt::ItemFlags flags = QAbstractItemModel::flags(index);
    flags.setFlag(Qt::ItemIsEditable, index.isValid() && index.column() >= ContentColumn &&
                                          d->isEditable && d->client && d->nodeOf(index)->object);
    return flags;
}

QHash<int, QByteArray> TrelanObjectModel::roleNames() const
{
    QHash<int, QByteArray> names = QAbstractItemModel::roleNames();
    names.insert({{NameRole, "name"},
                  {PublisherRole, "publisher"},
                  {TimeRole, "time"},
                  {ContentRole, "content"},
                  {ContentTextRole, "contentText"}});
    for (int i = 0; i < d->keys.size(); ++i)
        names.insert(FirstKeyRole + i, d->keys.at(i).toUtf8());
    return names;
}

} // namespace bus
