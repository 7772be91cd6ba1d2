#include "document.h"

#include <utility>

#include "error.h"

namespace kest::cloud::storage::metadatadb::mongo {

namespace {

int keyLength(std::string_view key)
{
    return static_cast<int>(key.size());
}

void check(bool ok, std::string_view key)
{
    // Appending fails only when the document would exceed the BSON size limit.
    if (!ok)
        throw Error("cannot append field '" + std::string(key) + "' to a BSON document");
}

}  // namespace

Document::Document() : m_bson(bson_new()) {}

Document::~Document()
{
    if (m_bson)
        bson_destroy(m_bson);
}

Document::Document(Document&& other) noexcept : m_bson(std::exchange(other.m_bson, bson_new())) {}

Document& Document::operator=(Document&& other) noexcept
{
    std::swap(m_bson, other.m_bson);
    return *this;
}

Document::Document(const Document& other) : m_bson(bson_copy(other.m_bson)) {}

Document& Document::operator=(const Document& other)
{
    if (this != &other) {
        bson_t* copy = bson_copy(other.m_bson);
        bson_destroy(m_bson);
        m_bson = copy;
    }
    return *this;
}

Document& Document::appendString(std::string_view key, std::string_view value)
{
    check(bson_append_utf8(m_bson, key.data(), keyLength(key), value.data(),
                           static_cast<int>(value.size())),
          key);
    return *this;
}

Document& Document::appendDouble(std::string_view key, double value)
{
    check(bson_append_double(m_bson, key.data(), keyLength(key), value), key);
    return *this;
}

Document& Document::appendBool(std::string_view key, bool value)
{
    check(bson_append_bool(m_bson, key.data(), keyLength(key), value), key);
    return *this;
}

Document& Document::appendInt64(std::string_view key, std::int64_t value)
{
    check(bson_append_int64(m_bson, key.data(), keyLength(key), value), key);
    return *this;
}

Document& Document::appendDateTime(std::string_view key, std::int64_t msSinceEpoch)
{
    check(bson_append_date_time(m_bson, key.data(), keyLength(key), msSinceEpoch), key);
    return *this;
}

Document& Document::appendDateTime(std::string_view key, std::chrono::system_clock::time_point time)
{
    return appendDateTime(
        key,
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count());
}

Document& Document::appendDocument(std::string_view key, const Document& value)
{
    check(bson_append_document(m_bson, key.data(), keyLength(key), value.m_bson), key);
    return *this;
}

Document& Document::appendStringArray(std::string_view key, const std::vector<std::string>& values)
{
    bson_t array;
    check(bson_append_array_begin(m_bson, key.data(), keyLength(key), &array), key);
    for (std::size_t i = 0; i < values.size(); ++i) {
        const std::string index = std::to_string(i);
        bson_append_utf8(&array, index.c_str(), static_cast<int>(index.size()), values[i].data(),
                         static_cast<int>(values[i].size()));
    }
    check(bson_append_array_end(m_bson, &array), key);
    return *this;
}

Document& Document::appendDocumentArray(std::string_view key, const std::vector<Document>& values)
{
    bson_t array;
    check(bson_append_array_begin(m_bson, key.data(), keyLength(key), &array), key);
    for (std::size_t i = 0; i < values.size(); ++i) {
        const std::string index = std::to_string(i);
        bson_append_document(&array, index.c_str(), static_cast<int>(index.size()),
                             values[i].m_bson);
    }
    check(bson_append_array_end(m_bson, &array), key);
    return *this;
}

DocumentView Document::view() const
{
    return DocumentView(bson_get_data(m_bson), m_bson->len);
}

std::string Document::toJson() const
{
    return view().toJson();
}

}  // namespace kest::cloud::storage::metadatadb::mongo
