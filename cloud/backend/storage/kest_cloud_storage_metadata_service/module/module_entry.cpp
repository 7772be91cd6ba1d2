// The entry point of the service module: the host calls it to make the service.

#include <kest/cloud/storage/metadata_service.h>
#include <kest/utils/service_module.h>

KEST_SERVICE_MODULE(kest::cloud::storage::metadatadb::MetadataService)
