#include "async_http_client.h"

#include <QByteArray>
#include <optional>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>

#include <kest/network/aio/aio_thread.h>
#include <kest/utils/assert.h>
#include <kest/utils/log/log.h>

#include "connection_pool.h"

namespace kest::network::http::client {

namespace asio = boost::asio;
namespace beast_http = boost::beast::http;
using tcp = asio::ip::tcp;

namespace {

/** How a kept-alive connection that the peer closed while idle shows up when it is used. */
bool isConnectionLoss(const boost::system::error_code& error)
{
    return error == beast_http::error::end_of_stream || error == asio::error::eof ||
           error == asio::error::connection_reset || error == asio::error::connection_aborted ||
           error == asio::error::broken_pipe || error == asio::error::not_connected;
}

std::string lowerCase(std::string text)
{
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

}  // namespace

struct AsyncHttpClient::Exchange : std::enable_shared_from_this<Exchange>
{
    struct Options
    {
        std::chrono::milliseconds sendTimeout;
        std::chrono::milliseconds responseTimeout;
        std::chrono::milliseconds bodyTimeout;
        std::size_t maxBodySize;
        bool reuseConnections;
    };

    Exchange(aio::AioThread& thread, Options options, kest::utils::Url url,
             beast_http::request<beast_http::string_body> request, Handler handler)
        : ioContext(thread.ioContext()),
          pool(ConnectionPool::of(thread)),
          options(options),
          url(std::move(url)),
          request(std::move(request)),
          handler(std::move(handler)),
          resolver(ioContext),
          timer(ioContext)
    {}

    void start();
    void connect();
    void onConnected(const boost::system::error_code& error);
    void write();
    void onWritten(const boost::system::error_code& error);
    void readHeader();
    void onHeader(const boost::system::error_code& error);
    void onBody(const boost::system::error_code& error);
    void finish();
    void failOrResend(const boost::system::error_code& error);
    void fail(std::error_code error);
    void failLater(std::error_code error);
    void complete(std::error_code error, std::unique_ptr<Response> response);
    /** The client stopped: nothing more happens, the handler is dropped uncalled. */
    void cancel();

    void setDeadline(std::chrono::milliseconds timeout);
    void onTimeout();
    void closeSocket();

    asio::io_context& ioContext;
    ConnectionPool& pool;
    const Options options;
    const kest::utils::Url url;
    std::string poolKey;
    beast_http::request<beast_http::string_body> request;
    Handler handler;

    tcp::resolver resolver;
    std::optional<tcp::socket> socket;
    asio::steady_timer timer;
    std::uint64_t deadlineGeneration = 0;
    boost::beast::flat_buffer buffer;
    std::optional<beast_http::response_parser<beast_http::string_body>> parser;

