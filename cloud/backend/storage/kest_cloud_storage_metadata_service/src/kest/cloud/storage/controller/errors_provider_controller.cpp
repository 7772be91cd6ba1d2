#include "errors_provider_controller.h"

#include <limits>
#include <string_view>

#include <kest/cloud/storage/model/errors_storage_model.h>
#include <kest/utils/log/log.h>

namespace kest::cloud::storage::metadatadb {

using namespace kest::network::http;

ErrorsProviderController::ErrorsProviderController(ErrorsStorageModel* errorsStorage)
    : m_errorsStorage(errorsStorage)
{}

std::unordered_set<ZuUuid> ErrorsProviderController::parseDeviceIdsFromRequest(
    const RequestContext& requestContext) const
{
    const std::string text = requestContext.requestPathParams.getByName("deviceIds").value_or("");
    std::unordered_set<ZuUuid> deviceIds;
    std::string_view rest = text;
    while (!rest.empty()) {
        const auto separator = rest.find(';');
        const std::string_view piece = rest.substr(0, separator);
        if (!piece.empty())
            deviceIds.insert(ZuUuid(piece));
        rest =
            separator == std::string_view::npos ? std::string_view() : rest.substr(separator + 1);
    }
    return deviceIds;
}

void ErrorsProviderController::processRequest(RequestContext requestContext,
                                              ErrorsRequestData request)
{
    const auto deviceIds = parseDeviceIdsFromRequest(requestContext);
    KEST_VERBOSE(this, "Processing get errors request with params: %1, deviceIds: %2", request,
                 deviceIds);

    if (!m_errorsStorage) {
        KEST_ERROR(this, "Attempt to read from non initialized DB, errors storage ptr is null");
        requestCompleted(StatusCode::internalServerError, ApiRequestResult());
        return;
    }

    // Pruning needs both: a true flag alone, or no flag, prunes nothing. A clear that names
    // devices returns only once every device in the history is among them.
    if (request.clearData.value_or(false) && request.timestamp)
        m_errorsStorage->clearData(deviceIds, *request.timestamp);

    const auto errors = m_errorsStorage->getErrors(
        deviceIds, request.timestamp.value_or(std::chrono::milliseconds(0)),
        request.count.value_or(std::numeric_limits<std::uint32_t>::max()));
    requestCompleted(ApiRequestResult(), errors);
}

}  // namespace kest::cloud::storage::metadatadb
