#include "kernelfigures.h"

#include <QtCore/QHash>
#include <QtCore/QSet>

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

namespace hoststate
{

namespace
{

const int MAX_SEGMENT = 255;

QList<QByteArray> words(const QByteArray &line)
{
    const QByteArray text = line.simplified();
    return text.isEmpty() ? QList<QByteArray>() : text.split(' ');
}

bool isPseudo(const QString &type)
{
    static const QSet<QString> TYPES = {
        "autofs",     "binfmt_misc", "bpf",       "cgroup",   "cgroup2", "configfs",
        "debugfs",    "devpts",      "devtmpfs",  "efivarfs", "fusectl", "hugetlbfs",
        "mqueue",     "nsfs",        "proc",      "pstore",   "ramfs",   "rootfs",
        "rpc_pipefs", "securityfs",  "selinuxfs", "smackfs",  "sysfs",   "tmpfs",
        "tracefs",    "nfs",         "nfs4",      "cifs",     "smb3",    "ceph"};
    return TYPES.contains(type) || type.startsWith("fuse.");
}

/// Undoes the escapes of the kernel, which writes blanks, tabs, line feeds and backslashes as three
/// octal digits.
QByteArray unescaped(const QByteArray &field)
{
    QByteArray result;
    for (int index = 0; index < field.size(); ++index) {
        bool octal = false;
        const uint code = field.at(index) == '\\' ? field.mid(index + 1, 3).toUInt(&octal, 8) : 0;
        if (octal && index + 3 < field.size() && code < 256) {
            result.append(char(code));
            index += 3;
        } else {
            result.append(field.at(index));
        }
    }
    return result;
}

} // namespace

QVariantMap parseLoad(const QByteArray &text)
{
    const QList<QByteArray> fields = words(text);
    if (fields.size() < 4)
        return {};
    QVariantMap figures;
    const std::array<const char *, 3> names = {"one", "five", "fifteen"};
    for (int index = 0; index < 3; ++index) {
        bool ok = false;
        const double load = fields.at(index).toDouble(&ok);
        if (!ok || !std::isfinite(load))
            return {};
        figures.insert(names.at(size_t(index)), load);
    }
    const QList<QByteArray> tasks = fields.at(3).split('/');
    bool runningOk = false;
    bool totalOk = false;
    const int running = tasks.first().toInt(&runningOk);
    const int total = tasks.last().toInt(&totalOk);
    if (tasks.size() == 2 && runningOk && totalOk) {
        figures.insert("running", running);
        figures.insert("tasks", total);
    }
    return figures;
}

QVariantMap parseMemory(const QByteArray &text)
{
    static const QHash<QByteArray, QString> NAMES = {
        {"MemTotal:", "total"},   {"MemFree:", "free"},  {"MemAvailable:", "available"},
        {"Buffers:", "buffers"},  {"Cached:", "cached"}, {"SwapTotal:", "swapTotal"},
        {"SwapFree:", "swapFree"}};
    QVariantMap figures;
    const QList<QByteArray> lines = text.split('\n');
    for (const QByteArray &line : lines) {
        const QList<QByteArray> fields = words(line);
        if (fields.size() != 3 || fields.at(2) != "kB" || !NAMES.contains(fields.at(0)))
            continue;
        bool ok = false;
        const qulonglong kibibytes = fields.at(1).toULongLong(&ok);
        if (ok)
            figures.insert(NAMES.value(fields.at(0)), kibibytes);
    }
    return figures;
}

QVariantMap parseNetwork(const QByteArray &text)
{
    static const std::array<std::pair<int, const char *>, 8> COLUMNS = {{{0, "rxBytes"},
                                                                         {1, "rxPackets"},
                                                                         {2, "rxErrors"},
                                                                         {3, "rxDropped"},
                                                                         {8, "txBytes"},
                                                                         {9, "txPackets"},
                                                                         {10, "txErrors"},
                                                                         {11, "txDropped"}}};
    QVariantMap interfaces;
    const QList<QByteArray> lines = text.split('\n');
    for (const QByteArray &line : lines) {
        // Older kernels leave no blank behind the colon.
        const int colon = line.indexOf(':');
        const QList<QByteArray> fields = words(line.mid(colon + 1));
        const QString name = QString::fromUtf8(line.left(qMax(0, colon)).trimmed());
        if (name.isEmpty() || fields.size() < 16)
            continue;
        QVariantMap figures;
        for (const auto &[column, figure] : COLUMNS) {
            bool ok = false;
            const qulonglong count = fields.at(column).toULongLong(&ok);
            if (ok)
                figures.insert(figure, count);
        }
        interfaces.insert(name, figures);
    }
    return interfaces;
}

QList<Mount> parseMounts(const QByteArray &text)
{
    QList<Mount> mounts;
    const QList<QByteArray> lines = text.split('\n');
    for (const QByteArray &line : lines) {
        const QList<QByteArray> fields = words(line);
        if (fields.size() < 4)
            continue;
        const Mount mount = {QString::fromUtf8(unescaped(fields.at(0))), unescaped(fields.at(1)),
                             QString::fromUtf8(fields.at(2))};
        // A mount hides an earlier one on its path.
        mounts.erase(std::remove_if(mounts.begin(), mounts.end(),
                                    [&](const Mount &other) { return other.path == mount.path; }),
                     mounts.end());
        mounts.append(mount);
    }

    std::stable_sort(mounts.begin(), mounts.end(), [](const Mount &left, const Mount &right) {
        return left.path.size() < right.path.size();
    });
    QList<Mount> result;
    QSet<QString> devices;
    for (const Mount &mount : std::as_const(mounts)) {
        if (isPseudo(mount.type) || devices.contains(mount.device))
            continue;
        devices.insert(mount.device);
        result.append(mount);
    }
    return result;
}

QString segment(const QString &text)
{
    QString result = text.left(MAX_SEGMENT);
    for (int index = 0; index < result.size(); ++index) {
        const QChar character = result.at(index);
        const bool atEnd = index == 0 || index == result.size() - 1;
        if (character == '.' || character.category() == QChar::Other_Control ||
            (atEnd && character.isSpace()))
            result[index] = '_';
    }
    const bool none = result.isEmpty() || result == "+" || result == "*";
    return none ? QString("_") : result;
}

} // namespace hoststate
