#include "stored_id_filter.h"

#include <algorithm>

namespace kest::analytics::db {

namespace {

/** A 64-bit mix (splitmix64's finalizer): id keys of other stores may not be spread. */
std::uint64_t mixed(std::uint64_t key)
{
    key ^= key >> 30;
    key *= 0xbf58476d1ce4e5b9ULL;
    key ^= key >> 27;
    key *= 0x94d049bb133111ebULL;
    key ^= key >> 31;
    return key;
}

/**
 * The block of a hash among `blocks` (fewer than 2^32): its high 32 bits scaled to the count, so
 * that the low 48 bits, which choose the bits, are left to the words.
 */
std::size_t blockOf(std::uint64_t hash, std::size_t blocks)
{
    return static_cast<std::size_t>(((hash >> 32) * blocks) >> 32);
}

/** The bit of word `word` of the block that a hash sets, from 6 of its bits each. */
std::uint64_t bitOf(std::uint64_t hash, std::size_t word)
{
    return std::uint64_t{1} << ((hash >> (6 * word)) & 63);
}

}  // namespace

void StoredIdFilter::reset(std::size_t keys)
{
    m_layers.clear();
    m_full = false;
    addLayer(std::max(keys, kMinKeys));
}

void StoredIdFilter::addLayer(std::size_t capacity)
{
    const std::size_t blocks = (capacity + kKeysPerBlock - 1) / kKeysPerBlock;
    if (bytes() + blocks * sizeof(Block) > kMaxBytes) {
        m_full = true;
        m_layers.clear();
        m_layers.shrink_to_fit();
        return;
    }
    Layer layer;
    layer.blocks.assign(blocks, Block{});
    layer.capacity = blocks * kKeysPerBlock;
    m_layers.push_back(std::move(layer));
}

void StoredIdFilter::add(std::uint64_t key)
{
    if (m_full)
        return;
    if (m_layers.empty() || m_layers.back().keys >= m_layers.back().capacity) {
        addLayer(m_layers.empty() ? kMinKeys : m_layers.back().capacity * 2);
        if (m_full)
            return;
    }
    addTo(m_layers.back(), key);
}

bool StoredIdFilter::mayHold(std::uint64_t key) const
{
    if (m_full)
        return true;
    return std::any_of(m_layers.begin(), m_layers.end(),
                       [key](const Layer& layer) { return holds(layer, key); });
}

std::size_t StoredIdFilter::bytes() const
{
    std::size_t total = 0;
    for (const Layer& layer : m_layers)
        total += layer.blocks.size() * sizeof(Block);
    return total;
}

void StoredIdFilter::addTo(Layer& layer, std::uint64_t key)
{
    const std::uint64_t hash = mixed(key);
    Block& block = layer.blocks[blockOf(hash, layer.blocks.size())];
    for (std::size_t word = 0; word < block.size(); ++word)
        block[word] |= bitOf(hash, word);
    ++layer.keys;
}

bool StoredIdFilter::holds(const Layer& layer, std::uint64_t key)
{
    const std::uint64_t hash = mixed(key);
    const Block& block = layer.blocks[blockOf(hash, layer.blocks.size())];
    for (std::size_t word = 0; word < block.size(); ++word) {
        if (!(block[word] & bitOf(hash, word)))
            return false;
    }
    return true;
}

}  // namespace kest::analytics::db
