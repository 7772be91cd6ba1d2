#include "bounding_box_grid.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <optional>

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

/** The rectangle of a compact grid's cells, checked against the size of its bytes. */
struct CompactBounds
{
    int r0 = 0;
    int r1 = -1;
    int c0 = 0;
    int c1 = -1;

    int width() const { return c1 - c0 + 1; }
    std::uint16_t columns() const
    {
        return static_cast<std::uint16_t>(((1u << width()) - 1)
                                          << (BoundingBoxGrid::kSize - 1 - c1));
    }
};

std::optional<CompactBounds> boundsOf(std::string_view bytes)
{
    if (bytes.size() < 2)
        return std::nullopt;
    CompactBounds b;
    b.r0 = static_cast<std::uint8_t>(bytes[0]) >> 4;
    b.r1 = bytes[0] & 0xf;
    b.c0 = static_cast<std::uint8_t>(bytes[1]) >> 4;
    b.c1 = bytes[1] & 0xf;
    if (b.r1 < b.r0 || b.c1 < b.c0)
        return std::nullopt;
    const auto cells = static_cast<std::size_t>((b.r1 - b.r0 + 1) * b.width());
    if (bytes.size() != 2 + (cells + 7) / 8)
        return std::nullopt;
    return b;
}

/** Row `row` of a compact grid as the rows of BoundingBoxGrid hold it: one read of its bits. */
std::uint16_t compactRow(std::string_view bytes, const CompactBounds& b, int row)
{
    const auto bit = static_cast<std::size_t>((row - b.r0) * b.width());
    // A row of 16 cells at most, starting anywhere in a byte: within three bytes.
    std::uint32_t window = 0;
    for (std::size_t i = 2 + bit / 8, end = i + 3; i < end; ++i)
        window = (window << 8) | (i < bytes.size() ? static_cast<std::uint8_t>(bytes[i]) : 0u);
    const int shift = 24 - static_cast<int>(bit % 8) - b.width();
    const std::uint32_t cells = (window >> shift) & ((1u << b.width()) - 1);
    return static_cast<std::uint16_t>(cells << (BoundingBoxGrid::kSize - 1 - b.c1));
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
    std::string text(kSize * 4, '0');
    char* out = text.data();
    for (const std::uint16_t row : m_rows) {
        for (int shift = 12; shift >= 0; shift -= 4)
            *out++ = kDigits[(row >> shift) & 0xf];
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
    const auto bounds = boundsOf(bytes);
    if (!bounds)
        return grid;
    for (int r = bounds->r0; r <= bounds->r1; ++r)
        grid.m_rows[r] = compactRow(bytes, *bounds, r);
    return grid;
}

bool BoundingBoxGrid::intersectsCompact(std::string_view bytes) const
{
    const auto bounds = boundsOf(bytes);
    if (!bounds)
        return false;
    const std::uint16_t columns = bounds->columns();
    for (int r = bounds->r0; r <= bounds->r1; ++r) {
        // Rows that miss the stored rectangle's columns need no bits read.
        if ((m_rows[r] & columns) && (m_rows[r] & compactRow(bytes, *bounds, r)))
            return true;
    }
    return false;
}

}  // namespace kest::analytics::db
