#include "async_http_client.h"

#include <QByteArray>
#include <optional>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>

#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <kest/network/aio/aio_thread.h>
#include <kest/network/http/gzip.h>
#include <kest/network/ssl/tls_errors.h>
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
           error == asio::error::broken_pipe || error == asio::error::not_connected ||
           error == asio::ssl::error::stream_truncated;
}

class ContentEncodingCategory : public std::error_category
{
public:
    const char* name() const noexcept override { return "content-encoding"; }
    std::string message(int) const override
    {
        return "the answer's gzip-compressed body does not decode";
    }
};

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
        /** The request asked for gzip: a gzip answer is decoded. */
        bool decodeGzip;
        std::shared_ptr<ssl::ClientContext> tlsContext;
        ssl::CertificateCheck certificateCheck;
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
    void handshake();
    void onHandshake(const boost::system::error_code& error);
    /** The certificate check of the owner, when it has one; true otherwise. */
    bool passesCertificateCheck();
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

    bool tls = false;
    tcp::resolver resolver;
    std::unique_ptr<ClientConnection> connection;
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
    const std::string scheme = url.scheme();
    if (!url.isValid() || (scheme != "http" && scheme != "https") || url.port() == 0)
        return failLater(std::make_error_code(std::errc::invalid_argument));
    tls = scheme == "https";
    poolKey = lowerCase(url.host()) + ":" + std::to_string(url.port());
    if (tls) {
        // Connections checked by one owner's check are not handed to another's unchecked, nor
        // those of one context to another (which may present another client certificate).
        poolKey = "https://" + poolKey + "#" + std::to_string(options.tlsContext->id()) +
                  (options.certificateCheck ? "+check" : "");
    }

    if (options.reuseConnections) {
        if (auto pooled = pool.take(poolKey)) {
            connection = std::move(pooled);
            reusedConnection = true;
            setDeadline(options.sendTimeout);
            // An owner's check may judge differently from the one that made the connection.
            if (!passesCertificateCheck()) {
                closeSocket();
                return failLater(ssl::certificateRejectedByCheck());
            }
            return write();
        }
    }
    connect();
}

void AsyncHttpClient::Exchange::connect()
{
    closeSocket();
    reusedConnection = false;
    connection = tls ? std::make_unique<ClientConnection>(ioContext, options.tlsContext)
                     : std::make_unique<ClientConnection>(ioContext);
    setDeadline(options.sendTimeout);

    boost::system::error_code error;
    const auto address = asio::ip::make_address(url.host(), error);
    if (!error) {
        connection->socket().async_connect(
            tcp::endpoint(address, url.port()),
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
                                   self->connection->socket(), endpoints,
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
    connection->socket().set_option(tcp::no_delay(true), ignored);
    if (tls)
        return handshake();
    write();
}

void AsyncHttpClient::Exchange::handshake()
{
    SSL* ssl = connection->tls()->native_handle();
    const std::string host = url.host();
    boost::system::error_code notAnAddress;
    asio::ip::make_address(host, notAnAddress);
    const bool isAddress = !notAnAddress;
    if (!isAddress)
        SSL_set_tlsext_host_name(ssl, host.c_str());  //< SNI takes names only.
    if (options.certificateCheck) {
        // The owner's check decides, once the chain is known.
        SSL_set_verify(ssl, SSL_VERIFY_NONE, nullptr);
    } else {
        // OpenSSL verifies the chain and the name during the handshake, and says which failed.
        X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
        if (isAddress) {
            X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str());
        } else {
            X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
            X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size());
        }
        SSL_set_verify(ssl, SSL_VERIFY_PEER, nullptr);
    }
    connection->tls()->async_handshake(
        asio::ssl::stream_base::client,
        [self = shared_from_this()](const boost::system::error_code& error) {
            self->onHandshake(error);
        });
}

