#include "instanse_load.h"

#include <kest/utils/to_text.h>

namespace kest::cloud::storage::metadatadb {

bool operator==(const InstanseLoad& left, const InstanseLoad& right)
{
    return left.host == right.host && left.longLoadMetric == right.longLoadMetric &&
           left.shortLoadMetric == right.shortLoadMetric;
}

std::string toString(const InstanseLoad& load)
{
    return kest::utils::format("host: %1, short load: %2, long load: %3", load.host,
                               load.shortLoadMetric, load.longLoadMetric);
}

}  // namespace kest::cloud::storage::metadatadb
