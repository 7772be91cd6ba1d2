#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <boost/unordered/unordered_flat_set.hpp>

#include "attribute.h"
#include "attribute_code.h"
#include "store_dictionary.h"

namespace kest::analytics::db {

/**
 * Turns attributes into codes and back. A name/value pair gets a dictionary key once the tracks
 * of a second closed track carry it: colours, makes and clothing do at once, while plates and
 * other one-off values stay written out and never fill the dictionary.
 */
class AttributeCoder
{
public:
    /** Pairs in the dictionary at most; later ones are written out. */
    static constexpr std::size_t kMaxPairs = 1 << 16;
    /** Values longer than this are written out. */
    static constexpr std::size_t kMaxPairValue = 64;

    explicit AttributeCoder(StoreDictionary& dictionary) : m_dictionary(dictionary) {}

    /** The code of `attribute` with the dictionary as it is. */
    AttributeCode encode(const common::metadata::Attribute& attribute);
    /** Notes that a stored track carries `attribute`: the second time its pair is added. */
    void noteStored(const common::metadata::Attribute& attribute);

    static std::optional<common::metadata::Attribute> decode(const AttributeCode& code,
                                                             const StoreDictionary& dictionary);
    /**
     * Reads one code as AttributeCode::write() wrote it and decodes it into `out`, the value
     * copied once; false for a malformed code or a key that `dictionary` does not hold.
     */
    static bool read(ByteReader& in, const StoreDictionary& dictionary,
                     common::metadata::Attribute* out);

private:
    StoreDictionary& m_dictionary;
    /**
     * Pairs seen on one stored track so far, by the hash of their entry (two pairs that share
     * one cost a dictionary entry, no more); cleared when it grows too large. A set of the
     * entries took a block or two for every rare value written.
     */
    boost::unordered_flat_set<std::uint64_t> m_seenOnce;
    /** A pair entry being looked up, its room kept. */
    std::string m_pair;
};

}  // namespace kest::analytics::db
