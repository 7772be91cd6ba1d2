#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <kest/analytics_db/filter.h>
#include <kest/cloud/storage/api/abstract_client.h>
#include <kest/network/aio/aio_thread.h>
#include <kest/network/http/status_code.h>
#include <kest/utils/move_only_func.h>

namespace kest::cloud::storage::metadatadb {

class Model;

/**
 * The distributed half of a search: asks the data-distribution storage which instances hold data
 * of the filter's devices for its period, sends each of them the search as an internal lookup
 * (once per address listed, itself included), and says when every one has answered or failed.
 * The caller sends the search and takes in each answer; this counts the answers, applies the peer
 * timeout and logs and counts failed instances.
 *
 * The instances are asked from the I/O thread of the request's connection, and their clients are
 * bound to it: answers, the end and the destruction (which stops the clients) all happen there,
 * one after another. One object serves one request, started once.
 */
class PeerFanOut
{
public:
    using StatusCode = kest::network::http::StatusCode;

    /** To be called once per instance asked, after its answer has been taken in. */
    using Replied = kest::utils::MoveOnlyFunc<void(StatusCode::Value)>;
    /** Sends one instance the search through `client`; its answer goes to `replied`. */
    using Ask = kest::utils::MoveOnlyFunc<void(api::AbstractClient& client, Replied replied)>;

    struct Outcome
    {
        enum class Kind
        {
            /** Every instance named has answered or failed. */
            done,
            /** The shared database could not be read (logged). */
            addressLookupFailed,
            /** The server stopped before the instances could be asked. */
            stopped,
        };
        Kind kind = Kind::done;
        /** Instances asked, counted once per address listed. */
        std::uint32_t asked = 0;
        /** Of those, the ones that answered 200. */
        std::uint32_t answered = 0;
    };
    /** Called once; the owner may destroy this object from within it. */
    using Finished = kest::utils::MoveOnlyFunc<void(Outcome)>;

    explicit PeerFanOut(Model& model);
    /** Stops the clients: no answer reaches the caller afterwards. */
    ~PeerFanOut();

    PeerFanOut(const PeerFanOut&) = delete;
    PeerFanOut& operator=(const PeerFanOut&) = delete;

    /** On the request's I/O thread (any, outside the HTTP server). */
    void start(const kest::analytics::db::Filter& filter, Ask ask, Finished finished);

private:
    /** Takes the address lookup's result from the storage's thread to the request's. */
    void continueInAioThread(bool ok, std::vector<std::string> addresses);
    void askInstances(bool ok, std::vector<std::string> addresses);
    void onReply(StatusCode::Value status);
    void finish(Outcome::Kind kind);

    Model& m_model;
    kest::analytics::db::Filter m_filter;
    Ask m_ask;
    Finished m_finished;
    std::atomic<std::uint32_t> m_repliesReceived{0};
    std::atomic<std::uint32_t> m_repliesExpected{0};
    std::atomic<std::uint32_t> m_answered{0};
    std::chrono::steady_clock::time_point m_peersAsked;
    std::vector<std::unique_ptr<api::AbstractClient>> m_clients;
    /** Weak: a lookup may end after a stopping server has destroyed its threads. */
    std::weak_ptr<kest::network::aio::AioThread> m_aioThread;
};

}  // namespace kest::cloud::storage::metadatadb
