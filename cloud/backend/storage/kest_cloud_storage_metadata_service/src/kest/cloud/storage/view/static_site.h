#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kest::cloud::storage::metadatadb {

/**
 * Compiled-in files served under one directory of the API, on the API's own origin: the API
 * documentation (its interactive page, the page's assets and the OpenAPI description) and the
 * console. Files are read from the resources once, when the site is first used, and kept.
 */
class StaticSite
{
public:
    struct File
    {
        /** The name under the site's directory; "" is the directory itself. */
        std::string_view name;
        const char* resource;
        const char* contentType;
    };
    struct Document
    {
        std::string content;
        std::string contentType;
    };

    /** How handlers reach a site: docs or console, made on first use. */
    using Get = const StaticSite& (*)();

    StaticSite(const char* directoryPath, std::vector<File> files);

    /** The served path of the directory, without its final "/". */
    const char* directoryPath() const { return m_directoryPath; }
    /** Nothing for a name that is not served. */
    const Document* find(std::string_view name) const;

    /** The API documentation at ApiPaths::kDocsDirectoryPath. */
    static const StaticSite& docs();
    /** The console at ApiPaths::kConsoleDirectoryPath. */
    static const StaticSite& console();

private:
    const char* m_directoryPath;
    std::map<std::string_view, Document> m_documents;
};

}  // namespace kest::cloud::storage::metadatadb
