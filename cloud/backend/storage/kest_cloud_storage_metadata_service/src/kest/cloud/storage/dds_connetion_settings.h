#pragma once

#include "mongo_connection_settings.h"

namespace kest::cloud::storage::metadatadb::conf {

/** The MongoDB connection of the data-distribution storage. */
class DDSConnetionSettings : public MongoConnectionSettings
{
public:
    void load(const ZuSettings& settings) { MongoConnectionSettings::load(settings); }
};

}  // namespace kest::cloud::storage::metadatadb::conf
