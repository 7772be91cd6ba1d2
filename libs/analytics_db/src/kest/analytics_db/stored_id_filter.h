#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kest::analytics::db {

/**
 * Which track ids the store may hold: a Bloom filter of the id keys of its track rows, so that a
 * track seen for the first time is looked up in the store's id index only when it may be there
 * (one probe of a random page per new track was a tenth of the writer's time). No false
 * negatives: every key added is reported; about 1 % of the others are too. Keys of deleted rows
 * stay, which only costs a probe. It grows by layers of twice the size as keys come, and past
 * kMaxBytes it stops telling (mayHold() is always true). Not thread-safe.
 */
class StoredIdFilter
{
public:
    static constexpr std::size_t kMaxBytes = std::size_t{64} << 20;

    /** Empties it, with room for `keys` before it grows (before that, every key may be held). */
    void reset(std::size_t keys);
    void add(std::uint64_t key);
    bool mayHold(std::uint64_t key) const;
    std::size_t bytes() const;

private:
    /** A cache line of bits: each key sets one bit in each of its 8 words. */
    using Block = std::array<std::uint64_t, 8>;
    struct Layer
    {
        std::vector<Block> blocks;
        std::size_t capacity = 0;
        std::size_t keys = 0;
    };
    /** Keys a block takes: about 13 bits a key, under 1 % false positives at capacity. */
    static constexpr std::size_t kKeysPerBlock = 40;
    static constexpr std::size_t kMinKeys = std::size_t{1} << 16;

    static void addTo(Layer& layer, std::uint64_t key);
    static bool holds(const Layer& layer, std::uint64_t key);
    void addLayer(std::size_t capacity);

    std::vector<Layer> m_layers;
    /** Also until the first reset(): a filter never filled tells nothing. */
    bool m_full = true;
};

}  // namespace kest::analytics::db
