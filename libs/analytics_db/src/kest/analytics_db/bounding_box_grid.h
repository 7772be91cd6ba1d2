#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "rect.h"

namespace kest::analytics::db {

/**
 * Where a track appeared, coarsely: the frame cut into 16×16 cells, a cell set when some box of
 * the track overlaps it (a box of zero size sets the cell holding its corner). Text form, as
 * `ObjectRegion::boundingBoxGrid` carries it: 64 lower-case hex digits, four per row from the
 * top row down; in each row of 16 bits the most significant bit is the leftmost column. The
 * stored form is compact: the first and last row and column that have a cell set (a byte each),
 * then the cells of that rectangle row by row, a bit each; an empty grid is no bytes at all.
 */
class BoundingBoxGrid
{
public:
    static constexpr int kSize = 16;
    static constexpr std::size_t kBytes = kSize * kSize / 8;

    BoundingBoxGrid() = default;
    static BoundingBoxGrid ofRect(const common::metadata::Rect& rect);
    /** The 32 bytes of the rows; bytes of the wrong size give an empty grid. */
    static BoundingBoxGrid fromBytes(std::string_view bytes);
    /** Malformed bytes give an empty grid. */
    static BoundingBoxGrid fromCompact(std::string_view bytes);

    void add(const common::metadata::Rect& rect) { *this |= ofRect(rect); }
    BoundingBoxGrid& operator|=(const BoundingBoxGrid& other);
    bool intersects(const BoundingBoxGrid& other) const;
    /** intersects() with the grid of a compact form, read in place; malformed bytes share none. */
    bool intersectsCompact(std::string_view compact) const;
    bool isEmpty() const;
    bool cell(int column, int row) const { return (m_rows[row] >> (kSize - 1 - column)) & 1; }

    std::string toBytes() const;
    std::string toCompact() const;
    std::string toHex() const;

    friend bool operator==(const BoundingBoxGrid&, const BoundingBoxGrid&) = default;

private:
    std::array<std::uint16_t, kSize> m_rows{};
};

}  // namespace kest::analytics::db
