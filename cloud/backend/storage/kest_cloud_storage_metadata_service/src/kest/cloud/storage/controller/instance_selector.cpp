#include "instance_selector.h"

#include <kest/cloud/storage/model/abstract_data_distribution_storage.h>
#include <kest/cloud/storage/model/model.h>
#include <kest/utils/log/log.h>

namespace kest::cloud::storage::metadatadb {

using namespace kest::network::http;

InstanceSelector::InstanceSelector(Model& model) : m_model(model) {}

void InstanceSelector::processRequest(RequestContext /*requestContext*/,
                                      OptimalInstanceRequest request)
{
    // The request takes no part in the choice; it is kept for the failure's log line.
    m_model.getDDSModel()->getInstancesLoad(
        [this, request = std::move(request)](bool ok, std::vector<InstanseLoad> loads) {
            const InstanseLoad* chosen = ok ? selectOptimal(loads) : nullptr;
            if (!chosen) {
                KEST_WARNING(this, "optimal instance request with params: %1 failed", request);
                requestCompleted(StatusCode::internalServerError, ApiRequestResult());
                return;
            }
            requestCompleted(ApiRequestResult(), chosen->host);
        });
}

const InstanseLoad* InstanceSelector::selectOptimal(const std::vector<InstanseLoad>& loads)
{
    const InstanseLoad* best = nullptr;
    for (const auto& load : loads) {
        if (!best || load.longLoadMetric < best->longLoadMetric)
            best = &load;
    }
    return best;
}

}  // namespace kest::cloud::storage::metadatadb