void AsyncHttpClient::Exchange::onHandshake(const boost::system::error_code& error)
{
    if (done)
        return;
    if (error) {
        const long verifyResult = SSL_get_verify_result(connection->tls()->native_handle());
        if (!timedOut && !options.certificateCheck && verifyResult != X509_V_OK)
            return fail(ssl::makeCertificateError(verifyResult));
        return fail(error);
    }
    if (!passesCertificateCheck())
        return fail(ssl::certificateRejectedByCheck());
    write();
}

bool AsyncHttpClient::Exchange::passesCertificateCheck()
{
    if (!tls || !options.certificateCheck)
        return true;
    const auto chain = ssl::peerCertificateChain(connection->tls()->native_handle());
    return !chain.empty() && options.certificateCheck(chain, url.host());
}

void AsyncHttpClient::Exchange::write()
{
    connection->visit([this](auto& stream) {
        beast_http::async_write(
            stream, request,
            [self = shared_from_this()](const boost::system::error_code& error, std::size_t) {
                self->onWritten(error);
            });
    });
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
    connection->visit([this](auto& stream) {
        beast_http::async_read_header(
            stream, buffer, *parser,
            [self = shared_from_this()](const boost::system::error_code& error, std::size_t) {
                self->onHeader(error);
            });
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
    connection->visit([this](auto& stream) {
        beast_http::async_read(stream, buffer, *parser,
                               [self = shared_from_this()](const boost::system::error_code& error,
                                                           std::size_t) { self->onBody(error); });
    });
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
    bool gzipped = false;
    for (const auto& field : message) {
        if (options.decodeGzip && field.name() == beast_http::field::content_encoding) {
            if (equalsIgnoreCase(field.value(), "gzip") ||
                equalsIgnoreCase(field.value(), "x-gzip")) {
                gzipped = true;
                continue;
            }
        }
        response->headers.emplace_back(std::string(field.name_string()),
                                       std::string(field.value()));
    }
    if (gzipped) {
        std::erase_if(response->headers, [](const HttpHeader& h) {
            return equalsIgnoreCase(h.first, "Content-Length");
        });
        const auto result = Gzip::decompress(message.body(), options.maxBodySize, &response->body);
        if (result != Gzip::DecodeResult::ok) {
            return fail(
                result == Gzip::DecodeResult::tooLarge
                    ? std::error_code(boost::system::error_code(beast_http::error::body_limit))
                    : badContentEncoding());
        }
    } else {
        response->body = std::move(message.body());
    }

    ++deadlineGeneration;
    timer.cancel();
    if (keepAlive) {
        pool.put(poolKey, std::move(connection));
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
    // The connection stays until the exchange ends: a TLS stream must outlive the operations
    // that the close cuts short, whose completions still use it.
    if (connection)
        connection->close();
}

std::error_code AsyncHttpClient::badContentEncoding()
{
    static const ContentEncodingCategory category;
    return std::error_code(1, category);
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
    if (!m_credentials.bearerToken.empty()) {
        request.set(beast_http::field::authorization, "Bearer " + m_credentials.bearerToken);
    } else if (!m_credentials.empty()) {
        const QByteArray pair =
            QByteArray::fromStdString(m_credentials.username + ":" + m_credentials.password);
        request.set(beast_http::field::authorization, "Basic " + pair.toBase64().toStdString());
    }
    for (const auto& [name, value] : m_headers)
        request.insert(name, value);
    const bool decodeGzip =
        m_acceptGzip && request.find(beast_http::field::accept_encoding) == request.end();
    if (decodeGzip)
        request.set(beast_http::field::accept_encoding, "gzip");
    if (!m_body.empty() || !m_contentType.empty()) {
        request.set(beast_http::field::content_type, m_contentType);
        request.body() = m_body;
    }
    request.prepare_payload();

    std::shared_ptr<ssl::ClientContext> tlsContext = m_tlsContext;
    if (!tlsContext && url.scheme() == "https")
        tlsContext = ssl::ClientContext::systemDefault();
    const Exchange::Options options{m_sendTimeout,         m_responseTimeout,  m_bodyTimeout,
                                    m_maxBodySize,         m_reuseConnections, decodeGzip,
                                    std::move(tlsContext), m_certificateCheck};
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
