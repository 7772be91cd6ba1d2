#pragma once

#include <mutex>

#include <kest/analytics_db/activity_query.h>
#include <kest/analytics_db/result_code.h>
#include <kest/network/http/api/base_api_request_handler.h>

#include "activity_answer.h"
#include "activity_request_data.h"
#include "peer_fan_out.h"

namespace kest::cloud::storage::metadatadb {

class Model;

/**
 * GET activity (JSON) and activity.svg (its picture): counts the tracks that a search's filter
 * selects per bucket of time and type, and per cell of the grid. An internal lookup counts in
 * this instance's analytics storage; any other asks the instances that the data-distribution
 * storage names, as a track search does (PeerFanOut), and sums their answers. An instance that
 * fails, or answers with other buckets than those asked, is left out of the sum; the answer says
 * how many instances were asked and how many answered.
 */
class ActivityController
    : public kest::network::http::detail::BaseApiRequestHandler<
          ActivityRequestData, kest::network::http::AbstractApiRequestHandler<ActivityRequestData>>
{
public:
    enum class Output
    {
        json,
        svg,
    };

    ActivityController(Model& model, Output output);

    void processRequest(kest::network::http::RequestContext requestContext,
                        ActivityRequestData request) override;

private:
    void onLocalCount(kest::analytics::db::ResultCode resultCode,
                      kest::analytics::db::Activity activity);
    /** Adds an instance's answer to the sum; false when it is not an answer to this count. */
    bool addToSum(const ActivityAnswer& answer);
    void finishRequest(PeerFanOut::Outcome outcome);
    void answer(const ActivityAnswer& answer);

    Model& m_model;
    Output m_output;
    kest::analytics::db::ActivityQuery m_query;
    std::mutex m_mutex;
    ActivityAnswer m_sum;
    PeerFanOut m_fanOut;
};

}  // namespace kest::cloud::storage::metadatadb
