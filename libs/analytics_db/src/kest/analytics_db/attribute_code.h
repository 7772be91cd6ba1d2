#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "byte_reader.h"
#include "byte_writer.h"

namespace kest::analytics::db {

/**
 * An attribute as records keep it: the key of a name/value pair of the dictionary, or, for a
 * value not (yet) common enough to be in it, the key of its name and the value itself.
 */
struct AttributeCode
{
    /** The pair's key; 0 when the value is written out. */
    std::uint32_t pair = 0;
    std::uint32_t name = 0;
    std::string value;

    void write(ByteWriter& out) const
    {
        if (pair != 0) {
            out.putVarint(std::uint64_t{pair} << 1);
            return;
        }
        out.putVarint((std::uint64_t{name} << 1) | 1);
        out.putBytes(value);
    }
    bool read(ByteReader& in)
    {
        std::uint64_t code = 0;
        if (!in.getVarint(&code))
            return false;
        if (!(code & 1)) {
            pair = static_cast<std::uint32_t>(code >> 1);
            name = 0;
            value.clear();
            return pair != 0;
        }
        pair = 0;
        name = static_cast<std::uint32_t>(code >> 1);
        return in.getBytes(&value);
    }

    friend bool operator==(const AttributeCode&, const AttributeCode&) = default;
};

using AttributeList = std::vector<AttributeCode>;

inline void writeAttributeList(ByteWriter& out, const AttributeList& list)
{
    out.putVarint(list.size());
    for (const auto& code : list)
        code.write(out);
}

inline bool readAttributeList(ByteReader& in, AttributeList* list)
{
    std::uint64_t count = 0;
    if (!in.getVarint(&count) || count > (1u << 16))
        return false;
    list->resize(count);
    for (auto& code : *list) {
        if (!code.read(in))
            return false;
    }
    return true;
}

}  // namespace kest::analytics::db
