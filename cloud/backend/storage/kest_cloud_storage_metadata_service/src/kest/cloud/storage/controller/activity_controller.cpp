#include "activity_controller.h"

#include <kest/analytics_db/activity_histogram.h>
#include <kest/analytics_db/filter_url_query.h>
#include <kest/cloud/storage/model/model.h>
#include <kest/cloud/storage/view/activity_chart.h>
#include <kest/utils/log/log.h>

#include "value_rules.h"

namespace kest::cloud::storage::metadatadb {

using namespace kest::network::http;
using kest::analytics::db::Activity;
using kest::analytics::db::ActivityHistogram;
using kest::analytics::db::ResultCode;

ActivityController::ActivityController(Model& model, Output output)
    : m_model(model), m_output(output), m_fanOut(model)
{}

void ActivityController::processRequest(RequestContext /*requestContext*/,
                                        ActivityRequestData request)
{
    KEST_VERBOSE(this,
                 "Processing activity request with filter: %1, internal_lookup: %2, bucketMs: %3, "
                 "heatmap: %4",
                 kest::analytics::db::toString(request.filter), request.internal_lookup,
                 request.bucketWidthMs(), request.heatmap);
    if (const auto problem = ValueRules::checkActivity(request); !problem.empty()) {
        requestCompleted(inputError(problem));
        return;
    }
    m_query.filter = std::move(request.filter);
    m_query.bucketMs = request.bucketWidthMs();
    m_query.heatmap = request.heatmap;

    if (request.internal_lookup) {
        auto* storage = m_model.getAnalyticsStorage();
        if (!storage || !storage->isReady()) {
            KEST_ERROR(this, "analytics db in bad state");
            requestCompleted(StatusCode::internalServerError, ApiRequestResult());
            return;
        }
        // The handler completes the request, after which this controller may be gone.
        storage->countActivity(m_query, [this](ResultCode code, Activity activity) {
            onLocalCount(code, std::move(activity));
        });
        return;
    }

    // Every instance gets the bucket width decided here, so that all answers have the same
    // buckets and add up.
    static_cast<Activity&>(m_sum) = ActivityHistogram(m_query).result();
    ActivityRequestData peerRequest;
    peerRequest.filter = m_query.filter;
    peerRequest.internal_lookup = true;
    peerRequest.bucketMs = m_query.bucketMs;
    peerRequest.heatmap = m_query.heatmap;
    m_fanOut.start(
        m_query.filter,
        [this, peerRequest](api::AbstractClient& client, PeerFanOut::Replied replied) {
            client.getActivity(peerRequest, [this, replied = std::move(replied)](
                                                StatusCode::Value status,
                                                ActivityAnswer answer) mutable {
                if (status == StatusCode::ok && !addToSum(answer)) {
                    KEST_INFO(this, "An instance answered an activity count with other buckets");
                    status = StatusCode::internalServerError;
                }
                replied(status);
            });
        },
        [this](PeerFanOut::Outcome outcome) { finishRequest(outcome); });
}

void ActivityController::onLocalCount(ResultCode resultCode, Activity activity)
{
    switch (resultCode) {
        case ResultCode::ok:
            break;
        case ResultCode::notSupported:
            requestCompleted(StatusCode::notImplemented,
                             ApiRequestResult(ApiRequestErrorClass::internalError, "notSupported",
                                              "This instance's storage cannot count activity"));
            return;
        default:
            KEST_WARNING(this,
                         "Error occurred while counting activity in the analytics database with "
                         "filter %1.",
                         kest::analytics::db::toString(m_query.filter));
            requestCompleted(StatusCode::internalServerError, ApiRequestResult());
            return;
    }
    ActivityAnswer local;
    static_cast<Activity&>(local) = std::move(activity);
    answer(local);
}

bool ActivityController::addToSum(const ActivityAnswer& answer)
{
    std::lock_guard lock(m_mutex);
    if (answer.bucketMs != m_sum.bucketMs || answer.buckets.size() != m_sum.buckets.size() ||
        answer.heatmap.has_value() != m_sum.heatmap.has_value() ||
        (answer.heatmap && answer.heatmap->cells.size() != m_sum.heatmap->cells.size())) {
        return false;
    }
    for (std::size_t i = 0; i < answer.buckets.size(); ++i) {
        if (answer.buckets[i].startTimeMs != m_sum.buckets[i].startTimeMs)
            return false;
    }
    for (std::size_t i = 0; i < answer.buckets.size(); ++i) {
        auto& bucket = m_sum.buckets[i];
        bucket.tracks += answer.buckets[i].tracks;
        for (const auto& [type, count] : answer.buckets[i].byType)
            bucket.byType[type] += count;
    }
    if (answer.heatmap) {
        for (std::size_t i = 0; i < answer.heatmap->cells.size(); ++i)
            m_sum.heatmap->cells[i] += answer.heatmap->cells[i];
    }
    return true;
}

void ActivityController::finishRequest(PeerFanOut::Outcome outcome)
{
    switch (outcome.kind) {
        case PeerFanOut::Outcome::Kind::addressLookupFailed:
            requestCompleted(StatusCode::internalServerError, ApiRequestResult());
            return;
        case PeerFanOut::Outcome::Kind::stopped:
            requestCompleted(StatusCode::serviceUnavailable, ApiRequestResult());
            return;
        case PeerFanOut::Outcome::Kind::done:
            break;
    }
    ActivityAnswer sum;
    {
        std::lock_guard lock(m_mutex);
        sum = std::move(m_sum);
    }
    sum.instancesAsked = outcome.asked;
    sum.instancesAnswered = outcome.answered;
    answer(sum);
}

void ActivityController::answer(const ActivityAnswer& answer)
{
    if (m_output == Output::svg) {
        requestCompletedWithBody(StatusCode::ok,
                                 ActivityChart(m_query.filter.timePeriod).svg(answer),
                                 ActivityChart::kContentType);
        return;
    }
    requestCompleted(ApiRequestResult(), answer);
}

}  // namespace kest::cloud::storage::metadatadb
