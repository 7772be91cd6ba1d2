#pragma once

#include <QUrlQuery>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <kest/network/aio/basic_pollable.h>
#include <kest/network/http/fusion_data_http_client.h>
#include <kest/network/http/status_code.h>
#include <kest/network/ssl/certificate_check.h>
#include <kest/network/ssl/client_context.h>
#include <kest/utils/assert.h>
#include <kest/utils/move_only_func.h>
#include <kest/utils/mutex.h>
#include <kest/utils/url.h>

namespace kest::network::http {

namespace detail {

/** What a call needs to be repeated: everything but the attempt number and the handler. */
template <typename Input>
struct ApiCall
{
    std::string method;
    std::string requestPath;
    QUrlQuery urlQuery;
    Input input;
};

template <>
struct ApiCall<void>
{
    std::string method;
    std::string requestPath;
    QUrlQuery urlQuery;
};

template <typename ResultCode, typename Output>
struct ApiCallTypes
{
    using Handler = kest::utils::MoveOnlyFunc<void(ResultCode, Output)>;
    using SyncResult = std::tuple<ResultCode, Output>;
};

template <typename ResultCode>
struct ApiCallTypes<ResultCode, void>
{
    using Handler = kest::utils::MoveOnlyFunc<void(ResultCode)>;
    using SyncResult = std::tuple<ResultCode>;
};

}  // namespace detail

/** How one HTTP exchange of an API call ended, in more detail than its result code. */
struct ApiExchangeReport
{
    std::string method;
    std::string url;
    /** Why no answer came (refused, timed out, a TLS failure); none when one came. */
    std::error_code error;
    /** The answer's status; undefined when none came. */
    StatusCode::Value status = StatusCode::undefined;
    /** The "errorText" of the service's error body, when it sent one. */
    std::string errorText;
};

/**
 * The frame of a typed API client: one call (method, path, URL query, optional input record)
 * becomes an HTTP exchange with the service at the base URL, whose JSON answer is decoded into
 * the call's output. The caller gets the result code of `ResultCodeDescriptor` (by default the
 * HTTP status, 500 when nothing was received) and the output, empty unless the answer was 2xx
 * and decoded. A call may be repeated while the retry predicate refuses its status, up to the
 * attempt limit; by default every call is made once.
 *
 * Handlers run on the client's I/O thread. Stopping the client cancels every call in flight, and
 * none of their handlers runs afterwards. A client with calls in flight must be stopped before it
 * is destroyed, from another thread or from its own; the destructor stops it too.
 *
 * Every exchange carries the client's credentials and, for https, uses its TLS context and
 * certificate check. An exchange observer, when set, learns how each exchange ended (for example
 * "connection refused"), which the result code alone does not tell.
 *
 * URL queries are put on the wire in QUrlQuery's fully encoded form. The service decodes a query
 * once before splitting it, so records that hold "%&=+#;" in text values escape those twice in
 * their own query writer; the frame adds no escaping of its own.
 */
template <typename ResultCodeDescriptor>
class GenericApiClient : public aio::BasicPollable
{
public:
    using ResultCode = typename ResultCodeDescriptor::ResultCode;
    template <typename Output>
    using Handler = typename detail::ApiCallTypes<ResultCode, Output>::Handler;
    template <typename Output>
    using SyncResult = typename detail::ApiCallTypes<ResultCode, Output>::SyncResult;
    /** True when the status of an attempt is final, false to make another attempt. */
    using RetryPredicate = kest::utils::MoveOnlyFunc<bool(StatusCode::Value)>;
    /** Called on the I/O thread once per exchange, before the call's handler. */
    using ExchangeObserver = std::function<void(const ApiExchangeReport&)>;

    explicit GenericApiClient(
        kest::utils::Url baseApiUrl,
        ssl::CertificateCheck certificateCheck = ssl::kDefaultCertificateCheck,
        aio::AbstractAioThread* aioThread = nullptr)
        : BasicPollable(aioThread),
          m_baseApiUrl(std::move(baseApiUrl)),
          m_certificateCheck(std::move(certificateCheck))
    {}

