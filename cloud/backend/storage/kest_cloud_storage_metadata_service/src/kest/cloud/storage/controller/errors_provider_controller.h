#pragma once

#include <unordered_set>

#include <kest/network/http/api/base_api_request_handler.h>
#include <kest/vms_common/zu_uuid.h>

#include "errors_request_data.h"

namespace kest::cloud::storage::metadatadb {

class ErrorsStorageModel;

/**
 * GET dataSaveErrors/{deviceIds}: reports the failed-save periods of the named devices (all
 * devices when none is named), pruning the history first when asked to.
 */
class ErrorsProviderController
    : public kest::network::http::detail::BaseApiRequestHandler<
          ErrorsRequestData, kest::network::http::AbstractApiRequestHandler<ErrorsRequestData>>
{
public:
    /** The storage may be null: every request then answers 500. */
    explicit ErrorsProviderController(ErrorsStorageModel* errorsStorage);

    void processRequest(kest::network::http::RequestContext requestContext,
                        ErrorsRequestData request) override;

    /**
     * The ids of the "deviceIds" path parameter, separated by ';'. Empty pieces are skipped,
     * text that is not a UUID stands for the null UUID, repeated ids count once.
     */
    std::unordered_set<ZuUuid> parseDeviceIdsFromRequest(
        const kest::network::http::RequestContext& requestContext) const;

private:
    ErrorsStorageModel* m_errorsStorage;
};

}  // namespace kest::cloud::storage::metadatadb
