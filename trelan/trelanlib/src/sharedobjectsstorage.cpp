#include "sharedobjectsstorage.h"

#include <QtCore/QMutexLocker>

#include <memory>

namespace bus
{

namespace
{
constexpr int MAX_COMMANDS = 20;
} // namespace

QMutex SharedObjectsStorage::_objectsMutex;
QHash<QString, TrelanObject> SharedObjectsStorage::_objects;
QCache<QString, QPair<TrelanCommand, TrelanCommand>> SharedObjectsStorage::_commands(MAX_COMMANDS);

SharedObjectsStorage::SharedObjectsStorage() = default;
SharedObjectsStorage::~SharedObjectsStorage() = default;

void SharedObjectsStorage::store(const TrelanObject &object)
{
    const QMutexLocker locker(&_objectsMutex);
    _objects.insert(object.name(), object);
}

TrelanObject SharedObjectsStorage::take(const QString &name)
{
    const QMutexLocker locker(&_objectsMutex);
    return _objects.take(name);
}

void SharedObjectsStorage::remove(const QString &name)
{
    const QMutexLocker locker(&_objectsMutex);
    _objects.remove(name);
}

TrelanObject SharedObjectsStorage::get(const QString &name) const
{
    const QMutexLocker locker(&_objectsMutex);
    return _objects.value(name);
}

bool SharedObjectsStorage::get(const QString &name, TrelanObject &object) const
{
    const QMutexLocker locker(&_objectsMutex);
    const auto found = _objects.constFind(name);
    object = found == _objects.constEnd() ? TrelanObject() : *found;
    return found != _objects.constEnd();
}

bool SharedObjectsStorage::contains(const QString &name) const
{
    const QMutexLocker locker(&_objectsMutex);
    return _objects.contains(name);
}

QList<TrelanObject> SharedObjectsStorage::getAllObjects() const
{
    const QMutexLocker locker(&_objectsMutex);
    return _objects.values();
}

void SharedObjectsStorage::storeCmd(const TrelanCommand &command)
{
    const QMutexLocker locker(&_objectsMutex);
    _commands.remove(command.uid());
    _commands.insert(command.uid(), new QPair<TrelanCommand, TrelanCommand>(command, {}));
}

void SharedObjectsStorage::storeCmdAnswer(const TrelanCommand &answer)
{
    if (answer.parentUid().isEmpty())
        return;
    const QMutexLocker locker(&_objectsMutex);
    if (auto *pair = _commands.object(answer.parentUid()))
        pair->second = answer;
}

QPair<TrelanCommand, TrelanCommand> SharedObjectsStorage::takeCmd(const QString &uid)
{
    const QMutexLocker locker(&_objectsMutex);
    const std::unique_ptr<QPair<TrelanCommand, TrelanCommand>> pair(_commands.take(uid));
    return pair ? *pair : QPair<TrelanCommand, TrelanCommand>();
}

void SharedObjectsStorage::removeCmd(const QString &uid)
{
    const QMutexLocker locker(&_objectsMutex);
    _commands.remove(uid);
}

QPair<TrelanCommand, TrelanCommand> SharedObjectsStorage::getCmd(const QString &uid) const
{
    const QMutexLocker locker(&_objectsMutex);
    const auto *pair = _commands.object(uid);
    return pair ? *pair : QPair<TrelanCommand, TrelanCommand>();
}

bool SharedObjectsStorage::getCmd(const QString &uid, QPair<TrelanCommand, TrelanCommand> &pair)
{
    const QMutexLocker locker(&_objectsMutex);
    const auto *kept = _commands.object(uid);
    pair = kept ? *kept : QPair<TrelanCommand, TrelanCommand>();
    return kept != nullptr;
}

bool SharedObjectsStorage::containsCmd(const QString &uid) const
{
    const QMutexLocker locker(&_objectsMutex);
    return _commands.contains(uid);
}

bool SharedObjectsStorage::containsAnswer(const QString &uid) const
{
    const QMutexLocker locker(&_objectsMutex);
    const auto *pair = _commands.object(uid);
    return pair && pair->second.parentUid() == pair->first.uid();
}

QList<QPair<TrelanCommand, TrelanCommand>> SharedObjectsStorage::getAllCommands() const
{
    const QMutexLocker locker(&_objectsMutex);
    QList<QPair<TrelanCommand, TrelanCommand>> pairs;
    const QList<QString> uids = _commands.keys();
    for (const QString &uid : uids)
        pairs.append(*_commands.object(uid));
    return pairs;
}

void SharedObjectsStorage::clear()
{
    const QMutexLocker locker(&_objectsMutex);
    _objects.clear();
    _commands.clear();
}

void SharedObjectsStorage::release()
{
    clear();
}

} // namespace bus
