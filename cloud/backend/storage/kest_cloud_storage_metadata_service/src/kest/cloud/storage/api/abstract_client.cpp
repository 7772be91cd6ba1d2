#include "abstract_client.h"

namespace kest::cloud::storage::metadatadb::api {

AbstractClient::AbstractClient(const kest::utils::Url& url) : GenericApiClient(url) {}

AbstractClient::~AbstractClient() = default;

void AbstractClient::getActivity(const ActivityRequestData& /*request*/,
                                 MoveOnlyFunc<void(StatusCode::Value, ActivityAnswer)> handler)
{
    post([handler = std::move(handler)]() mutable { handler(StatusCode::notImplemented, {}); });
}

std::tuple<AbstractClient::StatusCode::Value, ActivityAnswer> AbstractClient::getActivitySync(
    const ActivityRequestData& /*request*/)
{
    return {StatusCode::notImplemented, {}};
}

}  // namespace kest::cloud::storage::metadatadb::api
