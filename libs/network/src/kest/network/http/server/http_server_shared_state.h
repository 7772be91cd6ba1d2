#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>

#include <kest/network/aio/aio_thread_pool.h>

namespace kest::network::http::server {

class AbstractMessageDispatcher;

/** The limits that every connection applies; a zero timeout means no limit. */
struct HttpConnectionLimits
{
    std::size_t maxHeaderBytes = 0;
    std::size_t maxBodyBytes = 0;
    std::chrono::milliseconds requestReadTimeout{0};
    std::chrono::milliseconds idleTimeout{0};
};

/** What all socket servers of one HTTP server share: I/O threads, limits, dispatcher. */
struct HttpServerSharedState
{
    explicit HttpServerSharedState(unsigned ioThreads) : threadPool(ioThreads) {}

    HttpConnectionLimits limits;
    /** 0 means no limit. */
    std::size_t maxConnections = 0;
    AbstractMessageDispatcher* dispatcher = nullptr;
    aio::AioThreadPool threadPool;
    // Shared with the connections, which may outlive the server while a handler is pending.
    std::shared_ptr<std::atomic<std::size_t>> connectionCount =
        std::make_shared<std::atomic<std::size_t>>(0);
};

}  // namespace kest::network::http::server
