#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace kest::analytics::db {

/**
 * Appends the primitive forms of the storage's binary records to a string: LEB128 varints,
 * zigzag varints for signed numbers, length-prefixed bytes and little-endian fixed-width values.
 */
class ByteWriter
{
public:
    explicit ByteWriter(std::string* out) : m_out(*out) {}

    void putVarint(std::uint64_t value)
    {
        char bytes[10];
        int n = 0;
        while (value >= 0x80) {
            bytes[n++] = static_cast<char>((value & 0x7f) | 0x80);
            value >>= 7;
        }
        bytes[n++] = static_cast<char>(value);
        m_out.append(bytes, n);
    }
    void putSigned(std::int64_t value) { putVarint(zigzag(value)); }
    void putByte(std::uint8_t value) { m_out += static_cast<char>(value); }
    void putBytes(std::string_view bytes)
    {
        putVarint(bytes.size());
        m_out.append(bytes);
    }
    template <typename T>
    void putFixed(T value)
    {
        char bytes[sizeof(T)];
        std::memcpy(bytes, &value, sizeof(T));
        m_out.append(bytes, sizeof(T));
    }

    static std::uint64_t zigzag(std::int64_t value)
    {
        return (static_cast<std::uint64_t>(value) << 1) ^ static_cast<std::uint64_t>(value >> 63);
    }
    /** Bytes that putVarint takes for `value`. */
    static int varintSize(std::uint64_t value)
    {
        int size = 1;
        while (value >= 0x80) {
            value >>= 7;
            ++size;
        }
        return size;
    }

private:
    std::string& m_out;
};

}  // namespace kest::analytics::db
