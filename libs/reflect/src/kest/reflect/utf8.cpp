#include "utf8.h"

#include <cstdint>
#include <cstring>

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <QString>

namespace kest::reflect::utf8 {

namespace {

/** Where RapidJSON's validator copies the code units it accepts: here, nowhere. */
struct Discard
{
    void Put(char) {}
};

}  // namespace

bool isValid(std::string_view text)
{
    // Most text is ASCII: it is skipped eight bytes at a time, and only the other characters go
    // through the validator's state table, one at a time, so that ASCII after them is fast too.
    Discard discard;
    std::size_t at = 0;
    for (;;) {
        for (std::uint64_t word = 0; at + sizeof(word) <= text.size(); at += sizeof(word)) {
            std::memcpy(&word, text.data() + at, sizeof(word));
            if (word & 0x8080808080808080u)
                break;
        }
        while (at < text.size() && static_cast<unsigned char>(text[at]) < 0x80)
            ++at;
        if (at == text.size())
            return true;
        // The memory stream reads NUL past its end, which no multi-byte sequence takes, so a
        // truncated last sequence fails without reading beyond the text.
        rapidjson::MemoryStream stream(text.data() + at, text.size() - at);
        if (!rapidjson::UTF8<>::Validate(stream, discard))
            return false;
        at += stream.Tell();
    }
}

std::string toValid(std::string_view text)
{
    if (isValid(text))
        return std::string(text);
    // Qt's decoder replaces each ill-formed sequence with U+FFFD.
    return QString::fromUtf8(text.data(), static_cast<int>(text.size())).toStdString();
}

}  // namespace kest::reflect::utf8
