#include "../ports.h"
#include "../rows.h"

#include <trelanobjectmodel.h>

#include <QtWidgets/QApplication>
#include <QtWidgets/QTableView>

int main(int argc, char **argv)
{
    const QApplication application(argc, argv);
    bus::TrelanClient client("table", examples::busSettings());
    bus::TrelanObjectModel rooms(&client, "room.*", {"celsius"});
    rooms.setEditable(true);
    examples::endAfterFirstRows(rooms);

    QTableView view;
    view.setModel(&rooms);
    view.hideColumn(bus::TrelanObjectModel::ContentColumn);
    view.resize(600, 300);
    view.show();
    return QApplication::exec();
}
