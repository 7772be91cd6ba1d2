#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <system_error>

#include <kest/network/aio/basic_pollable.h>
#include <kest/network/http/request.h>
#include <kest/network/ssl/certificate_check.h>
#include <kest/network/ssl/client_context.h>
#include <kest/utils/move_only_func.h>
#include <kest/utils/url.h>

#include "credentials.h"
#include "response.h"

namespace kest::network::http::client {

/**
 * An asynchronous HTTP/1.1 client, over TLS for "https" URLs, bound to one I/O thread (an
 * AioThread): one exchange at a time, its completion handler called on that thread. Kept-alive
 * connections go back to the thread's ConnectionPool and are taken from it by any client to the
 * same scheme, host:port and TLS context.
 *
 * A request that fails on a reused connection before any byte of its answer has arrived (the peer
 * had closed the idle connection) is sent once more on a fresh connection; a request on a fresh
 * connection is never sent twice.
 *
 * Stopping (pleaseStop, pleaseStopSync, destruction) closes the exchange's connection, and its
 * handler is not called after that. The handler may destroy the client.
 *
 * TLS: the handshake follows the connect, within the send timeout. The server's certificate must
 * chain to a CA that the client's context trusts and name the host of the URL, unless a
 * certificate check is set, which then decides alone. A certificate refused is reported as an
 * error of ssl::certificateCategory() saying why.
 *
 * Answers are asked for gzip-compressed ("Accept-Encoding: gzip") unless the caller sets an
 * Accept-Encoding of its own, and handed over decoded, without their Content-Encoding and
 * Content-Length headers; the body size limit applies to the decoded body.
 */
class AsyncHttpClient : public aio::BasicPollable
{
public:
    /**
     * A system error and no response, or no error and the whole response. Timeouts are
     * std::errc::timed_out, a body over the limit is Beast's http::error::body_limit.
     */
    using Handler = kest::utils::MoveOnlyFunc<void(std::error_code, std::unique_ptr<Response>)>;

    /** A compressed answer that does not decode. */
    static std::error_code badContentEncoding();

    /** Connecting (with name resolution) and writing the whole request. */
    static constexpr std::chrono::milliseconds kDefaultSendTimeout{20'000};
    /** From the request written to the response's status line and headers read. */
    static constexpr std::chrono::milliseconds kDefaultResponseReadTimeout{20'000};
    /** From the headers read to the whole body read. */
    static constexpr std::chrono::milliseconds kDefaultMessageBodyReadTimeout{60'000};
    static constexpr std::size_t kDefaultMaxResponseBodySize = 64 * 1024 * 1024;
    static constexpr std::size_t kMaxResponseHeaderSize = 64 * 1024;

    explicit AsyncHttpClient(aio::AbstractAioThread* aioThread = nullptr);
    /** Stops, waiting on the bound thread when called elsewhere. */
    ~AsyncHttpClient() override;

    // Settings apply to the next exchange. A zero timeout means no limit.
    void setSendTimeout(std::chrono::milliseconds timeout) { m_sendTimeout = timeout; }
    void setResponseReadTimeout(std::chrono::milliseconds timeout) { m_responseTimeout = timeout; }
    void setMessageBodyReadTimeout(std::chrono::milliseconds timeout) { m_bodyTimeout = timeout; }
    void setMaxResponseBodySize(std::size_t bytes) { m_maxBodySize = bytes; }
    /** Off: every exchange connects anew and closes afterwards. On by default. */
    void setReuseConnections(bool value) { m_reuseConnections = value; }
    void setCredentials(Credentials credentials) { m_credentials = std::move(credentials); }
    /** For https URLs; by default ssl::ClientContext::systemDefault(). */
    void setTlsContext(std::shared_ptr<ssl::ClientContext> context)
    {
        m_tlsContext = std::move(context);
    }
    /** Replaces the verification of server certificates; see the class comment. */
    void setCertificateCheck(ssl::CertificateCheck check) { m_certificateCheck = std::move(check); }
    /** Whether gzip-compressed answers are asked for; on by default. */
    void setAcceptGzip(bool value) { m_acceptGzip = value; }

    /** Sent with every request from now on; "Connection: close" keeps the connection out of the
     * pool. */
    void addRequestHeader(std::string name, std::string value);
    /** Sent with every request from now on, with "Content-Type" and "Content-Length". */
    void setRequestBody(std::string body, std::string contentType);

    /**
     * Starts an exchange, from any thread. The handler runs on the bound thread, never inside
     * this call. Must not be called while an exchange is running.
     */
    void doRequest(std::string method, const kest::utils::Url& url, Handler handler);
    void doGet(const kest::utils::Url& url, Handler handler)
    {
        doRequest("GET", url, std::move(handler));
    }

    /** Must be called while no exchange is running. */
    void bindToAioThread(aio::AbstractAioThread* aioThread) override;

protected:
    void stopWhileInAioThread() override;

private:
    struct Exchange;

    std::chrono::milliseconds m_sendTimeout = kDefaultSendTimeout;
    std::chrono::milliseconds m_responseTimeout = kDefaultResponseReadTimeout;
    std::chrono::milliseconds m_bodyTimeout = kDefaultMessageBodyReadTimeout;
    std::size_t m_maxBodySize = kDefaultMaxResponseBodySize;
    bool m_reuseConnections = true;
    bool m_acceptGzip = true;
    Credentials m_credentials;
    std::shared_ptr<ssl::ClientContext> m_tlsContext;
    ssl::CertificateCheck m_certificateCheck;
    HttpHeaders m_headers;
    std::string m_body;
    std::string m_contentType;
    /** Touched only on the bound thread. */
    std::shared_ptr<Exchange> m_exchange;
};

}  // namespace kest::network::http::client
