#pragma once

#include <memory>
#include <string>
#include <vector>

#include "track_row.h"

namespace kest::analytics::db {

/**
 * What searches see of a track that is still being written: its aggregate as of a commit, the
 * words of its attributes as the full-text index would hold them, and its objects that are not in
 * a position chunk yet. Immutable once published.
 */
struct OpenTrackView
{
    /** A track's attributes and their tokens, shared by its views while they do not change. */
    struct Attributes
    {
        std::vector<common::metadata::Attribute> attributes;
        /** Tokens of the attribute names and values, distinct. */
        std::vector<std::string> words;
    };

    /** Its aggregate without the attributes, which are in `attributes`. */
    StoredTrack stored;
    std::shared_ptr<const Attributes> attributes;
    /** Whether the store holds a row of it as well (an older state): searches use this one. */
    bool hasRow = false;
    /** Object runs (ObjectRun) not in a chunk yet, oldest first. */
    std::vector<std::shared_ptr<const std::string>> pieces;
};

}  // namespace kest::analytics::db
