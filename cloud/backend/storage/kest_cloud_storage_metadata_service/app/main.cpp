#include <kest/cloud/storage/metadata_service.h>

int main(int argc, char** argv)
{
    kest::cloud::storage::metadatadb::MetadataService service(argc, argv);
    service.enableSignalHandling();
    return service.exec();
}
