#include "hostsampler.h"

#include "kernelfigures.h"

#include <QtCore/QFile>

#include <sys/statvfs.h>

namespace hoststate
{

namespace
{

/// Reads a file under /proc to its end, since such a file tells no size.
QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// The figures of a file system. Empty if it has no blocks, like a pseudo file system whose name is
/// too new to be known.
QVariantMap diskFigures(const Mount &mount)
{
    struct statvfs state = {};
    if (::statvfs(mount.path.constData(), &state) != 0 || state.f_blocks == 0)
        return {};
    const auto kibibytes = [&state](fsblkcnt_t blocks) {
        return qulonglong(blocks) * state.f_frsize / 1024;
    };
    return {{"mount", QString::fromUtf8(mount.path)},
            {"device", mount.device},
            {"type", mount.type},
            {"total", kibibytes(state.f_blocks)},
            {"free", kibibytes(state.f_bfree)},
            {"available", kibibytes(state.f_bavail)}};
}

} // namespace

HostSampler::HostSampler(const QString &hostName)
    : _prefix("host." + segment(hostName) + '.')
{}

QList<bus::TrelanObject> HostSampler::sample() const
{
    QList<bus::TrelanObject> objects;
    append(objects, "load", parseLoad(contentOf("/proc/loadavg")));
    append(objects, "memory", parseMemory(contentOf("/proc/meminfo")));

    const QVariantMap interfaces = parseNetwork(contentOf("/proc/net/dev"));
    for (auto entry = interfaces.cbegin(); entry != interfaces.cend(); ++entry)
        append(objects, "net." + segment(entry.key()), entry.value().toMap());

    const QList<Mount> mounts = parseMounts(contentOf("/proc/self/mounts"));
    for (const Mount &mount : mounts)
        append(objects, "disk." + segment(QString::fromUtf8(mount.path)), diskFigures(mount));
    return objects;
}

void HostSampler::append(QList<bus::TrelanObject> &objects, const QString &name,
                         const QVariantMap &figures) const
{
    if (figures.isEmpty())
        return;
    bus::TrelanObject object;
    object.setName(_prefix + name);
    object.setContent(figures);
    objects.append(object);
}

} // namespace hoststate
