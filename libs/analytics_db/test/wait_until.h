#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace kest::analytics::db::test {

/** Polls `condition` until it holds or `timeout` passes; whether it held. */
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10))
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace kest::analytics::db::test
