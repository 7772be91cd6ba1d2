#pragma once

#include <boost/describe/class.hpp>
#include <cstdint>
#include <optional>

#include <kest/analytics_db/activity.h>

namespace kest::cloud::storage::metadatadb {

/**
 * The answer to an activity count. A distributed count sums the answers of the instances it
 * asked and says how many it asked and how many answered; an internal one leaves both out.
 */
struct ActivityAnswer : kest::analytics::db::Activity
{
    std::optional<std::uint32_t> instancesAsked;
    std::optional<std::uint32_t> instancesAnswered;

    friend bool operator==(const ActivityAnswer&, const ActivityAnswer&) = default;
};

BOOST_DESCRIBE_STRUCT(ActivityAnswer, (kest::analytics::db::Activity),
                      (instancesAsked, instancesAnswered))

}  // namespace kest::cloud::storage::metadatadb
