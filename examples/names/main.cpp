#include "../ports.h"
#include "../rows.h"

#include <trelanobjectmodel.h>

#include <QtWidgets/QApplication>
#include <QtWidgets/QComboBox>

int main(int argc, char **argv)
{
    const QApplication application(argc, argv);
    bus::TrelanClient client("names", examples::busSettings());
    bus::TrelanObjectModel rooms(&client, "room.*");
    examples::endAfterFirstRows(rooms);

    QComboBox box;
    QObject::connect(&box, &QComboBox::currentTextChanged, [&box](const QString &name) {
        qInfo() << name << box.currentData(bus::TrelanObjectModel::ContentRole).toMap();
    });
    box.setModel(&rooms);
    box.show();
    return QApplication::exec();
}
