#pragma once

#include "trelanglobal.h"

#include "trelancommand.h"
#include "trelanobject.h"

#include <QtCore/QCache>
#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QPair>
#include <QtCore/QString>

namespace bus
{

/// \brief The last known value of every bus object this process has seen, and the commands it sent
/// with the answers that came back.
///
/// All data is static: every instance is a handle onto one process-wide store. The message worker
/// writes what arrives, the query worker what it loads and sends, the application reads from any
/// thread. Every method is thread-safe, returns copies, and none waits for the network.
///
/// Of objects it keeps any number, one for a name. Of commands it keeps the 20 that were used last;
/// reading one counts as a use, containsCmd() does not. An answer whose command is gone is dropped.
///
/// \code
/// bus::SharedObjectsStorage storage;
/// if (storage.containsAnswer(uid))
///     use(storage.takeCmd(uid).second.params());
/// \endcode
class TRELAN_EXPORT SharedObjectsStorage
{
public:
    SharedObjectsStorage();
    ~SharedObjectsStorage();

    /// Keeps a copy of \a object under its name, in place of an older one; nothing is merged.
    void store(const TrelanObject &object);
    /// Removes and returns the object; a default one if there is none.
    TrelanObject take(const QString &name);
    /// Removes the object, if there is one.
    void remove(const QString &name);
    /// The object called \a name, or a default one if none has been stored.
    TrelanObject get(const QString &name) const;
    /// Copies the object into \a object, which is reset first; returns whether there is one.
    bool get(const QString &name, TrelanObject &object) const;
    bool contains(const QString &name) const;
    /// Copies of all objects, in no order.
    QList<TrelanObject> getAllObjects() const;

    /// Keeps a command under its uid, without an answer; an answer that was kept is forgotten.
    void storeCmd(const TrelanCommand &command);
    /// Adds \a answer to the command whose uid is the answer's parent uid, if that command is still
    /// kept.
    void storeCmdAnswer(const TrelanCommand &answer);
    /// Removes and returns a command (first) and its answer (second); default ones if there are
    /// none.
    QPair<TrelanCommand, TrelanCommand> takeCmd(const QString &uid);
    /// Removes a command and its answer, if they are kept.
    void removeCmd(const QString &uid);
    /// A command and its answer; default ones if there are none.
    QPair<TrelanCommand, TrelanCommand> getCmd(const QString &uid) const;
    /// Copies a command and its answer into \a pair, which is reset first; returns whether the
    /// command is kept.
    bool getCmd(const QString &uid, QPair<TrelanCommand, TrelanCommand> &pair);
    bool containsCmd(const QString &uid) const;
    /// Whether the command is kept and its answer has arrived.
    bool containsAnswer(const QString &uid) const;
    /// Copies of all commands with their answers. Counts as a use of each.
    QList<QPair<TrelanCommand, TrelanCommand>> getAllCommands() const;

    /// Forgets everything.
    void clear();
    /// Forgets everything, at the end of the process.
    void release();

private:
    static QMutex _objectsMutex; // guards the statics below
    static QHash<QString, TrelanObject> _objects;
    static QCache<QString, QPair<TrelanCommand, TrelanCommand>> _commands;
};

} // namespace bus
