#include <trelanobjectmodel.h>

#include <QtCore/QCoreApplication>

#include <cstdio>

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const bus::TrelanObjectModel model(nullptr, QStringLiteral("*"), {QStringLiteral("celsius")});
    for (int column = 0; column < model.columnCount(); ++column)
        std::printf("%s ", qPrintable(model.headerData(column, Qt::Horizontal).toString()));
    return 0;
}
