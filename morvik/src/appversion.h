#pragma once

#include "morvikglobal.h"

#include <QtCore/QString>

namespace morvik
{

/// Version and build date of one library or program. A plain value; a default one is invalid.
class MORVIK_EXPORT AppVersion
{
public:
    AppVersion();
    /// \a buildDate is ISO 8601 text.
    AppVersion(const QString &version, const QString &buildDate);

    /// True when there is a version text.
    bool isValid() const;
    QString version() const;
    QString buildDate() const;

private:
    QString _version;
    QString _buildDate;
};

} // namespace morvik
