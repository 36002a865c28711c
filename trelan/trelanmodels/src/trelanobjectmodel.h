#pragma once

#include "trelanmodelsglobal.h"

#include <trelanclient.h>

#include <QtCore/QAbstractItemModel>
#include <QtCore/QStringList>

#include <memory>

namespace bus
{

/// \brief The stored objects that a wildcard takes in, for a view.
///
/// Rows come, change and go by themselves as objects do, sorted by name. The columns are name,
/// publisher, time and content as text, and behind them a column for each key of the content that
/// the application names. A view hides what it does not want, and QSortFilterProxyModel sorts
/// otherwise.
///
/// However fast the bus is, rows change at most 20 times a second: only the newest value of an
/// object waits meanwhile, and the event loop is held for about 20 ms at a time. Rows stay as they
/// were while the bus is away.
///
/// Lives in one thread, as its views do; the client may live in any. Keeps no client alive: a model
/// whose client is deleted keeps its rows.
///
/// \code
/// bus::TrelanObjectModel rooms(&client, "room.*", { "celsius" });
/// view.setModel(&rooms);
/// \endcode
class TRELANMODELS_EXPORT TrelanObjectModel : public QAbstractItemModel
{
    Q_OBJECT
    Q_PROPERTY(QString wildcard READ wildcard CONSTANT)
    Q_PROPERTY(QStringList keys READ keys CONSTANT)
    Q_PROPERTY(bool editable READ isEditable WRITE setEditable NOTIFY editableChanged)

public:
    enum Layout {
        Flat, ///< a row for each object, with its name
        Tree  ///< a level for each segment of the names; a row without an object has the segment
              ///< only
    };

    enum Column {
        NameColumn,
        PublisherColumn,
        TimeColumn,
        ContentColumn,
        FirstKeyColumn ///< the first of keys()
    };

    /// Every row has these in each column, beside Qt::DisplayRole and Qt::EditRole of the column. A
    /// row without an object has the name only.
    enum Role {
        NameRole = Qt::UserRole + 1, ///< the whole name, as QString
        PublisherRole,               ///< QString
        TimeRole,                    ///< QDateTime
        ContentRole,                 ///< QVariantMap
        ContentTextRole,             ///< JSON in one line, as QString
        FirstKeyRole                 ///< the value of the first of keys(), as it came
    };

    explicit TrelanObjectModel(TrelanClient *client, const QString &wildcard,
                               const QStringList &keys = {}, Layout layout = Flat,
                               QObject *parent = nullptr);
    ~TrelanObjectModel() override;

    QString wildcard() const;
    QStringList keys() const;
    Layout layout() const;

    /// The row of this name in column 0; an invalid index if there is none.
    QModelIndex indexOf(const QString &name) const;
    /// The object of a row; one without a name if the row has none.
    TrelanObject object(const QModelIndex &index) const;

    /// \brief Whether content and keys can be edited; false unless set.
    ///
    /// An edit loads the object, changes it, and publishes it with the flags that it has. The row
    /// shows the new value once the bus tells of it. The content is edited as JSON. A number stays
    /// a number, and a truth value one: another text is not taken.
    bool isEditable() const;
    void setEditable(bool editable);

    QModelIndex index(int row, int column, const QModelIndex &parent = {}) const override;
    QModelIndex parent(const QModelIndex &index) const override;
    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    bool setData(const QModelIndex &index, const QVariant &value, int role = Qt::EditRole) override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;
    QHash<int, QByteArray> roleNames() const override;

Q_SIGNALS:
    void editableChanged(bool editable);
    /// An edit has not reached the bus.
    void editFailed(const QString &name, const bus::TrelanFailure &failure);

private:
    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace bus
