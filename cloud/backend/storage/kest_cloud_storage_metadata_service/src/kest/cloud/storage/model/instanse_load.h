#pragma once

#include <string>

namespace kest::cloud::storage::metadatadb {

/** The load of one service instance, as published to the other instances. */
struct InstanseLoad
{
    /** The instance's address, as other instances reach it. */
    std::string host;
    double shortLoadMetric = 0;
    double longLoadMetric = 0;
};

/** Plain double comparison, so a NaN metric makes a record unequal even to itself. */
bool operator==(const InstanseLoad& left, const InstanseLoad& right);

std::string toString(const InstanseLoad& load);

}  // namespace kest::cloud::storage::metadatadb
