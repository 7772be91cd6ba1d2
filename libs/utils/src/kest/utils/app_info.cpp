#include "app_info.h"

namespace kest::utils {

QString AppInfo::organizationNameForSettings()
{
    return QStringLiteral("Kest");
}

}  // namespace kest::utils
