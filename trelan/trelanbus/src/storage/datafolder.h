#pragma once

#include <QtCore/QString>

/// The folder of what a bus keeps, which nobody reads but the user of this process: mode 0700, and
/// 0600 for its files. The mask of the process does not matter and stays as it is.
namespace bus::datafolder
{

/// Makes the folder if it is not there. Closes a folder and the files of \a database that others
/// can open, and says so in the log, if they belong to the user of this process. Returns what is
/// wrong, for people; empty if nothing is.
///
/// A folder with other files in it is never changed: it may be one that all users need.
QString prepare(const QString &folder, const QString &database);

/// Makes an empty file for the database unless one is there. The files that SQLite makes beside it
/// have its mode. A fault shows when SQLite opens the file.
void makeFile(const QString &path);

} // namespace bus::datafolder
