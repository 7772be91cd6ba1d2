#pragma once

#include <cstdint>
#include <string>

#include <mongoc/mongoc.h>

namespace kest::cloud::storage::metadatadb::mongo {

/** A parsed MongoDB connection string. */
class Uri
{
public:
    /** Throws mongo::Error with the driver's text when the string is rejected. */
    explicit Uri(const std::string& text);
    ~Uri();
    Uri(Uri&& other) noexcept;
    Uri& operator=(Uri&& other) noexcept;
    Uri(const Uri&) = delete;
    Uri& operator=(const Uri&) = delete;

    const mongoc_uri_t* get() const { return m_uri; }

    /** Sets an integer option ("connectTimeoutMS") unless the string gave it. */
    void setDefaultOption(const char* name, std::int32_t value);
    /** The integer option's value, or `fallback` when it has none. */
    std::int32_t option(const char* name, std::int32_t fallback) const;
    std::string toString() const;

private:
    mongoc_uri_t* m_uri = nullptr;
};

}  // namespace kest::cloud::storage::metadatadb::mongo
