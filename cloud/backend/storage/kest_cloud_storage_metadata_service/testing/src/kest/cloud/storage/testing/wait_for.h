#pragma once

#include <chrono>
#include <functional>

namespace kest::cloud::storage::metadatadb::test {

/**
 * Polls `condition` until it holds; false when `timeout` passes first. The default is generous:
 * a loaded machine slows what is waited for, never what it must come to.
 */
bool waitFor(const std::function<bool()>& condition,
             std::chrono::milliseconds timeout = std::chrono::seconds(30));

}  // namespace kest::cloud::storage::metadatadb::test
