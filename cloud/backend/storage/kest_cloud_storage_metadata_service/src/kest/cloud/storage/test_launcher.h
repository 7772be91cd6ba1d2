#pragma once

#include <kest/utils/module_launcher.h>

#include "metadata_service.h"

namespace kest::cloud::storage::metadatadb::test {

/** Runs the whole service in-process, on its own thread, for integration tests. */
class Launcher : public kest::utils::ModuleLauncher<MetadataService>
{
public:
    Launcher() : ModuleLauncher("metadata_storage") {}
};

}  // namespace kest::cloud::storage::metadatadb::test
