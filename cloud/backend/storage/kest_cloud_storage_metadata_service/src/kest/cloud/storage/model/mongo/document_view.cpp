#include "document_view.h"

#include <bson/bson.h>

#include "error.h"

namespace kest::cloud::storage::metadatadb::mongo {

namespace {

bson_iter_t find(const std::uint8_t* data, std::size_t length, std::string_view key)
{
    bson_iter_t iter;
    if (!bson_iter_init_from_data(&iter, data, length))
        throw Error("malformed BSON document");
    if (!bson_iter_find_w_len(&iter, key.data(), static_cast<int>(key.size())))
        throw Error("field '" + std::string(key) + "' is missing");
    return iter;
}

bson_iter_t findTyped(const std::uint8_t* data, std::size_t length, std::string_view key,
                      bson_type_t type)
{
    bson_iter_t iter = find(data, length, key);
    if (bson_iter_type(&iter) != type) {
        throw Error("field '" + std::string(key) + "' has BSON type " +
                    std::to_string(static_cast<int>(bson_iter_type(&iter))) + " instead of " +
                    std::to_string(static_cast<int>(type)));
    }
    return iter;
}

}  // namespace

bool DocumentView::has(std::string_view key) const
{
    bson_iter_t iter;
    return bson_iter_init_from_data(&iter, m_data, m_length) &&
           bson_iter_find_w_len(&iter, key.data(), static_cast<int>(key.size()));
}

std::string DocumentView::getString(std::string_view key) const
{
    bson_iter_t iter = findTyped(m_data, m_length, key, BSON_TYPE_UTF8);
    std::uint32_t length = 0;
    const char* value = bson_iter_utf8(&iter, &length);
    return std::string(value, length);
}

double DocumentView::getDouble(std::string_view key) const
{
    bson_iter_t iter = findTyped(m_data, m_length, key, BSON_TYPE_DOUBLE);
    return bson_iter_double(&iter);
}

bool DocumentView::getBool(std::string_view key) const
{
    bson_iter_t iter = findTyped(m_data, m_length, key, BSON_TYPE_BOOL);
    return bson_iter_bool(&iter);
}

std::int64_t DocumentView::getDateTimeMs(std::string_view key) const
{
    bson_iter_t iter = findTyped(m_data, m_length, key, BSON_TYPE_DATE_TIME);
    return bson_iter_date_time(&iter);
}

std::chrono::system_clock::time_point DocumentView::getTimePoint(std::string_view key) const
{
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::milliseconds(getDateTimeMs(key))));
}

DocumentView DocumentView::getDocument(std::string_view key) const
{
    bson_iter_t iter = findTyped(m_data, m_length, key, BSON_TYPE_DOCUMENT);
    std::uint32_t length = 0;
    const std::uint8_t* data = nullptr;
    bson_iter_document(&iter, &length, &data);
    return DocumentView(data, length);
}

std::vector<DocumentView> DocumentView::getDocumentArray(std::string_view key) const
{
    bson_iter_t iter = findTyped(m_data, m_length, key, BSON_TYPE_ARRAY);
    bson_iter_t child;
    if (!bson_iter_recurse(&iter, &child))
        throw Error("field '" + std::string(key) + "' is a malformed array");
    std::vector<DocumentView> result;
    while (bson_iter_next(&child)) {
        if (bson_iter_type(&child) != BSON_TYPE_DOCUMENT)
            throw Error("an element of '" + std::string(key) + "' is not a document");
        std::uint32_t length = 0;
        const std::uint8_t* data = nullptr;
        bson_iter_document(&child, &length, &data);
        result.emplace_back(data, length);
    }
    return result;
}

std::int64_t DocumentView::getNumber(std::string_view key) const
{
    bson_iter_t iter = find(m_data, m_length, key);
    if (!BSON_ITER_HOLDS_NUMBER(&iter))
        throw Error("field '" + std::string(key) + "' is not a number");
    return bson_iter_as_int64(&iter);
}

std::string DocumentView::toJson() const
{
    bson_t bson;
    if (!bson_init_static(&bson, m_data, m_length))
        return "<malformed BSON>";
    char* json = bson_as_relaxed_extended_json(&bson, nullptr);
    std::string result = json ? json : "";
    bson_free(json);
    return result;
}

}  // namespace kest::cloud::storage::metadatadb::mongo
