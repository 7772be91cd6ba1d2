#pragma once

#include <QString>

namespace kest::utils {

/**
 * Process-wide application identity. The organisation name groups the settings of all services
 * of one maker.
 */
class AppInfo
{
public:
    static QString organizationNameForSettings();
};

}  // namespace kest::utils
