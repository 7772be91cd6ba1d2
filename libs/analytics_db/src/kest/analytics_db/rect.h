#pragma once

#include <boost/describe/class.hpp>

namespace kest::common::metadata {

/** A rectangle in a video frame, in coordinates relative to the frame size (0 to 1). */
struct Rect
{
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;

    bool isEmpty() const { return width <= 0 || height <= 0; }
    bool intersects(const Rect& other) const
    {
        return x < other.x + other.width && other.x < x + width && y < other.y + other.height &&
               other.y < y + height;
    }

    friend bool operator==(const Rect&, const Rect&) = default;
};

BOOST_DESCRIBE_STRUCT(Rect, (), (x, y, width, height))

}  // namespace kest::common::metadata