    ~GenericApiClient() override { pleaseStopSync(); }

    const kest::utils::Url& baseApiUrl() const { return m_baseApiUrl; }

    // The settings apply to calls started from then on.

    /** Applied as send, response-read and body-read timeout of each exchange; unset keeps the HTTP
     * client's defaults. */
    void setRequestTimeout(std::optional<std::chrono::milliseconds> timeout)
    {
        std::lock_guard lock(m_mutex);
        m_requestTimeout = timeout;
    }
    /** The highest attempt number that may be made; 1 (the default) makes every call once. */
    void setAttemptLimit(std::uint32_t limit)
    {
        std::lock_guard lock(m_mutex);
        m_attemptLimit = limit;
    }
    /** Called on the I/O thread under the client's lock: it must not call the client. */
    void setRetryPredicate(std::optional<RetryPredicate> predicate)
    {
        std::lock_guard lock(m_mutex);
        m_retryPredicate = std::move(predicate);
    }
    /** Sent with every request: a bearer token, or a user name and password. */
    void setCredentials(client::Credentials credentials)
    {
        std::lock_guard lock(m_mutex);
        m_credentials = std::move(credentials);
    }
    /** The CAs trusted and the certificate presented over https; the system's CAs by default. */
    void setTlsContext(std::shared_ptr<ssl::ClientContext> context)
    {
        std::lock_guard lock(m_mutex);
        m_tlsContext = std::move(context);
    }
    void setExchangeObserver(ExchangeObserver observer)
    {
        std::lock_guard lock(m_mutex);
        m_exchangeObserver = std::move(observer);
    }

    /** Rebinds the client and every call in flight; see BasicPollable::bindToAioThread. */
    void bindToAioThread(aio::AbstractAioThread* aioThread) override
    {
        BasicPollable::bindToAioThread(aioThread);
        std::vector<std::shared_ptr<aio::BasicPollable>> active;
        {
            std::lock_guard lock(m_mutex);
            for (const auto& [key, request] : m_activeRequests)
                active.push_back(request);
        }
        // Outside the lock: rebinding waits for the old thread, which may be completing a call.
        for (const auto& request : active)
            request->bindToAioThread(aioThread);
    }

    /**
     * Makes the HTTP client of one exchange, bound to this client's thread and registered as
     * active, so that stopping this client cancels it.
     */
    template <typename Output, typename Input>
    std::shared_ptr<FusionDataHttpClient<Input, Output>> createHttpClient(
        const kest::utils::Url& url, Input input)
    {
        return registerHttpClient(std::make_shared<FusionDataHttpClient<Input, Output>>(
            url, credentials(), m_certificateCheck, input, getAioThread()));
    }

    template <typename Output>
    std::shared_ptr<FusionDataHttpClient<void, Output>> createHttpClient(
        const kest::utils::Url& url)
    {
        return registerHttpClient(std::make_shared<FusionDataHttpClient<void, Output>>(
            url, credentials(), m_certificateCheck, getAioThread()));
    }

    /** From any thread; callers start with attempt number 1. */
    template <typename Output, typename Input>
    void makeAsyncCallWithRetries(std::string method, std::string requestPath, QUrlQuery urlQuery,
                                  Input input, std::uint32_t attemptNumber, Handler<Output> handler)
    {
        makeCall<Output, Input>(detail::ApiCall<Input>{std::move(method), std::move(requestPath),
                                                       std::move(urlQuery), std::move(input)},
                                attemptNumber, std::move(handler));
    }

    template <typename Output>
    void makeAsyncCallWithRetries(std::string method, std::string requestPath, QUrlQuery urlQuery,
                                  std::uint32_t attemptNumber, Handler<Output> handler)
    {
        makeCall<Output, void>(
            detail::ApiCall<void>{std::move(method), std::move(requestPath), std::move(urlQuery)},
            attemptNumber, std::move(handler));
    }

