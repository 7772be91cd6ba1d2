#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace kest::analytics::db {

/**
 * Reads what ByteWriter wrote. Every read checks the bytes left: a truncated or malformed record
 * makes it return false, and the caller keeps what it read before.
 */
class ByteReader
{
public:
    explicit ByteReader(std::string_view bytes) : m_in(bytes) {}

    bool getVarint(std::uint64_t* out)
    {
        std::uint64_t value = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            if (m_in.empty())
                return false;
            const auto byte = static_cast<std::uint8_t>(m_in.front());
            m_in.remove_prefix(1);
            value |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
            if (!(byte & 0x80)) {
                *out = value;
                return true;
            }
        }
        return false;
    }
    template <typename Int>
    bool getVarint(Int* out)
    {
        std::uint64_t value = 0;
        if (!getVarint(&value))
            return false;
        *out = static_cast<Int>(value);
        return true;
    }
    bool getSigned(std::int64_t* out)
    {
        std::uint64_t value = 0;
        if (!getVarint(&value))
            return false;
        *out = static_cast<std::int64_t>(value >> 1) ^ -static_cast<std::int64_t>(value & 1);
        return true;
    }
    bool getByte(std::uint8_t* out)
    {
        if (m_in.empty())
            return false;
        *out = static_cast<std::uint8_t>(m_in.front());
        m_in.remove_prefix(1);
        return true;
    }
    bool getBytes(std::string_view* out)
    {
        std::uint64_t size = 0;
        if (!getVarint(&size) || size > m_in.size())
            return false;
        *out = m_in.substr(0, size);
        m_in.remove_prefix(size);
        return true;
    }
    bool getBytes(std::string* out)
    {
        std::string_view view;
        if (!getBytes(&view))
            return false;
        out->assign(view);
        return true;
    }
    template <typename T>
    bool getFixed(T* out)
    {
        if (m_in.size() < sizeof(T))
            return false;
        std::memcpy(out, m_in.data(), sizeof(T));
        m_in.remove_prefix(sizeof(T));
        return true;
    }
    bool skip(std::size_t bytes)
    {
        if (bytes > m_in.size())
            return false;
        m_in.remove_prefix(bytes);
        return true;
    }

    bool atEnd() const { return m_in.empty(); }
    std::string_view rest() const { return m_in; }

private:
    std::string_view m_in;
};

}  // namespace kest::analytics::db
