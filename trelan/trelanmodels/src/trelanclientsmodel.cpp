#include "trelanclientsmodel.h"

#include "objecttree.h"

#include <QtCore/QPointer>
#include <QtCore/QTimer>

namespace bus
{

namespace
{

constexpr int MIN_INTERVAL_MS = 50;
constexpr int INTERVAL_MS = 1000;

/// The keys of the bus for the columns.
constexpr const char *KEYS[TrelanClientsModel::ColumnCount] = {
    "name", "address", "connections", "subscriptions", "queued", "queuedBytes", "in", "out"};

QString keyOf(int column)
{
    return QLatin1String(KEYS[column]);
}

} // namespace

/// Asks by a timer. A client is kept as an object is, with its figures as the content.
class TrelanClientsModel::Private : public ObjectTree::Listener
{
public:
    Private(TrelanClientsModel *model, TrelanClient *bus)
        : q(model)
        , client(bus)
        , tree(ObjectTree::Flat, *this)
    {
        timer.setInterval(INTERVAL_MS);
        connect(&timer, &QTimer::timeout, q, &TrelanClientsModel::refresh);
    }

    void start();
    void take(const QVariantList &clients);

    void aboutToInsert(const ObjectNode &, int first, int last) override
    {
        q->beginInsertRows({}, first, last);
    }
    void inserted() override { q->endInsertRows(); }
    void aboutToRemove(const ObjectNode &, int first, int last) override
    {
        q->beginRemoveRows({}, first, last);
    }
    void removed() override { q->endRemoveRows(); }
    void changed(const ObjectNode &, int first, int last, ObjectTree::Fields fields) override
    {
        if (fields & ObjectTree::Content)
            emit q->dataChanged(q->index(first, AddressColumn), q->index(last, OutColumn));
    }

    TrelanClientsModel *const q;
    const QPointer<TrelanClient> client;
    ObjectTree tree;
    QTimer timer;
    TrelanReply<QVariantList> reply;
};

void TrelanClientsModel::Private::start()
{
    if (!client)
        return;
    connect(client, &TrelanClient::stateChanged, q, [this](const TrelanConnectionState &state) {
        if (state.isConnected())
            q->refresh();
    });
    timer.start();
    q->refresh();
}

void TrelanClientsModel::Private::take(const QVariantList &clients)
{
    ObjectChanges changes;
    for (const std::unique_ptr<ObjectNode> &row : tree.root().children)
        changes.emplace(row->segment, std::nullopt);
    for (const QVariant &listed : clients) {
        TrelanObject object {TrelanTimestamp()};
        object.setContent(listed.toMap());
        const QString name = object.content().value(keyOf(NameColumn)).toString();
        changes.insert_or_assign(name, object);
    }
    tree.apply(changes);
}

TrelanClientsModel::TrelanClientsModel(TrelanClient *client, QObject *parent)
    : QAbstractTableModel(parent)
    , d(std::make_unique<Private>(this, client))
{
    d->start();
}

TrelanClientsModel::~TrelanClientsModel() = default;

int TrelanClientsModel::interval() const
{
    return d->timer.interval();
}

void TrelanClientsModel::setInterval(int milliseconds)
{
    d->timer.setInterval(qMax(milliseconds, MIN_INTERVAL_MS));
}

void TrelanClientsModel::refresh()
{
    if (!d->client || !d->reply.isFinished())
        return;
    d->reply = d->client->clients();
    d->reply.then(this, [this](const QVariantList &clients) { d->take(clients); });
}

int TrelanClientsModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(d->tree.root().children.size());
}

int TrelanClientsModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant TrelanClientsModel::data(const QModelIndex &index, int role) const
{
    const bool isShown = role == Qt::DisplayRole;
    const int column = isShown ? index.column() : role - FirstRole;
    if (!index.isValid() || column < 0 || column >= ColumnCount)
        return {};
    const QVariant value =
        d->tree.root().children[size_t(index.row())]->object->content().value(keyOf(column));
    return isShown && column == ConnectionsColumn ? value.toStringList().join(QStringLiteral(", "))
                                                  : value;
}

QVariant TrelanClientsModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return QAbstractTableModel::headerData(section, orientation, role);
    switch (section) {
    case NameColumn:
        return tr("Name");
    case AddressColumn:
        return tr("Address");
    case ConnectionsColumn:
        return tr("Connections");
    case SubscriptionsColumn:
        return tr("Subscriptions");
    case QueuedColumn:
        return tr("Queued");
    case QueuedBytesColumn:
        return tr("Bytes");
    case InColumn:
        return tr("In");
    case OutColumn:
        return tr("Out");
    default:
        return {};
    }
}

QHash<int, QByteArray> TrelanClientsModel::roleNames() const
{
    QHash<int, QByteArray> names = QAbstractTableModel::roleNames();
    for (int column = 0; column < ColumnCount; ++column)
        names.insert(FirstRole + column, KEYS[column]);
    return names;
}

} // namespace bus