    /**
     * Blocks until the call completes. Must not be called on this client's I/O thread, which runs
     * the completion. A call cancelled by stopping the client, or left behind by a stopped thread,
     * gives the result of no response (500).
     */
    template <typename Output, typename Input>
    SyncResult<Output> makeSyncCallInternal(std::string method, std::string requestPath,
                                            QUrlQuery urlQuery, Input input)
    {
        return waitFor<Output>([&](Handler<Output> handler) {
            makeAsyncCallWithRetries<Output, Input>(std::move(method), std::move(requestPath),
                                                    std::move(urlQuery), std::move(input), 1,
                                                    std::move(handler));
        });
    }

    template <typename Output>
    SyncResult<Output> makeSyncCallInternal(std::string method, std::string requestPath,
                                            QUrlQuery urlQuery)
    {
        return waitFor<Output>([&](Handler<Output> handler) {
            makeAsyncCallWithRetries<Output>(std::move(method), std::move(requestPath),
                                             std::move(urlQuery), 1, std::move(handler));
        });
    }

protected:
    /** Stops and drops every HTTP client in flight; their calls' handlers are dropped uncalled. */
    void stopWhileInAioThread() override
    {
        std::map<aio::BasicPollable*, std::shared_ptr<aio::BasicPollable>> active;
        {
            std::lock_guard lock(m_mutex);
            active.swap(m_activeRequests);
        }
        for (const auto& [key, request] : active)
            request->pleaseStopSync();
    }

private:
    static constexpr std::chrono::milliseconds kStopCheckPeriod{10};

    client::Credentials credentials()
    {
        std::lock_guard lock(m_mutex);
        return m_credentials;
    }

    template <typename Client>
    std::shared_ptr<Client> registerHttpClient(std::shared_ptr<Client> client)
    {
        std::lock_guard lock(m_mutex);
        if (m_tlsContext)
            client->setTlsContext(m_tlsContext);
        if (m_requestTimeout) {
            client->setSendTimeout(*m_requestTimeout);
            client->setResponseReadTimeout(*m_requestTimeout);
            client->setMessageBodyReadTimeout(*m_requestTimeout);
        }
        m_activeRequests.emplace(client.get(), client);
        return client;
    }

    /** Takes a finished exchange's client out of the map; the caller destroys it. */
    std::shared_ptr<aio::BasicPollable> takeActiveRequest(aio::BasicPollable* key)
    {
        std::lock_guard lock(m_mutex);
        auto node = m_activeRequests.extract(key);
        return node ? std::move(node.mapped()) : nullptr;
    }

    bool mayRepeat(std::uint32_t attemptNumber)
    {
        std::lock_guard lock(m_mutex);
        return m_retryPredicate && m_attemptLimit > attemptNumber;
    }

    bool shouldRepeat(StatusCode::Value status, std::uint32_t attemptNumber)
    {
        std::lock_guard lock(m_mutex);
        return m_retryPredicate && m_attemptLimit > attemptNumber && !(*m_retryPredicate)(status);
    }

    void reportExchange(const std::string& method, const kest::utils::Url& url,
                        std::error_code error, const client::Response* response)
    {
        ExchangeObserver observer;
        {
            std::lock_guard lock(m_mutex);
            observer = m_exchangeObserver;
        }
        if (!observer)
            return;
        ApiExchangeReport report;
        report.method = method;
        report.url = url.toString();
        if (!response)
            report.error = error;
        if (response) {
            report.status = response->statusCode;
            ApiRequestResult result;
            if (!StatusCode::isSuccessCode(response->statusCode) && !response->body.empty() &&
                result.fromJson(response->body)) {
                report.errorText = result.errorText();
            }
        }
        observer(report);
    }

    kest::utils::Url requestUrl(const std::string& requestPath, const QUrlQuery& urlQuery) const
    {
        kest::utils::Url url = m_baseApiUrl;
        url.appendPath(requestPath);
        url.setEncodedQuery(urlQuery.toString(QUrl::FullyEncoded).toStdString());
        return url;
    }

