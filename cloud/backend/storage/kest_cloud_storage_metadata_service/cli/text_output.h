#pragma once

// What the command-line client prints on a terminal, and how it explains a failed call.

#include <string>
#include <system_error>
#include <vector>

#include <kest/analytics_db/object_track_ex.h>
#include <kest/cloud/storage/controller/activity_answer.h>
#include <kest/cloud/storage/model/db_error_data.h>
#include <kest/network/http/status_code.h>
#include <kest/utils/url.h>

#include "command_line.h"

namespace kest::cloud::storage::metadatadb::cli {

/** One line per track (first seen, device, type, id, a few attributes) and a count. */
std::string trackTable(const std::vector<kest::analytics::db::ObjectTrackEx>& tracks);

/**
 * Activity as text: a line per bucket with its count, a bar and its types; with more buckets
 * than fit a screen, a sparkline of them, a line per kSparklineWidth buckets. Then the heatmap,
 * if the answer has one, as a 16x16 block of shades.
 */
std::string activityChart(const ActivityAnswer& activity);

/** Buckets of a sparkline line, and the most buckets drawn as bars. */
constexpr std::size_t kSparklineWidth = 64;
constexpr std::size_t kMaxBarBuckets = 48;

/** One line per device with its failed periods. */
std::string errorsTable(const std::vector<DbErrorData>& errors);

/** "2026-01-01 10:00:00.000" (UTC). */
std::string formatTimeMs(std::int64_t milliseconds);

/** What a status means for the command, in a sentence for an operator. */
std::string explainStatus(Invocation::Command command,
                          kest::network::http::StatusCode::Value status);

/** Why no answer came from the service at `url`: refused, timed out, TLS, ... */
std::string explainTransportError(std::error_code error, const kest::utils::Url& url);

}  // namespace kest::cloud::storage::metadatadb::cli
