#pragma once

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QLoggingCategory>
#include <QtCore/QString>

namespace bus
{

/// The category of everything that the bus logs: "trelan.bus".
Q_DECLARE_LOGGING_CATEGORY(BUS_LOG)

/// \brief Lets a warning about one thing through once a minute, since warnings that clients can
/// cause must not fill the log.
///
/// One thread.
class WarningLimiter
{
public:
    /// Whether the warning about \a what may be logged now.
    bool allows(const QString &what);

private:
    void forgetOld();

    QHash<QString, QElapsedTimer> _warned;
};

} // namespace bus
