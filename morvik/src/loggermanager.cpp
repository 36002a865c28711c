#include "loggermanager.h"

#include <QtCore/QMap>
#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>

#include <memory>

namespace
{

struct Entry
{
    explicit Entry(const LoggerManager::Output &function)
        : output(function)
    {}

    LoggerManager::Output output; // empty once the entry is removed
    bool running = false;
};

struct Outputs
{
    // Guards what an entry holds, and is held while its output is called. All entries share it,
    // since two outputs that hand lines on to handle() would otherwise wait for each other.
    QMutex calling {QMutex::Recursive};
    QMutex mutex; // guards the members below
    QMap<QString, std::shared_ptr<Entry>> entries;
    QtMessageHandler previous = nullptr;
    bool installed = false;
};

/// Never destroyed: lines are logged until the very end of the process.
Outputs &outputsOfProcess()
{
    static auto *_outputs = new Outputs;
    return *_outputs;
}

void callOutput(Entry &entry, QtMsgType type, const QMessageLogContext &context,
                const QString &text)
{
    const QMutexLocker locker(&outputsOfProcess().calling);
    // A line that an output logs does not come back to it, since it would log for ever.
    if (entry.running || !entry.output)
        return;
    entry.running = true;
    const LoggerManager::Output output = entry.output;
    output(type, context, text);
    entry.running = false;
}

/// Waits until the output has written its current line, and lets no other line reach it.
void retire(const std::shared_ptr<Entry> &entry)
{
    if (!entry)
        return;
    const QMutexLocker locker(&outputsOfProcess().calling);
    entry->output = nullptr;
}

} // namespace

void LoggerManager::addOutput(const QString &name, const Output &output)
{
    Outputs &all = outputsOfProcess();
    std::shared_ptr<Entry> entry = std::make_shared<Entry>(output);
    {
        const QMutexLocker locker(&all.mutex);
        all.entries[name].swap(entry);
    }
    retire(entry);
}

void LoggerManager::removeOutput(const QString &name)
{
    Outputs &all = outputsOfProcess();
    std::shared_ptr<Entry> entry;
    {
        const QMutexLocker locker(&all.mutex);
        entry = all.entries.take(name);
    }
    retire(entry);
}

QStringList LoggerManager::outputs()
{
    Outputs &all = outputsOfProcess();
    const QMutexLocker locker(&all.mutex);
    return all.entries.keys();
}

void LoggerManager::install()
{
    Outputs &all = outputsOfProcess();
    const QMutexLocker locker(&all.mutex);
    if (all.installed)
        return;
    all.previous = qInstallMessageHandler(&LoggerManager::handle);
    all.installed = true;
}

void LoggerManager::uninstall()
{
    Outputs &all = outputsOfProcess();
    const QMutexLocker locker(&all.mutex);
    if (!all.installed)
        return;
    qInstallMessageHandler(all.previous);
    all.installed = false;
}

void LoggerManager::handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    Outputs &all = outputsOfProcess();
    QList<std::shared_ptr<Entry>> entries;
    QtMessageHandler previous = nullptr;
    {
        const QMutexLocker locker(&all.mutex);
        entries = all.entries.values();
        previous = all.previous;
    }
    for (const std::shared_ptr<Entry> &entry : std::as_const(entries))
        callOutput(*entry, type, context, text);
    if (entries.isEmpty() && previous)
        previous(type, context, text);
}
