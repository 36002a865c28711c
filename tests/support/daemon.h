#pragma once

#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>

#include <csignal>
#include <unistd.h>

/// \brief A process that runs `trelanbusd`. It ends with this object.
class Daemon
{
public:
    quint16 queryPort = 0, msgPort = 0;

    explicit Daemon(QString program)
        : _program(std::move(program))
    {}
    ~Daemon() { end(SIGKILL); }
    Q_DISABLE_COPY(Daemon)

    /// Returns true as soon as the daemon listens, false if it ends instead. The first start takes
    /// free ports; later ones use those again.
    bool start(const QStringList &arguments = {})
    {
        const QString ports = _folder.filePath(QStringLiteral("ports"));
        QFile::remove(ports);
        _process.setProcessChannelMode(QProcess::MergedChannels);
        // A file, since the daemon would wait once a pipe is full.
        _process.setStandardOutputFile(_folder.filePath(QStringLiteral("log")));
        _process.start(_program,
                       QStringList {QStringLiteral("--query-port"), QString::number(queryPort),
                                    QStringLiteral("--msg-port"), QString::number(msgPort),
                                    QStringLiteral("--port-file"), ports} +
                           arguments);
        while (!QFile::exists(ports)) {
            if (!_process.waitForStarted() || _process.waitForFinished(2))
                return false;
        }
        const QList<QByteArray> lines = read(ports).split('\n');
        queryPort = lines[0].mid(6).toUShort();
        msgPort = lines[1].mid(4).toUShort();
        return true;
    }

    /// Sends \a signal and returns the exit code; -1 if a signal ended the daemon.
    int end(int signal)
    {
        if (pid() <= 0) // it has ended: 0 would be every process of this test's group
            return -1;
        ::kill(pid(), signal);
        _process.waitForFinished(60000);
        return _process.exitStatus() == QProcess::NormalExit ? _process.exitCode() : -1;
    }

    pid_t pid() const { return pid_t(_process.processId()); }

    /// A number of its status in the system: "VmRSS" is the memory that it occupies, in KiB.
    int status(const char *key) const
    {
        const QByteArray text = read(QStringLiteral("/proc/%1/status").arg(pid()));
        return text.mid(text.indexOf(key))
            .mid(int(qstrlen(key)) + 1, 16)
            .simplified()
            .split(' ')[0]
            .toInt();
    }

private:
    static QByteArray read(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    const QString _program;
    const QTemporaryDir _folder;
    QProcess _process;
};
