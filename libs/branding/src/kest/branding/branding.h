#pragma once

// Build-time names of the maker and the product: the service name, the settings organisation
// and the default data directory are derived from them.

#include <QString>

namespace kest::branding {

/** The company name as shown to people ("Kest"). */
QString company();

/** The company identifier used in paths: short and lower-case ("kest"). */
QString companyId();

/** The product name as shown to people. */
QString productName();

}  // namespace kest::branding
