#pragma once

#include <vector>

#include <kest/cloud/storage/model/instanse_load.h>
#include <kest/network/http/api/base_api_request_handler.h>

#include "optimal_instance_request.h"

namespace kest::cloud::storage::metadatadb {

class Model;

/** GET optimalInstance: answers the address of the instance with the smallest long-term load. */
class InstanceSelector : public kest::network::http::detail::BaseApiRequestHandler<
                             OptimalInstanceRequest,
                             kest::network::http::AbstractApiRequestHandler<OptimalInstanceRequest>>
{
public:
    explicit InstanceSelector(Model& model);

    void processRequest(kest::network::http::RequestContext requestContext,
                        OptimalInstanceRequest request) override;

    /**
     * The first record with the smallest long-term load, in the order given; a later record wins
     * only when strictly smaller (so a NaN never does). Null for an empty list.
     */
    static const InstanseLoad* selectOptimal(const std::vector<InstanseLoad>& loads);

private:
    Model& m_model;
};

}  // namespace kest::cloud::storage::metadatadb
