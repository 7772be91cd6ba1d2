#include "http_server_connection.h"

#include <array>
#include <charconv>

#include <openssl/ssl.h>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/write.hpp>

#include <kest/network/http/gzip.h>
#include <kest/network/http/server/abstract_message_dispatcher.h>
#include <kest/network/ssl/tls_errors.h>
#include <kest/utils/assert.h>
#include <kest/utils/log/log.h>

#include "settings.h"

namespace kest::network::http::server {

namespace {

constexpr std::size_t kReadChunk = 16 * 1024;
constexpr std::chrono::milliseconds kMaxLinger{2000};
constexpr std::chrono::milliseconds kMaxCheckPeriod{1000};
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
/** A TLS answer up to this size goes out as one record: the head and the body copied together. */
constexpr std::size_t kMaxCoalescedBody = 16 * 1024;

std::chrono::milliseconds checkPeriodFor(const HttpConnectionLimits& limits)
{
    auto shortest = std::min(limits.requestReadTimeout, limits.idleTimeout);
    if (shortest <= std::chrono::milliseconds::zero())
        shortest = std::max(limits.requestReadTimeout, limits.idleTimeout);
    if (shortest <= std::chrono::milliseconds::zero())
        return kMaxCheckPeriod;
    return std::clamp(shortest / 4, std::chrono::milliseconds(5), kMaxCheckPeriod);
}

void appendNumber(std::string* out, std::size_t value)
{
    char digits[24];
    const auto result = std::to_chars(digits, digits + sizeof(digits), value);
    out->append(digits, result.ptr);
}

/** Zero or less means no limit; a huge timeout is cut so that the sum cannot overflow. */
std::chrono::steady_clock::time_point deadlineAfter(std::chrono::milliseconds timeout)
{
    if (timeout <= std::chrono::milliseconds::zero())
        return std::chrono::steady_clock::time_point::max();
    return std::chrono::steady_clock::now() + std::min(timeout, Settings::kMaxTimeout);
}

SocketAddress toSocketAddress(const boost::asio::ip::tcp::endpoint& endpoint)
{
    return SocketAddress{endpoint.address().to_string(), endpoint.port()};
}

bool hasHeader(const HttpHeaders& headers, std::string_view name)
{
    for (const auto& header : headers) {
        if (equalsIgnoreCase(header.first, name))
            return true;
    }
    return false;
}

}  // namespace

HttpServerConnection::HttpServerConnection(
    std::weak_ptr<aio::AioThread> thread, boost::asio::ip::tcp::socket socket,
    const HttpConnectionLimits& limits, AbstractMessageDispatcher* dispatcher,
    std::shared_ptr<std::atomic<std::size_t>> connectionCount,
    std::shared_ptr<PendingHandlers> pendingHandlers, ClosedHandler closedHandler,
    std::shared_ptr<ssl::ServerContext> tlsContext)
    : m_thread(thread.lock().get()),
      m_threadRef(std::move(thread)),
      m_tlsContext(std::move(tlsContext)),
      m_limits(limits),
      m_dispatcher(dispatcher),
      m_connectionCount(std::move(connectionCount)),
      m_pendingHandlers(std::move(pendingHandlers)),
      m_closedHandler(std::move(closedHandler)),
      m_parser(limits.request),
      m_checkPeriod(checkPeriodFor(limits))
{
    m_socket.emplace(std::move(socket));
}

HttpServerConnection::~HttpServerConnection() = default;

template <typename Operation>
void HttpServerConnection::withStream(Operation&& operation)
{
    if (m_tls)
        operation(*m_tls);
    else
        operation(*m_socket);
}

template <typename Handler>
auto HttpServerConnection::tracked(Handler handler)
{
    if (m_tls)
        ++m_tlsOperations;
    return [self = shared_from_this(), handler = std::move(handler)](
               const boost::system::error_code& error, auto... result) mutable {
        if (self->m_tls && --self->m_tlsOperations == 0 && self->m_closed)
            self->m_tls.reset();
        handler(error, result...);
    };
}

auto HttpServerConnection::continueOrClose(void (HttpServerConnection::*next)())
{
    // Completion of an I/O step whose result only matters as success or failure.
    return [self = shared_from_this(), next](const boost::system::error_code& error, std::size_t) {
        if (self->m_closed)
            return;
        if (error) {
            self->close();
            return;
        }
        ((*self).*next)();
    };
}

template <typename Step>
void HttpServerConnection::guarded(Step step)
{
    try {
        step();
    } catch (const std::bad_alloc&) {
        if (m_closed)
            return;
        // Whatever the step was doing is lost; the client learns of it unless even the answer
        // cannot be made.
        try {
            KEST_ERROR(this, "Out of memory serving %1", m_peer.toString());
            if (!m_writing && !m_handlerPending) {
                sendError(StatusCode::serviceUnavailable, "Out of memory");
                return;
            }
        } catch (const std::bad_alloc&) {
        }
        close();
    }
}

void HttpServerConnection::start()
{
    if (m_closed)  //< The server stopped before the connection got to start.
        return;
    boost::system::error_code error;
    const auto peer = socket().remote_endpoint(error);
    if (!error)
        m_peer = toSocketAddress(peer);
    socket().set_option(boost::asio::ip::tcp::no_delay(true), error);
    m_timer.emplace(m_thread->ioContext());
    if (m_tlsContext) {
        // A handshake that crawls is a slowloris too.
        setDeadline(deadlineAfter(m_limits.requestReadTimeout));
        // The TLS stream holds four buffers of a TLS record each (68 KiB) for as long as it
        // lives: it is made once the client has sent something, not for a silent connection.
        m_socket->async_wait(boost::asio::socket_base::wait_read,
                             [self = shared_from_this()](const boost::system::error_code& error) {
                                 self->startHandshake(error);
                             });
        return;
    }
    readRequest();
}

void HttpServerConnection::startHandshake(const boost::system::error_code& error)
{
    if (m_closed)
        return;
    if (error) {
        close();
        return;
    }
    guarded([this]() {
        m_tls.emplace(std::move(*m_socket), m_tlsContext->native());
        m_socket.reset();
        m_tls->async_handshake(
            boost::asio::ssl::stream_base::server,
            tracked([this](const boost::system::error_code& error) { onHandshake(error); }));
    });
}

void HttpServerConnection::onHandshake(const boost::system::error_code& error)
{
    if (m_closed)
        return;
    if (error) {
        KEST_DEBUG(this, "TLS handshake with %1 failed: %2", m_peer.toString(), error.message());
        close();
        return;
    }
    SSL* ssl = m_tls->native_handle();
    // A certificate that the client CA does not vouch for fails the handshake; one that got here
    // was verified.
    if (m_tlsContext->asksForClientCertificates() && SSL_get_verify_result(ssl) == X509_V_OK)
        m_clientCertificateName = ssl::peerCommonName(ssl);
    guarded([this]() { readRequest(); });
}

void HttpServerConnection::close()
{
    if (m_closed)
        return;
    m_closed = true;
    {
        std::lock_guard lock(m_completionMutex);
        m_refusesCompletions = true;
    }
    boost::system::error_code ignored;
    socket().shutdown(boost::asio::ip::tcp::socket::shutdown_both, ignored);
    socket().close(ignored);
    // Destroyed now rather than with the connection, which a pending handler may keep alive
    // beyond the life of the I/O thread's context. A TLS stream goes once the operations that
    // the close cut short have completed, since they use it until then.
    if (!m_tls)
        m_socket.reset();
    else if (m_tlsOperations == 0)
        m_tls.reset();
    m_timer.reset();
    m_connectionCount->fetch_sub(1, std::memory_order_relaxed);
    if (auto handler = std::move(m_closedHandler))
        handler(this);
}

void HttpServerConnection::closeWhenIdle()
{
    m_closeWhenIdle = true;
    if (!m_closed && !m_handlerPending && !m_writing)
        close();
}

void HttpServerConnection::readRequest()
{
    m_continueSent = false;
    m_headScreened = false;
    if (m_parser.bufferedBytes() > 0) {
        m_waitingForRequest = false;
        setDeadline(deadlineAfter(m_limits.requestReadTimeout));
        parse();
        return;
    }
    m_waitingForRequest = true;
    setDeadline(deadlineAfter(m_limits.idleTimeout));
    readSome();
}

void HttpServerConnection::readSome()
{
    withStream([this](auto& stream) {
        stream.async_read_some(m_parser.prepare(kReadChunk),
                               tracked([this](const boost::system::error_code& error,
                                              std::size_t bytes) { onRead(error, bytes); }));
    });
}

void HttpServerConnection::onRead(const boost::system::error_code& error, std::size_t bytes)
{
    if (m_closed)
        return;
    if (error) {
        KEST_VERBOSE(this, "Connection from %1 ends: %2", m_peer.toString(), error.message());
        close();
        return;
    }
    m_parser.commit(bytes);
    if (m_waitingForRequest) {
        // The request has begun: from now on it has to arrive whole within the read timeout.
        m_waitingForRequest = false;
        setDeadline(deadlineAfter(m_limits.requestReadTimeout));
    }
    guarded([this]() { parse(); });
}

void HttpServerConnection::parse()
{
    switch (m_parser.parse()) {
        case RequestParser::Result::request:
            dispatch();
            return;
        case RequestParser::Result::failed: {
            const auto& failure = m_parser.failure();
            KEST_DEBUG(this, "Bad request from %1: %2", m_peer.toString(), failure.reason);
            sendError(failure.status, failure.reason);
            return;
        }
        case RequestParser::Result::needMore:
            break;
    }
    if (!m_headScreened && screenHead())
        return;
    if (!m_continueSent && m_parser.waitsForContinue()) {
        // Clients such as curl hold a larger body back until they are told to go on.
        m_continueSent = true;
        withStream([this](auto& stream) {
            boost::asio::async_write(stream, boost::asio::buffer(kContinue),
                                     tracked(continueOrClose(&HttpServerConnection::readSome)));
        });
        return;
    }
    readSome();
}

bool HttpServerConnection::screenHead()
{
    const Request* head = m_parser.pendingHead();
    if (!head)
        return false;
    m_headScreened = true;
    RequestContext context;
    context.request.method = head->method;
    context.request.target = head->target;
    context.request.path = head->path;
    context.request.query = head->query;
    context.request.headers = head->headers;
    context.request.version = head->version;
    context.clientEndpoint = m_peer;
    context.secure = m_tls.has_value();
    context.clientCertificateName = m_clientCertificateName;
    auto refusal = m_dispatcher->screenHead(context);
    if (!refusal)
        return false;
    // The body is not read: the answer goes out now and the connection closes after it.
    m_http10 = head->version == 10;
    m_isHead = false;
    m_acceptsGzip = false;
    sendResponse(std::move(*refusal), /*keepAlive*/ false);
    return true;
}

void HttpServerConnection::dispatch()
{
    m_keepAlive = m_parser.keepAlive();
    Request request = m_parser.takeRequest();
    m_http10 = request.version == 10;
    m_isHead = request.method == "HEAD";
    const auto acceptEncoding = request.header("Accept-Encoding");
    m_acceptsGzip = acceptEncoding && Gzip::isAccepted(*acceptEncoding);
    // The handler may take as long as it needs; timeouts apply to the client only.
    setDeadline(Clock::time_point::max());

    // Shared by every copy of the completion, so that a second call is refused from any thread
    // and can never be taken for the answer to a later request on this connection.
    auto completed = std::make_shared<std::atomic<bool>>(false);
    auto completion = [self = shared_from_this(), completed](RequestResult result) mutable {
        if (!KEST_ASSERT(!completed->exchange(true), "A request completed twice"))
            return;
        if (self->m_thread == aio::AioThread::current() && !self->m_threadRef.expired() &&
            self->m_inDispatch) {
            // Completed inside processRequest: finish once the dispatcher has returned.
            self->m_synchronousResult = std::move(result);
            return;
        }
        // By copy: this closure may be destroyed with the handler that owns it.
        onCompletion(self, std::move(result));
    };

    m_pendingHandlers->add();
    m_handlerPending = true;
    m_inDispatch = true;
    bool failed = true;
    try {
        RequestContext context(std::move(request), m_peer);
        context.secure = m_tls.has_value();
        context.clientCertificateName = m_clientCertificateName;
        auto handler = m_dispatcher->dispatchRequest(std::move(context), std::move(completion));
        std::lock_guard lock(m_completionMutex);
        m_handler = std::move(handler);
        failed = false;
    } catch (const std::exception& e) {
        KEST_ERROR(this, "Handling a request from %1 has thrown: %2", m_peer.toString(), e.what());
    } catch (...) {
        KEST_ERROR(this, "Handling a request from %1 has thrown a non-exception",
                   m_peer.toString());
    }
    m_inDispatch = false;
    // Claiming the completion makes a late call by the failed handler a refused second one;
    // when it has already completed, that answer stands.
    if (failed && !completed->exchange(true))
        m_synchronousResult = RequestResult(StatusCode::internalServerError);
    if (m_synchronousResult) {
        RequestResult result = std::move(*m_synchronousResult);
        m_synchronousResult.reset();
        onResult(std::move(result));
    }
}

void HttpServerConnection::onCompletion(std::shared_ptr<HttpServerConnection> self,
                                        RequestResult result)
{
    std::unique_ptr<AbstractRequestHandler> dropped;
    {
        std::lock_guard lock(self->m_completionMutex);
        // A stopped thread never runs what is posted to it; a destroyed one is gone.
        const auto thread = self->m_threadRef.lock();
        if (!self->m_refusesCompletions && thread && !thread->isStopped()) {
            // `self` is copied, not moved: should the pool go away meanwhile and `thread` be
            // the last owner, the closure dies with it, and the connection must outlive the lock.
            boost::asio::post(thread->ioContext(), [self, result = std::move(result)]() mutable {
                self->onResult(std::move(result));
            });
            return;
        }
        dropped = std::move(self->m_handler);
    }
    KEST_DEBUG(self.get(), "Dropping the response to %1: the connection is closed",
               self->m_peer.toString());
    self->releaseHandler(std::move(dropped));
}

void HttpServerConnection::releaseHandler(std::unique_ptr<AbstractRequestHandler> handler)
{
    // Destroyed before it is counted out, so that a stopped server has no handler left at all.
    handler.reset();
    m_pendingHandlers->remove();
}

void HttpServerConnection::onResult(RequestResult result)
{
    if (!KEST_ASSERT(m_handlerPending, "A request completed twice"))
        return;
    m_handlerPending = false;
    std::unique_ptr<AbstractRequestHandler> handler;
    {
        std::lock_guard lock(m_completionMutex);
        handler = std::move(m_handler);
    }
    releaseHandler(std::move(handler));
    if (m_closed)
        return;
    guarded([&]() { sendResponse(std::move(result), m_keepAlive && !m_closeWhenIdle); });
}

void HttpServerConnection::sendError(StatusCode::Value status, std::string_view reason)
{
    m_isHead = false;
    m_acceptsGzip = false;
    RequestResult result(status);
    if (!reason.empty()) {
        result.body.assign(reason).push_back('\n');
        result.contentType = "text/plain";
    }
    sendResponse(std::move(result), /*keepAlive*/ false);
}

void HttpServerConnection::sendResponse(RequestResult result, bool keepAlive)
{
    m_closeAfterWrite = !keepAlive;
    m_head.clear();
    m_head.append("HTTP/1.1 ");
    appendNumber(&m_head, static_cast<std::size_t>(result.statusCode));
    m_head.push_back(' ');
    m_head.append(StatusCode::toString(result.statusCode));
    m_head.append("\r\n");
    for (const auto& [name, value] : result.headers) {
        m_head.append(name).append(": ").append(value).append("\r\n");
    }
    if (!m_isHead && result.body.size() > kMinGzipBytes &&
        !hasHeader(result.headers, "Content-Encoding")) {
        // Caches must keep the coded and the plain answer apart.
        m_head.append("Vary: Accept-Encoding\r\n");
        if (m_acceptsGzip) {
            auto compressed = Gzip::compress(result.body);
            if (compressed && compressed->size() < result.body.size()) {
                result.body = std::move(*compressed);
                m_head.append("Content-Encoding: gzip\r\n");
            }
        }
    }
    if (!result.body.empty() && !result.contentType.empty())
        m_head.append("Content-Type: ").append(result.contentType).append("\r\n");
    m_head.append("Content-Length: ");
    appendNumber(&m_head, result.body.size());
    m_head.append("\r\n");
    if (!keepAlive)
        m_head.append("Connection: close\r\n");
    else if (m_http10)
        m_head.append("Connection: keep-alive\r\n");
    m_head.append("\r\n");
    m_body = std::move(result.body);
    if (m_isHead)
        m_body.clear();
    if (m_tls && m_body.size() <= kMaxCoalescedBody) {
        // Each buffer would be a TLS record and a write of its own.
        m_head.append(m_body);
        m_body.clear();
    }
    m_writing = true;

    setDeadline(deadlineAfter(m_limits.requestReadTimeout));
    const std::array<boost::asio::const_buffer, 2> buffers{boost::asio::buffer(m_head),
                                                           boost::asio::buffer(m_body)};
    withStream([this, &buffers](auto& stream) {
        boost::asio::async_write(
            stream, buffers, tracked([this](const boost::system::error_code& error, std::size_t) {
                onWritten(error);
            }));
    });
}

void HttpServerConnection::onWritten(const boost::system::error_code& error)
{
    m_writing = false;
    if (m_closed)
        return;
    if (error) {
        close();
        return;
    }
    if (m_closeAfterWrite || m_closeWhenIdle) {
        lingerAndClose();
        return;
    }
    guarded([this]() { readRequest(); });
}

void HttpServerConnection::lingerAndClose()
{
    const auto readTimeout = m_limits.requestReadTimeout;
    setDeadline(deadlineAfter(readTimeout > std::chrono::milliseconds::zero()
                                  ? std::min(readTimeout, kMaxLinger)
                                  : kMaxLinger));
    if (m_tls) {
        // close_notify first. Whatever the client does then (its own close_notify, a close, or
        // more of a body that will not be read), the socket under the stream is drained.
        m_tls->async_shutdown(tracked([this](const boost::system::error_code&) {
            if (!m_closed)
                drainAndClose();
        }));
        return;
    }
    drainAndClose();
}

void HttpServerConnection::drainAndClose()
{
    // Closing with unread input makes the kernel reset the connection, and the client may lose
    // the answer it has not read yet: send FIN and drain what the client still sends.
    boost::system::error_code ignored;
    socket().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
    drain();
}

void HttpServerConnection::drain()
{
    // Read into the parser's free space and never committed: the input is thrown away. Over
    // TLS, the records are thrown away undecrypted.
    socket().async_read_some(m_parser.prepare(kReadChunk),
                             tracked(continueOrClose(&HttpServerConnection::drain)));
}

void HttpServerConnection::setDeadline(Clock::time_point deadline)
{
    m_deadline = deadline;
    if (!m_timerArmed)
        armTimer();
}

void HttpServerConnection::armTimer()
{
    if (!m_timer)
        return;
    m_timerArmed = true;
    const auto now = Clock::now();
    const auto periodEnd = now + m_checkPeriod;
    m_timer->expires_at(m_deadline < periodEnd ? m_deadline : periodEnd);
    m_timer->async_wait([self = shared_from_this()](const boost::system::error_code& error) {
        self->onTimer(error);
    });
}

void HttpServerConnection::onTimer(const boost::system::error_code& error)
{
    m_timerArmed = false;
    if (m_closed || error)
        return;
    if (Clock::now() >= m_deadline) {
        KEST_DEBUG(this, "Connection from %1 timed out", m_peer.toString());
        close();
        return;
    }
    armTimer();
}

}  // namespace kest::network::http::server
