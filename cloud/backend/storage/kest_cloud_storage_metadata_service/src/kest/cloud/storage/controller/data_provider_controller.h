#pragma once

#include <string>
#include <vector>

#include <kest/analytics_db/filter.h>
#include <kest/analytics_db/object_track_ex.h>
#include <kest/analytics_db/result_code.h>
#include <kest/network/http/api/base_api_request_handler.h>

#include "data_request_data.h"

namespace kest::cloud::storage::metadatadb {

class Model;

/**
 * GET data: an internal lookup searches this instance's analytics storage; any other search
 * asks the data-distribution storage which instances hold the filter's devices and period, and
 * asks each of them in turn.
 */
class DataProviderController
    : public kest::network::http::detail::BaseApiRequestHandler<
          DataRequestData, kest::network::http::AbstractApiRequestHandler<DataRequestData>>
{
public:
    explicit DataProviderController(Model& model);

    void processRequest(kest::network::http::RequestContext requestContext,
                        DataRequestData request) override;

private:
    void onLocalLookupDone(kest::analytics::db::ResultCode resultCode,
                           std::vector<kest::analytics::db::ObjectTrackEx> tracks);
    /** Continues a distributed search with the addresses of the instances to ask. */
    void requestRemoteInstances(bool ok, std::vector<std::string> addresses);

    Model& m_model;
    kest::analytics::db::Filter m_filter;
    bool m_internalLookup = false;
};

}  // namespace kest::cloud::storage::metadatadb
