#include "app_info.h"

#include <mutex>

namespace kest::utils {

namespace {

std::mutex& nameMutex()
{
    static std::mutex mutex;
    return mutex;
}

QString& organizationName()
{
    static QString name = QStringLiteral("Kest");
    return name;
}

}  // namespace

QString AppInfo::organizationNameForSettings()
{
    std::lock_guard lock(nameMutex());
    return organizationName();
}

void AppInfo::setOrganizationNameForSettings(const QString& name)
{
    std::lock_guard lock(nameMutex());
    organizationName() = name;
}

}  // namespace kest::utils
