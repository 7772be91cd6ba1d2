#include "uri.h"

#include <utility>

#include "driver_instance.h"
#include "error.h"

namespace kest::cloud::storage::metadatadb::mongo {

Uri::Uri(const std::string& text)
{
    DriverInstance::instance();
    bson_error_t error{};
    m_uri = mongoc_uri_new_with_error(text.c_str(), &error);
    if (!m_uri)
        throw Error(error);
}

Uri::~Uri()
{
    if (m_uri)
        mongoc_uri_destroy(m_uri);
}

Uri::Uri(Uri&& other) noexcept : m_uri(std::exchange(other.m_uri, nullptr)) {}

Uri& Uri::operator=(Uri&& other) noexcept
{
    std::swap(m_uri, other.m_uri);
    return *this;
}

void Uri::setDefaultOption(const char* name, std::int32_t value)
{
    const bson_t* options = mongoc_uri_get_options(m_uri);
    if (options && bson_has_field(options, name))
        return;
    mongoc_uri_set_option_as_int32(m_uri, name, value);
}

std::int32_t Uri::option(const char* name, std::int32_t fallback) const
{
    return mongoc_uri_get_option_as_int32(m_uri, name, fallback);
}

std::string Uri::toString() const
{
    return m_uri ? mongoc_uri_get_string(m_uri) : std::string();
}

}  // namespace kest::cloud::storage::metadatadb::mongo
