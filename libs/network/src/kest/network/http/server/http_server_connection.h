#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>

#include <kest/network/aio/aio_thread.h>
#include <kest/network/http/abstract_request_handler.h>
#include <kest/network/ssl/server_context.h>

#include "http_server_shared_state.h"
#include "request_parser.h"

namespace kest::network::http::server {

/**
 * One accepted HTTP/1.1 connection, plain or TLS. Everything it does runs on its own I/O thread,
 * which is its strand. Over TLS it first completes the handshake, within the request read
 * timeout. It reads a request, hands it to the dispatcher, writes the answer (gzip-compressed when
 * the client accepts it and the body is larger than kMinGzipBytes), and starts over while the
 * connection is kept alive.
 */
class HttpServerConnection : public std::enable_shared_from_this<HttpServerConnection>
{
public:
    using ClosedHandler = std::function<void(HttpServerConnection*)>;

    /** Smaller bodies are sent as they are: compressing them saves less than it costs. */
    static constexpr std::size_t kMinGzipBytes = 1024;

    /**
     * `thread` belongs to the server's pool: the connection does not keep it alive. A
     * `tlsContext` makes it a TLS connection.
     */
    HttpServerConnection(std::weak_ptr<aio::AioThread> thread, boost::asio::ip::tcp::socket socket,
                         const HttpConnectionLimits& limits, AbstractMessageDispatcher* dispatcher,
                         std::shared_ptr<std::atomic<std::size_t>> connectionCount,
                         std::shared_ptr<PendingHandlers> pendingHandlers,
                         ClosedHandler closedHandler,
                         std::shared_ptr<ssl::ServerContext> tlsContext = nullptr);
    ~HttpServerConnection();

    /** On the connection's thread. */
    void start();
    /** On the connection's thread. Idempotent; a handler still pending is dropped when it
     * completes, on the thread completing it. */
    void close();
    /**
     * On the connection's thread. Closes now when no request is in flight; otherwise once the
     * response to the current request is written, with "Connection: close".
     */
    void closeWhenIdle();

    /** Valid while the server that made the connection exists. */
    aio::AioThread* thread() const { return m_thread; }

private:
    using Clock = std::chrono::steady_clock;
    using TlsStream = boost::asio::ssl::stream<boost::asio::ip::tcp::socket>;

    boost::asio::ip::tcp::socket& socket() { return m_tls ? m_tls->next_layer() : *m_socket; }
    /** Runs `operation` with the plain socket or the TLS stream. */
    template <typename Operation>
    void withStream(Operation&& operation);
    /**
     * Wraps the completion of an operation on the stream. A TLS stream's pending operations use
     * it until they complete, so that a closed connection keeps its stream until then.
     */
    template <typename Handler>
    auto tracked(Handler handler);
    /** The client has sent its first bytes: the TLS stream is made and the handshake begins. */
    void startHandshake(const boost::system::error_code& error);
    void onHandshake(const boost::system::error_code& error);
    void readRequest();
    void readSome();
    void onRead(const boost::system::error_code& error, std::size_t bytes);
    void parse();
    /**
     * Lets the dispatcher judge a request whose head is in and whose body is still coming; true
     * when it refused it, and the refusal is being sent.
     */
    bool screenHead();
    void dispatch();
    void onResult(RequestResult result);
    /** Any thread: the handler has completed outside processRequest. */
    static void onCompletion(std::shared_ptr<HttpServerConnection> self, RequestResult result);
    /** Any thread; the handler was taken out of the connection, or is null. */
    void releaseHandler(std::unique_ptr<AbstractRequestHandler> handler);
    void sendResponse(RequestResult result, bool keepAlive);
    /** Answers a request that is not served, and closes. */
    void sendError(StatusCode::Value status, std::string_view reason);
    /** Runs a step of the connection; when memory runs out, answers 503 or at least closes. */
    template <typename Step>
    void guarded(Step step);
    void onWritten(const boost::system::error_code& error);
    void lingerAndClose();
    void drainAndClose();
    void drain();
    /** An I/O completion that closes on error and otherwise goes on with `next`. */
    auto continueOrClose(void (HttpServerConnection::*next)());
    void setDeadline(Clock::time_point deadline);
    void armTimer();
    void onTimer(const boost::system::error_code& error);

    // Not owned: a connection kept by a pending handler may outlive its thread, and owning it
    // would make a cycle with anything of the connection's still queued on a stopped thread.
    aio::AioThread* m_thread = nullptr;
    /** For completions from other threads, which have to learn whether the thread is gone. */
    std::weak_ptr<aio::AioThread> m_threadRef;
    std::optional<boost::asio::ip::tcp::socket> m_socket;
    std::shared_ptr<ssl::ServerContext> m_tlsContext;
    std::optional<TlsStream> m_tls;
    /** Operations on the TLS stream not yet completed. */
    int m_tlsOperations = 0;
    std::string m_clientCertificateName;
    std::optional<boost::asio::steady_timer> m_timer;
    HttpConnectionLimits m_limits;
    AbstractMessageDispatcher* m_dispatcher = nullptr;
    std::shared_ptr<std::atomic<std::size_t>> m_connectionCount;
    std::shared_ptr<PendingHandlers> m_pendingHandlers;
    ClosedHandler m_closedHandler;
    SocketAddress m_peer;

    // Completions come from any thread: once the connection is closed, or its thread stopped,
    // nothing may be posted to it.
    std::mutex m_completionMutex;
    bool m_refusesCompletions = false;  //< Guarded by m_completionMutex.
    /** Taken by a completion refused by a closed connection: guarded by m_completionMutex. */
    std::unique_ptr<AbstractRequestHandler> m_handler;

    RequestParser m_parser;
    std::optional<RequestResult> m_synchronousResult;
    std::string m_head;
    std::string m_body;

    Clock::time_point m_deadline = Clock::time_point::max();
    std::chrono::milliseconds m_checkPeriod{1000};
    bool m_timerArmed = false;
    bool m_waitingForRequest = false;
    bool m_inDispatch = false;
    bool m_handlerPending = false;
    bool m_writing = false;
    bool m_closeWhenIdle = false;
    bool m_keepAlive = true;
    bool m_isHead = false;
    bool m_acceptsGzip = false;
    bool m_closeAfterWrite = false;
    bool m_continueSent = false;
    bool m_headScreened = false;
    bool m_http10 = false;
    bool m_closed = false;
};

}  // namespace kest::network::http::server
