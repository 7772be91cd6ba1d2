#include "utf8.h"

#include <algorithm>

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
    // Most text is ASCII: only the rest goes through the validator's state table.
    const auto firstNonAscii = std::find_if(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
    if (firstNonAscii == text.end())
        return true;
    text.remove_prefix(static_cast<std::size_t>(firstNonAscii - text.begin()));

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
