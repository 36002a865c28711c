#include "appversion.h"

namespace morvik
{

AppVersion::AppVersion() = default;

AppVersion::AppVersion(const QString &version, const QString &buildDate)
    : _version(version)
    , _buildDate(buildDate)
{}

bool AppVersion::isValid() const
{
    return !_version.isEmpty();
}

QString AppVersion::version() const
{
    return _version;
}

QString AppVersion::buildDate() const
{
    return _buildDate;
}

} // namespace morvik
