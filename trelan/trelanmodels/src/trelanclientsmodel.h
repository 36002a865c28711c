#pragma once

#include "trelanmodelsglobal.h"

#include <trelanclient.h>

#include <QtCore/QAbstractTableModel>

#include <memory>

namespace bus
{

/// \brief Who is on the bus, or has something waiting there, for a view.
///
/// A row for each client, sorted by name. The bus is asked at an interval, and at once when it has
/// come back. While it is away, or does not answer, the rows stay as they were. A bus that cannot
/// tell who is there leaves the model empty.
///
/// Lives in one thread, as its views do; the client may live in any. Keeps no client alive.
class TRELANMODELS_EXPORT TrelanClientsModel : public QAbstractTableModel
{
    Q_OBJECT
    Q_PROPERTY(int interval READ interval WRITE setInterval)

public:
    enum Column {
        NameColumn,
        AddressColumn,       ///< address and port of a connection; empty for an absent client
        ConnectionsColumn,   ///< "query", "message" or both
        SubscriptionsColumn, ///< number of wildcards
        QueuedColumn,        ///< deliveries that wait or are not acknowledged
        QueuedBytesColumn,   ///< their size
        InColumn,            ///< requests of the client on its connections
        OutColumn,           ///< deliveries to it
        ColumnCount
    };

    /// Every row has these in each column: the values of the columns by name, numbers as numbers.
    enum Role { FirstRole = Qt::UserRole + 1 };

    explicit TrelanClientsModel(TrelanClient *client, QObject *parent = nullptr);
    ~TrelanClientsModel() override;

    /// Milliseconds between two questions, at least 50; 1000 unless set.
    int interval() const;
    void setInterval(int milliseconds);

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

public Q_SLOTS:
    /// Asks now, unless a question is under way.
    void refresh();

private:
    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace bus
