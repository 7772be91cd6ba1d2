#pragma once

// Build-time names of the maker: the service name and the default data directory are derived
// from them.

#include <QString>

namespace kest::branding {

/** The company name as shown to people ("Kest"). */
QString company();

/** The company identifier used in paths: short and lower-case ("kest"). */
QString companyId();

}  // namespace kest::branding
