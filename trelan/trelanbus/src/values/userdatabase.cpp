#include "values/userdatabase.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <vector>

namespace bus
{

namespace
{

constexpr qint64 LIFETIME_MS = 60000;
constexpr int MAX_ENTRIES = 1000;
constexpr size_t FIRST_ROOM = 4096;
constexpr size_t MAX_ROOM = 1024 * 1024; // for a group with very many members
constexpr int FIRST_GROUPS = 64;
constexpr int MAX_GROUPS = 65536; // the kernel gives a process no more

/// Calls \a read with more and more room until it has enough.
template <typename Entry, typename Read>
bool readEntry(std::vector<char> &room, Entry &entry, const Read &read)
{
    for (room.resize(FIRST_ROOM); room.size() <= MAX_ROOM; room.resize(room.size() * 4)) {
        Entry *found = nullptr;
        const int status = read(&entry, room.data(), room.size(), &found);
        if (status != ERANGE)
            return status == 0 && found;
    }
    return false;
}

QString groupName(gid_t id)
{
    std::vector<char> room;
    group entry {};
    const auto read = [id](auto... arguments) { return ::getgrgid_r(id, arguments...); };
    return readEntry(room, entry, read) ? QString::fromLocal8Bit(entry.gr_name)
                                        : QString::number(id);
}

QStringList groupsOf(const passwd &user)
{
    std::vector<gid_t> ids(FIRST_GROUPS);
    int count = FIRST_GROUPS;
    while (::getgrouplist(user.pw_name, user.pw_gid, ids.data(), &count) < 0) {
        if (ids.size() >= MAX_GROUPS)
            return {groupName(user.pw_gid)};
        // Some databases do not say how many there are.
        ids.resize(size_t(qBound(int(ids.size()) * 2, count, MAX_GROUPS)));
        count = int(ids.size());
    }
    QStringList names;
    for (int i = 0; i < count; ++i)
        names.append(groupName(ids[size_t(i)]));
    return names;
}

} // namespace

void UserDatabase::complete(ClientOwner &owner)
{
    if (owner.kind != ClientOwner::User)
        return;
    if (_entries.size() >= MAX_ENTRIES && !_entries.contains(owner.userId))
        _entries.clear();
    Entry &entry = _entries[owner.userId];
    if (!entry.since.isValid() || entry.since.hasExpired(LIFETIME_MS)) {
        std::vector<char> room;
        passwd user {};
        const auto read = [&owner](auto... arguments) {
            return ::getpwuid_r(owner.userId, arguments...);
        };
        const bool isKnown = readEntry(room, user, read);
        entry.name = isKnown ? QString::fromLocal8Bit(user.pw_name) : QString::number(owner.userId);
        entry.groups = isKnown ? groupsOf(user) : QStringList();
        entry.since.start();
    }
    owner.name = entry.name;
    owner.groups = entry.groups;
}

} // namespace bus
