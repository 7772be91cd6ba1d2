#include "bounding_box_grid.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace kest::analytics::db {

namespace {

/** First and last cell that [from, to] overlaps on one axis. */
std::pair<int, int> cellRange(double from, double to)
{
    constexpr int n = BoundingBoxGrid::kSize;
    if (!std::isfinite(from) || !std::isfinite(to))
        return {0, -1};
    const int first = std::clamp(static_cast<int>(std::floor(from * n)), 0, n - 1);
    // A box ending exactly on a cell border does not reach into the next cell.
    int last = std::clamp(static_cast<int>(std::ceil(to * n)) - 1, 0, n - 1);
    return {first, std::max(first, last)};
}

}  // namespace

BoundingBoxGrid BoundingBoxGrid::ofRect(const common::metadata::Rect& rect)
{
    BoundingBoxGrid grid;
    const auto [c0, c1] = cellRange(rect.x, rect.x + std::max(rect.width, 0.0));
    const auto [r0, r1] = cellRange(rect.y, rect.y + std::max(rect.height, 0.0));
    std::uint16_t mask = 0;
    for (int c = c0; c <= c1; ++c)
        mask |= static_cast<std::uint16_t>(1u << (kSize - 1 - c));
    for (int r = r0; r <= r1; ++r)
        grid.m_rows[r] = mask;
    return grid;
}

BoundingBoxGrid BoundingBoxGrid::fromBytes(std::string_view bytes)
{
    BoundingBoxGrid grid;
    if (bytes.size() != kBytes)
        return grid;
    for (int r = 0; r < kSize; ++r) {
        grid.m_rows[r] = static_cast<std::uint16_t>((static_cast<std::uint8_t>(bytes[2 * r]) << 8) |
                                                    static_cast<std::uint8_t>(bytes[2 * r + 1]));
    }
    return grid;
}

BoundingBoxGrid& BoundingBoxGrid::operator|=(const BoundingBoxGrid& other)
{
    for (int r = 0; r < kSize; ++r)
        m_rows[r] |= other.m_rows[r];
    return *this;
}

bool BoundingBoxGrid::intersects(const BoundingBoxGrid& other) const
{
    for (int r = 0; r < kSize; ++r) {
        if (m_rows[r] & other.m_rows[r])
            return true;
    }
    return false;
}

bool BoundingBoxGrid::isEmpty() const
{
    return std::all_of(m_rows.begin(), m_rows.end(), [](auto row) { return row == 0; });
}

std::string BoundingBoxGrid::toBytes() const
{
    std::string bytes(kBytes, '\0');
    for (int r = 0; r < kSize; ++r) {
        bytes[2 * r] = static_cast<char>(m_rows[r] >> 8);
        bytes[2 * r + 1] = static_cast<char>(m_rows[r] & 0xff);
    }
    return bytes;
}

std::string BoundingBoxGrid::toHex() const
{
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(kSize * 4);
    for (const std::uint16_t row : m_rows) {
        for (int shift = 12; shift >= 0; shift -= 4)
            text += kDigits[(row >> shift) & 0xf];
    }
    return text;
}

std::string BoundingBoxGrid::toCompact() const
{
    int r0 = kSize, r1 = -1;
    std::uint16_t columns = 0;
    for (int r = 0; r < kSize; ++r) {
        if (m_rows[r]) {
            r0 = std::min(r0, r);
            r1 = r;
            columns |= m_rows[r];
        }
    }
    if (r1 < 0)
        return {};
    // Columns from the most significant bit: the leftmost set one is c0.
    const int c0 = std::countl_zero(columns);
    const int c1 = kSize - 1 - std::countr_zero(columns);
    std::string out;
    out += static_cast<char>((r0 << 4) | r1);
    out += static_cast<char>((c0 << 4) | c1);
    std::uint8_t byte = 0;
    int bits = 0;
    for (int r = r0; r <= r1; ++r) {
        for (int c = c0; c <= c1; ++c) {
            byte = static_cast<std::uint8_t>((byte << 1) | (cell(c, r) ? 1 : 0));
            if (++bits == 8) {
                out += static_cast<char>(byte);
                byte = 0;
                bits = 0;
            }
        }
    }
    if (bits > 0)
        out += static_cast<char>(byte << (8 - bits));
    return out;
}

BoundingBoxGrid BoundingBoxGrid::fromCompact(std::string_view bytes)
{
    BoundingBoxGrid grid;
    if (bytes.size() < 2)
        return grid;
    const int r0 = static_cast<std::uint8_t>(bytes[0]) >> 4;
    const int r1 = bytes[0] & 0xf;
    const int c0 = static_cast<std::uint8_t>(bytes[1]) >> 4;
    const int c1 = bytes[1] & 0xf;
    if (r1 < r0 || c1 < c0)
        return grid;
    const std::size_t cells = static_cast<std::size_t>((r1 - r0 + 1) * (c1 - c0 + 1));
    if (bytes.size() != 2 + (cells + 7) / 8)
        return grid;
    std::size_t bit = 0;
    for (int r = r0; r <= r1; ++r) {
        for (int c = c0; c <= c1; ++c, ++bit) {
            if (static_cast<std::uint8_t>(bytes[2 + bit / 8]) & (0x80 >> (bit % 8)))
                grid.m_rows[r] |= static_cast<std::uint16_t>(1u << (kSize - 1 - c));
        }
    }
    return grid;
}

}  // namespace kest::analytics::db
