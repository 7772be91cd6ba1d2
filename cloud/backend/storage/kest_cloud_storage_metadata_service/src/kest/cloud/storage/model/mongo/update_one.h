#pragma once

#include "document.h"

namespace kest::cloud::storage::metadatadb::mongo {

/** One update-one operation, ready to be queued in a bulk write. */
struct UpdateOne
{
    Document filter;
    Document update;
    bool upsert = false;
};

}  // namespace kest::cloud::storage::metadatadb::mongo