    bool done = false;
    bool timedOut = false;
    bool reusedConnection = false;
};

void AsyncHttpClient::Exchange::start()
{
    if (url.scheme() == "https")
        return failLater(std::make_error_code(std::errc::protocol_not_supported));
    if (!url.isValid() || url.scheme() != "http" || url.port() == 0)
        return failLater(std::make_error_code(std::errc::invalid_argument));
    poolKey = lowerCase(url.host()) + ":" + std::to_string(url.port());

    if (options.reuseConnections) {
        if (auto pooled = pool.take(poolKey)) {
            socket = std::move(pooled);
            reusedConnection = true;
            setDeadline(options.sendTimeout);
            return write();
        }
    }
    connect();
}

void AsyncHttpClient::Exchange::connect()
{
    closeSocket();
    reusedConnection = false;
    socket.emplace(ioContext);
    setDeadline(options.sendTimeout);

    boost::system::error_code error;
    const auto address = asio::ip::make_address(url.host(), error);
    if (!error) {
        socket->async_connect(tcp::endpoint(address, url.port()),
                              [self = shared_from_this()](const boost::system::error_code& error) {
                                  self->onConnected(error);
                              });
        return;
    }
    resolver.async_resolve(url.host(), std::to_string(url.port()),
                           [self = shared_from_this()](const boost::system::error_code& error,
                                                       tcp::resolver::results_type endpoints) {
                               if (self->done)
                                   return;
                               if (error)
                                   return self->fail(error);
                               asio::async_connect(
                                   *self->socket, endpoints,
                                   [self](const boost::system::error_code& error,
                                          const tcp::endpoint&) { self->onConnected(error); });
                           });
}

void AsyncHttpClient::Exchange::onConnected(const boost::system::error_code& error)
{
    if (done)
        return;
    if (error)
        return fail(error);
    boost::system::error_code ignored;
    // Small requests and answers: waiting to fill a segment only adds latency.
    socket->set_option(tcp::no_delay(true), ignored);
    write();
}

void AsyncHttpClient::Exchange::write()
{
    beast_http::async_write(*socket, request,
                            [self = shared_from_this()](const boost::system::error_code& error,
                                                        std::size_t) { self->onWritten(error); });
}

void AsyncHttpClient::Exchange::onWritten(const boost::system::error_code& error)
{
    if (done)
        return;
    if (error)
        return failOrResend(error);
    setDeadline(options.responseTimeout);
    buffer.clear();
    readHeader();
}

void AsyncHttpClient::Exchange::readHeader()
{
    parser.emplace();
    parser->header_limit(kMaxResponseHeaderSize);
    parser->body_limit(options.maxBodySize);
    if (request.method() == beast_http::verb::head)
        parser->skip(true);
    beast_http::async_read_header(
        *socket, buffer, *parser,
        [self = shared_from_this()](const boost::system::error_code& error, std::size_t) {
            self->onHeader(error);
        });
}

void AsyncHttpClient::Exchange::onHeader(const boost::system::error_code& error)
{
    if (done)
        return;
    if (error)
        return failOrResend(error);
    const unsigned status = parser->get().result_int();
    if (status >= 100 && status < 200 && status != 101) {
        // An interim answer ("100 Continue"): the real one follows on the same connection.
        return readHeader();
    }
    if (parser->is_done())
        return finish();
    setDeadline(options.bodyTimeout);
    beast_http::async_read(*socket, buffer, *parser,
                           [self = shared_from_this()](const boost::system::error_code& error,
                                                       std::size_t) { self->onBody(error); });
}

void AsyncHttpClient::Exchange::onBody(const boost::system::error_code& error)
{
    if (done)
        return;
    if (error)
        return fail(error);
    finish();
}

void AsyncHttpClient::Exchange::finish()
{
    // Bytes past the response would be taken for the next answer: such a connection is closed.
    const bool keepAlive = options.reuseConnections && request.keep_alive() &&
                           parser->get().keep_alive() && !parser->need_eof() && buffer.size() == 0;
    auto message = parser->release();

    auto response = std::make_unique<Response>();
    response->statusCode = static_cast<StatusCode::Value>(message.result_int());
    response->reasonPhrase = std::string(message.reason());
    response->version = message.version();
    for (const auto& field : message)
        response->headers.emplace_back(std::string(field.name_string()),
                                       std::string(field.value()));
    response->body = std::move(message.body());

    ++deadlineGeneration;
    timer.cancel();
    if (keepAlive) {
        pool.put(poolKey, std::move(*socket));
        socket.reset();
    } else {
        closeSocket();
    }
    complete({}, std::move(response));
}

void AsyncHttpClient::Exchange::failOrResend(const boost::system::error_code& error)
{
    const bool nothingReceived = (!parser || !parser->got_some()) && buffer.size() == 0;
    if (reusedConnection && !timedOut && nothingReceived && isConnectionLoss(error)) {
        KEST_DEBUG(this,
                   "%1 %2: the kept-alive connection was closed by the peer (%3), sending "
                   "again on a new connection",
                   std::string(request.method_string()), url.toString(), error.message());
        return connect();
    }
    fail(error);
}

void AsyncHttpClient::Exchange::fail(std::error_code error)
{
    if (timedOut)
        error = std::make_error_code(std::errc::timed_out);
    KEST_DEBUG(this, "%1 %2 failed: %3", std::string(request.method_string()), url.toString(),
               error.message());
    ++deadlineGeneration;
    timer.cancel();
    closeSocket();
    complete(error, nullptr);
}

void AsyncHttpClient::Exchange::failLater(std::error_code error)
{
    asio::post(ioContext, [self = shared_from_this(), error]() {
        if (!self->done)
            self->fail(error);
    });
}

void AsyncHttpClient::Exchange::complete(std::error_code error, std::unique_ptr<Response> response)
{
    if (done)
        return;
    done = true;
    auto completion = std::move(handler);
    completion(error, std::move(response));
}

void AsyncHttpClient::Exchange::cancel()
{
    if (done)
        return;
    done = true;
    ++deadlineGeneration;
    timer.cancel();
    resolver.cancel();
    closeSocket();
    auto dropped = std::move(handler);
}

void AsyncHttpClient::Exchange::setDeadline(std::chrono::milliseconds timeout)
{
    const std::uint64_t generation = ++deadlineGeneration;
    timer.cancel();
    if (timeout.count() <= 0)
        return;
    timer.expires_after(timeout);
    timer.async_wait(
        [self = shared_from_this(), generation](const boost::system::error_code& error) {
            if (!error && !self->done && generation == self->deadlineGeneration)
                self->onTimeout();
        });
}

void AsyncHttpClient::Exchange::onTimeout()
{
    // The operation in progress ends with an error, which is then reported as the timeout.
    timedOut = true;
    resolver.cancel();
    closeSocket();
}

void AsyncHttpClient::Exchange::closeSocket()
{
    if (!socket)
        return;
    boost::system::error_code ignored;
    socket->shutdown(tcp::socket::shutdown_both, ignored);
    socket->close(ignored);
}

AsyncHttpClient::AsyncHttpClient(aio::AbstractAioThread* aioThread) : BasicPollable(aioThread) {}

AsyncHttpClient::~AsyncHttpClient()
{
    pleaseStopSync();
}

void AsyncHttpClient::addRequestHeader(std::string name, std::string value)
{
    m_headers.emplace_back(std::move(name), std::move(value));
}

void AsyncHttpClient::setRequestBody(std::string body, std::string contentType)
{
    m_body = std::move(body);
    m_contentType = std::move(contentType);
}

void AsyncHttpClient::doRequest(std::string method, const kest::utils::Url& url, Handler handler)
{
    auto* thread = dynamic_cast<aio::AioThread*>(getAioThread());
    if (!KEST_ASSERT(thread, "An HTTP client needs an AioThread"))
        return;

    beast_http::request<beast_http::string_body> request;
    request.method_string(method);
    request.target(url.target());
    request.version(11);
    const std::string host = url.host();
    std::string hostField = host.find(':') == std::string::npos ? host : "[" + host + "]";
    if (url.hasExplicitPort())
        hostField += ":" + std::to_string(url.port());
    request.set(beast_http::field::host, hostField);
    if (!m_credentials.empty()) {
        const QByteArray pair =
            QByteArray::fromStdString(m_credentials.username + ":" + m_credentials.password);
        request.set(beast_http::field::authorization, "Basic " + pair.toBase64().toStdString());
    }
    for (const auto& [name, value] : m_headers)
        request.insert(name, value);
    if (!m_body.empty() || !m_contentType.empty()) {
        request.set(beast_http::field::content_type, m_contentType);
        request.body() = m_body;
    }
    request.prepare_payload();

    const Exchange::Options options{m_sendTimeout, m_responseTimeout, m_bodyTimeout, m_maxBodySize,
                                    m_reuseConnections};
    dispatch([this, thread, options, url, request = std::move(request),
              handler = std::move(handler)]() mutable {
        if (m_exchange && !m_exchange->done) {
            KEST_ASSERT(false, "An HTTP client runs one exchange at a time");
            asio::post(thread->ioContext(), [handler = std::move(handler)]() mutable {
                handler(std::make_error_code(std::errc::operation_in_progress), nullptr);
            });
            return;
        }
        m_exchange = std::make_shared<Exchange>(*thread, options, std::move(url),
                                                std::move(request), std::move(handler));
        m_exchange->start();
    });
}

void AsyncHttpClient::bindToAioThread(aio::AbstractAioThread* aioThread)
{
    executeInAioThreadSync([this]() {
        KEST_ASSERT(!m_exchange || m_exchange->done,
                    "An HTTP client cannot move to another thread during an exchange");
        m_exchange.reset();
    });
    BasicPollable::bindToAioThread(aioThread);
}

void AsyncHttpClient::stopWhileInAioThread()
{
    if (m_exchange) {
        m_exchange->cancel();
        m_exchange.reset();
    }
}

}  // namespace kest::network::http::client