    template <typename Output, typename Input>
    void makeCall(detail::ApiCall<Input> call, std::uint32_t attemptNumber, Handler<Output> handler)
    {
        const kest::utils::Url url = requestUrl(call.requestPath, call.urlQuery);

        // Only a call that may be repeated keeps a copy of its input.
        std::optional<detail::ApiCall<Input>> repeat;
        std::shared_ptr<FusionDataHttpClient<Input, Output>> httpClient;
        if (mayRepeat(attemptNumber))
            repeat = call;
        if constexpr (std::is_void_v<Input>)
            httpClient = createHttpClient<Output>(url);
        else
            httpClient = createHttpClient<Output, Input>(url, std::move(call.input));

        auto onDone = [this, key = static_cast<aio::BasicPollable*>(httpClient.get()), url,
                       method = call.method, repeat = std::move(repeat), attemptNumber,
                       handler = std::move(handler)](std::error_code error,
                                                     std::unique_ptr<client::Response> response,
                                                     auto... output) mutable {
            // Destroys the finished client, whose handler this is; it allows that.
            takeActiveRequest(key);
            reportExchange(method, url, error, response.get());
            const StatusCode::Value status =
                response ? response->statusCode : StatusCode::internalServerError;
            if (repeat && shouldRepeat(status, attemptNumber)) {
                return makeCall<Output, Input>(std::move(*repeat), attemptNumber + 1,
                                               std::move(handler));
            }
            handler(ResultCodeDescriptor::getResultCode(error, response.get()),
                    std::move(output)...);
        };

        // Started on the I/O thread, where a stop cannot overtake it: a client that a stop
        // dropped in between is not started at all.
        dispatch([weakClient = std::weak_ptr(httpClient), method = std::move(call.method),
                  onDone = std::move(onDone)]() mutable {
            if (const auto httpClient = weakClient.lock())
                httpClient->doRequest(std::move(method), std::move(onDone));
        });
    }

    template <typename Output, typename Start>
    SyncResult<Output> waitFor(Start start)
    {
        const auto noResponse = [] {
            const ResultCode code = ResultCodeDescriptor::getResultCode(
                std::make_error_code(std::errc::operation_canceled), nullptr);
            if constexpr (std::is_void_v<Output>)
                return SyncResult<Output>{code};
            else
                return SyncResult<Output>{code, Output{}};
        };
        if (!KEST_ASSERT(!isInSelfAioThread(),
                         "A blocking API call on the client's own I/O thread would never end"))
            return noResponse();

        std::promise<SyncResult<Output>> promise;
        auto future = promise.get_future();
        if constexpr (std::is_void_v<Output>) {
            start([promise = std::move(promise)](ResultCode code) mutable {
                promise.set_value(SyncResult<Output>{code});
            });
        } else {
            start([promise = std::move(promise)](ResultCode code, Output output) mutable {
                promise.set_value(SyncResult<Output>{code, std::move(output)});
            });
        }
        // A stopped thread drops its queue silently, so the wait has to look now and then.
        while (future.wait_for(kStopCheckPeriod) != std::future_status::ready) {
            if (getAioThread()->isStopped())
                return noResponse();
        }
        try {
            return future.get();
        } catch (const std::future_error&) {
            return noResponse();  //< Cancelled by a stop: the handler was dropped uncalled.
        }
    }

    kest::utils::Url m_baseApiUrl;
    ssl::CertificateCheck m_certificateCheck;
    client::Credentials m_credentials;
    std::shared_ptr<ssl::ClientContext> m_tlsContext;
    ExchangeObserver m_exchangeObserver;
    /** The HTTP clients of the exchanges in flight, by their own address. */
    std::map<aio::BasicPollable*, std::shared_ptr<aio::BasicPollable>> m_activeRequests;
    kest::Mutex m_mutex;
    std::optional<std::chrono::milliseconds> m_requestTimeout;
    std::uint32_t m_attemptLimit = 1;
    std::optional<RetryPredicate> m_retryPredicate;
};

}  // namespace kest::network::http
