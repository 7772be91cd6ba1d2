#include "abstract_client.h"

namespace kest::cloud::storage::metadatadb::api {

AbstractClient::AbstractClient(const kest::utils::Url& url) : GenericApiClient(url) {}

AbstractClient::~AbstractClient() = default;

}  // namespace kest::cloud::storage::metadatadb::api
