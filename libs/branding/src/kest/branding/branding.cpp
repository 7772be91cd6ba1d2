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

QString productName()
{
    return QStringLiteral("Kest Cloud Metadata Storage");
}

}  // namespace kest::branding
