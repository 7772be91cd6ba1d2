#pragma once

#include <QString>

namespace kest::utils {

/**
 * Process-wide application identity. The organisation name groups the settings of all services
 * of one maker; the branding layer sits above this library, so the name is set by whoever owns
 * the branding (or keeps the built-in default).
 */
class AppInfo
{
public:
    static QString organizationNameForSettings();
    static void setOrganizationNameForSettings(const QString& name);
};

}  // namespace kest::utils
