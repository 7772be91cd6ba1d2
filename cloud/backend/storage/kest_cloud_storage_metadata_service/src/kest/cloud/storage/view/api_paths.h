#pragma once

namespace kest::cloud::storage::metadatadb {

/**
 * The paths of the service's HTTP API: the routes the View registers and the paths the client
 * library calls. A base of View, so that they read as View::kDataHandlerPath and so on.
 */
struct ApiPaths
{
    static constexpr const char* kDataHandlerPath = "/metadataDb/v1/data";
    static constexpr const char* kOptimalInstancePath = "/metadataDb/v1/optimalInstance";
    static constexpr const char* kErrorHandlerPath = "/metadataDb/v1/dataSaveErrors/{deviceIds}";
    /** Tracks per bucket of time and type, as JSON and as a picture. */
    static constexpr const char* kActivityPath = "/metadataDb/v1/activity";
    static constexpr const char* kActivitySvgPath = "/metadataDb/v1/activity.svg";
    static constexpr const char* kPingPath = "/metadataDb/ping";
    static constexpr const char* kMetricsPath = "/metadataDb/metrics";
    /** The API documentation: "" (the interactive page), its assets and "openapi.json". */
    static constexpr const char* kDocsPath = "/metadataDb/v1/docs/{file}";
    /** Redirected to kDocsPath's directory, so that the page's relative links resolve. */
    static constexpr const char* kDocsDirectoryPath = "/metadataDb/v1/docs";
    /** The console: a search page with the timeline and heatmap of its activity. */
    static constexpr const char* kConsolePath = "/metadataDb/v1/console/{file}";
    static constexpr const char* kConsoleDirectoryPath = "/metadataDb/v1/console";
};

}  // namespace kest::cloud::storage::metadatadb
