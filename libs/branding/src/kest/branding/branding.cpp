#include "branding.h"

namespace kest::branding {

QString company()
{
    return QStringLiteral("Kest");
}

QString companyId()
{
    return QStringLiteral("kest");
}

}  // namespace kest::branding
