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
    // Most text is ASCII: it is skipped eight bytes at a time, and only the rest goes through
    // the validator's state table.
    std::size_t ascii = 0;
    for (std::uint64_t word = 0; ascii + sizeof(word) <= text.size(); ascii += sizeof(word)) {
        std::memcpy(&word, text.data() + ascii, sizeof(word));
        if (word & 0x8080808080808080u)
            break;
    }
    while (ascii < text.size() && static_cast<unsigned char>(text[ascii]) < 0x80)
        ++ascii;
    if (ascii == text.size())
        return true;
    text.remove_prefix(ascii);

    // The memory stream reads NUL past its end, which no multi-byte sequence takes, so a
    // truncated last sequence fails without reading beyond the text.
    rapidjson::MemoryStream stream(text.data(), text.size());
    Discard discard;
    while (stream.Tell() < text.size()) {
        if (!rapidjson::UTF8<>::Validate(stream, discard))
            return false;
    }
    return true;
}

std::string toValid(std::string_view text)
{
    if (isValid(text))
        return std::string(text);
    // Qt's decoder replaces each ill-formed sequence with U+FFFD.
    return QString::fromUtf8(text.data(), static_cast<int>(text.size())).toStdString();
}

}  // namespace kest::reflect::utf8
