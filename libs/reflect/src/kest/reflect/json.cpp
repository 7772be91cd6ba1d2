#include "json.h"

#include <cmath>

#include <rapidjson/error/en.h>

namespace kest::reflect::json::detail {

std::string ReadContext::description() const
{
    std::string path;
    for (auto it = reversedPath.rbegin(); it != reversedPath.rend(); ++it) {
        if (!path.empty() && !it->starts_with('['))
            path += '.';
        path += *it;
    }
    if (path.empty())
        return message;
    return path + ": " + message;
}

std::string_view withoutByteOrderMark(std::string_view text)
{
    static constexpr std::string_view kBom = "\xEF\xBB\xBF";
    if (text.starts_with(kBom))
        text.remove_prefix(kBom.size());
    return text;
}

DeserializationResult parseDocument(std::string_view text, rapidjson::Document* document)
{
    text = withoutByteOrderMark(text);

    document->Parse<kParseFlags>(text.data(), text.size());
    if (document->HasParseError()) {
        return DeserializationResult::failure(
            std::string(messages::kParseException) +
            rapidjson::GetParseError_En(document->GetParseError()));
    }
    if (!document->IsObject() && !document->IsArray())
        return DeserializationResult::failure(std::string(messages::kTopLevelNotContainer));
    return {};
}

bool checkUtf8(const Value& root, ReadContext& context)
{
    if (root.IsString())
        return utf8::isValid({root.GetString(), root.GetStringLength()}) ||
               context.fail(messages::kInvalidUtf8);

    // Iterative, like the parser: a document may nest deeper than a thread's stack would take.
    struct Frame
    {
        const Value* container;
        rapidjson::SizeType next;
    };
    std::vector<Frame> frames;
    // The path runs through the child being visited in each of the first `depth` frames.
    const auto fail = [&](std::string_view message, std::size_t depth) {
        context.fail(message);
        for (std::size_t k = depth; k-- > 0;) {
            const Frame& frame = frames[k];
            if (frame.container->IsObject())
                context.failInMember(
                    (frame.container->MemberBegin() + (frame.next - 1))->name.GetString());
            else
                context.failInElement(frame.next - 1);
        }
        return false;
    };

    if (root.IsObject() || root.IsArray())
        frames.push_back({&root, 0});
    while (!frames.empty()) {
        Frame& frame = frames.back();
        const Value& container = *frame.container;
        const bool isObject = container.IsObject();
        if (frame.next == (isObject ? container.MemberCount() : container.Size())) {
            frames.pop_back();
            continue;
        }
        const Value* child = nullptr;
        if (isObject) {
            const auto& member = *(container.MemberBegin() + frame.next++);
            if (!utf8::isValid({member.name.GetString(), member.name.GetStringLength()}))
                return fail(messages::kInvalidUtf8Name, frames.size() - 1);
            child = &member.value;
        } else {
            child = &container[frame.next++];
        }
        if (child->IsString()) {
            if (!utf8::isValid({child->GetString(), child->GetStringLength()}))
                return fail(messages::kInvalidUtf8, frames.size());
        } else if (child->IsObject() || child->IsArray()) {
            frames.push_back({child, 0});
        }
    }
    return true;
}

void writeText(Writer& writer, std::string_view text, bool asKey)
{
    std::string repaired;
    if (!utf8::isValid(text)) {
        repaired = utf8::toValid(text);
        text = repaired;
    }
    const auto size = static_cast<rapidjson::SizeType>(text.size());
    if (asKey)
        writer.Key(text.data(), size);
    else
        writer.String(text.data(), size);
}

void writeDouble(Writer& writer, double value)
{
    // JSON has no NaN or infinity, and RapidJSON would silently write nothing for them.
    if (std::isfinite(value))
        writer.Double(value);
    else
        writer.Null();
}

bool readBool(const Value& value, bool* out, ReadContext& context)
{
    if (value.IsBool()) {
        *out = value.GetBool();
        return true;
    }
    if (value.IsString()) {
        const std::string_view text(value.GetString(), value.GetStringLength());
        if (text == "true" || text == "false") {
            *out = text == "true";
            return true;
        }
    }
    return context.fail(messages::kBoolExpected);
}

bool readDouble(const Value& value, double* out, ReadContext& context)
{
    if (value.IsNumber()) {
        // A literal beyond the range of a double reads as an infinity.
        if (!std::isfinite(value.GetDouble()))
            return context.fail(messages::kFloatExpected);
        *out = value.GetDouble();
        return true;
    }
    if (value.IsString()) {
        const char* begin = value.GetString();
        const char* end = begin + value.GetStringLength();
        double d = 0;
        const auto [ptr, ec] = std::from_chars(begin, end, d);
        // from_chars takes "nan" and "inf" too: a number is a finite one.
        if (ec == std::errc() && ptr == end && begin != end && std::isfinite(d)) {
            *out = d;
            return true;
        }
    }
    return context.fail(messages::kFloatExpected);
}

bool readString(const Value& value, std::string* out, ReadContext& context)
{
    if (!value.IsString())
        return context.fail(messages::kStringExpected);
    out->assign(value.GetString(), value.GetStringLength());
    return true;
}

bool readQString(const Value& value, QString* out, ReadContext& context)
{
    if (!value.IsString())
        return context.fail(messages::kStringExpected);
    *out = QString::fromUtf8(value.GetString(), static_cast<int>(value.GetStringLength()));
    return true;
}

}  // namespace kest::reflect::json::detail
