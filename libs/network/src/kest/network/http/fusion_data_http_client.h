#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

#include <rapidjson/document.h>

#include <kest/network/aio/basic_pollable.h>
#include <kest/network/http/api/api_request_result.h>
#include <kest/network/http/api/serialization_format.h>
#include <kest/network/http/client/async_http_client.h>
#include <kest/network/ssl/certificate_check.h>
#include <kest/reflect/json.h>
#include <kest/utils/log/log.h>
#include <kest/utils/move_only_func.h>
#include <kest/utils/url.h>

namespace kest::network::http {

namespace detail {

template <typename Output>
struct FusionDataHandler
{
    using type =
        kest::utils::MoveOnlyFunc<void(std::error_code, std::unique_ptr<client::Response>, Output)>;
};

template <>
struct FusionDataHandler<void>
{
    using type =
        kest::utils::MoveOnlyFunc<void(std::error_code, std::unique_ptr<client::Response>)>;
};

/**
 * Reads a JSON answer into `output`, which is left untouched on failure. Unlike a request body,
 * an answer may be a bare JSON value: a call whose output is one string gets "\"host:port\"".
 */
template <typename Output>
bool decodeJsonOutput(std::string_view body, Output* output, std::string* errorText)
{
    rapidjson::Document document;
    document.Parse<kest::reflect::json::kParseFlags>(body.data(), body.size());
    if (document.HasParseError()) {
        *errorText = "not JSON";
        return false;
    }
    const auto result = kest::reflect::json::deserializeValue(document, output);
    if (!result)
        *errorText = result.errorDescription;
    return result.success;
}

/** Logs why an exchange did not succeed, with the service's error text when it sent one. */
inline void logFailedExchange(const kest::utils::log::Tag& tag, const std::string& method,
                              const std::string& url, std::error_code error,
                              const client::Response* response)
{
    if (!response) {
        KEST_DEBUG(tag, "%1 %2 got no response: %3", method, url, error.message());
        return;
    }
    ApiRequestResult result;
    if (!response->body.empty() && result.fromJson(response->body)) {
        KEST_DEBUG(tag, "%1 %2 answered %3: %4 (%5)", method, url,
                   static_cast<int>(response->statusCode), result.errorText(), result.resultCode());
    } else {
        KEST_DEBUG(tag, "%1 %2 answered %3", method, url, static_cast<int>(response->statusCode));
    }
}

}  // namespace detail

/**
 * One HTTP exchange of an API call: the request record, when there is one, travels as the JSON
 * body, and a successful (2xx) answer's JSON body is decoded into `Output`. Any other answer, or
 * a body that does not decode, gives a default-constructed `Output`. `Input` and `Output` may be
 * void.
 */
template <typename Input, typename Output>
class FusionDataHttpClient : public aio::BasicPollable
{
public:
    /** (system error, response or null, decoded output); no output argument when void. */
    using Handler = typename detail::FusionDataHandler<Output>::type;

    /** Serialises `input` to the body now. */
    template <typename T = Input>
    requires(!std::is_void_v<T>)
        FusionDataHttpClient(kest::utils::Url url, client::Credentials credentials,
                             ssl::CertificateCheck certificateCheck, const T& input,
                             aio::AbstractAioThread* aioThread = nullptr)
        : FusionDataHttpClient(Construct{}, std::move(url), std::move(credentials),
                               std::move(certificateCheck), aioThread)
    {
        m_httpClient.setRequestBody(kest::reflect::json::serialize(input),
                                    contentTypeOf(SerializationFormat::json));
    }

    template <typename T = Input>
    requires std::is_void_v<T> FusionDataHttpClient(kest::utils::Url url,
                                                    client::Credentials credentials,
                                                    ssl::CertificateCheck certificateCheck,
                                                    aio::AbstractAioThread* aioThread = nullptr)
        : FusionDataHttpClient(Construct{}, std::move(url), std::move(credentials),
                               std::move(certificateCheck), aioThread)
    {}

    ~FusionDataHttpClient() override { pleaseStopSync(); }

    void setSendTimeout(std::chrono::milliseconds value) { m_httpClient.setSendTimeout(value); }
    void setResponseReadTimeout(std::chrono::milliseconds value)
    {
        m_httpClient.setResponseReadTimeout(value);
    }
    void setMessageBodyReadTimeout(std::chrono::milliseconds value)
    {
        m_httpClient.setMessageBodyReadTimeout(value);
    }
    void setTlsContext(std::shared_ptr<ssl::ClientContext> context)
    {
        m_httpClient.setTlsContext(std::move(context));
    }

    const kest::utils::Url& url() const { return m_url; }

    /** From any thread; the handler runs on the bound thread and may destroy this client. */
    void doRequest(std::string method, Handler handler)
    {
        m_httpClient.doRequest(
            method, m_url,
            [self = this, method, url = m_url.toString(), handler = std::move(handler)](
                std::error_code error, std::unique_ptr<client::Response> response) mutable {
                const bool success =
                    !error && response && StatusCode::isSuccessCode(response->statusCode);
                if (!success)
                    detail::logFailedExchange(self, method, url, error, response.get());
                if constexpr (std::is_void_v<Output>) {
                    handler(error, std::move(response));
                } else {
                    Output output{};
                    std::string decodeError;
                    if (success &&
                        !detail::decodeJsonOutput(response->body, &output, &decodeError)) {
                        KEST_DEBUG(self, "%1 %2: cannot read the answer as %3: %4", method, url,
                                   kest::reflect::typeName<Output>(), decodeError);
                    }
                    handler(error, std::move(response), std::move(output));
                }
            });
    }

    void bindToAioThread(aio::AbstractAioThread* aioThread) override
    {
        BasicPollable::bindToAioThread(aioThread);
        m_httpClient.bindToAioThread(aioThread);
    }

protected:
    void stopWhileInAioThread() override { m_httpClient.pleaseStopSync(); }

private:
    struct Construct
    {};

    FusionDataHttpClient(Construct, kest::utils::Url url, client::Credentials credentials,
                         ssl::CertificateCheck certificateCheck, aio::AbstractAioThread* aioThread)
        : BasicPollable(aioThread), m_url(std::move(url)), m_httpClient(getAioThread())
    {
        m_httpClient.setCredentials(std::move(credentials));
        m_httpClient.setCertificateCheck(std::move(certificateCheck));
    }

    kest::utils::Url m_url;
    client::AsyncHttpClient m_httpClient;
};

}  // namespace kest::network::http
