#pragma once

#include <QString>
#include <QUrlQuery>
#include <atomic>
#include <concepts>
#include <exception>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include <kest/network/http/abstract_request_handler.h>
#include <kest/reflect/deserialization_result.h>
#include <kest/reflect/json.h>
#include <kest/reflect/urlencoded.h>
#include <kest/utils/assert.h>
#include <kest/utils/log/log.h>
#include <kest/utils/move_only_func.h>
#include <kest/utils/to_text.h>

#include "abstract_api_request_handler.h"
#include "api_request_result.h"
#include "serialization_format.h"

namespace kest::network::http::detail {

/** Whether a record has its own URL-query reader, `bool loadFromUrlQuery(const QUrlQuery&, T*)`. */
template <typename T>
concept HasUrlQueryReader = requires(const QUrlQuery& query, T* record)
{
    {
        loadFromUrlQuery(query, record)
        } -> std::convertible_to<bool>;
};

/**
 * A record's URL-query reader that says what is wrong:
 * `bool loadFromUrlQuery(const QUrlQuery&, T*, std::string* error)`, the error naming the item
 * and what it expects ("deviceIds: 'camera-1' is not a UUID"). Preferred to the plain reader.
 */
template <typename T>
concept HasDetailedUrlQueryReader = requires(const QUrlQuery& query, T* record, std::string* error)
{
    {
        loadFromUrlQuery(query, record, error)
        } -> std::convertible_to<bool>;
};

/**
 * "name: The text is not valid UTF-8" for the first item of a once-decoded URL query whose name
 * or value is not well-formed UTF-8, decoded once more as the readers decode it; empty when
 * there is none. Qt would otherwise turn such bytes into U+FFFD unseen.
 */
std::string invalidUtf8InUrlQuery(std::string_view decodedQuery);

/**
 * Reads a record with its own URL-query reader from a query string as received: decoded once,
 * checked for ill-formed UTF-8, split into items. Failures are "Invalid URL query", followed by
 * what the reader says is wrong, if it says it.
 */
template <typename T>
requires HasUrlQueryReader<T> || HasDetailedUrlQueryReader<T> kest::reflect::DeserializationResult
readUrlQuery(std::string_view text, T* record)
{
    using kest::reflect::DeserializationResult;
    static constexpr std::string_view kInvalid = "Invalid URL query";
    const std::string decoded = Request::percentDecode(text);
    if (std::string problem = invalidUtf8InUrlQuery(decoded); !problem.empty())
        return DeserializationResult::failure(std::string(kInvalid) + ": " + problem);
    const QUrlQuery query(QString::fromStdString(decoded));
    if constexpr (HasDetailedUrlQueryReader<T>) {
        std::string problem;
        if (!loadFromUrlQuery(query, record, &problem)) {
            return DeserializationResult::failure(
                problem.empty() ? std::string(kInvalid) : std::string(kInvalid) + ": " + problem);
        }
    } else if (!loadFromUrlQuery(query, record)) {
        return DeserializationResult::failure(std::string(kInvalid));
    }
    return {};
}

/** Whether requests of this method carry their input in the body rather than in the query. */
bool methodAllowsRequestBody(std::string_view method);
/** Whether responses to this method carry a body (not so for HEAD). */
bool methodAllowsResponseBody(std::string_view method);

/**
 * The API request frame: negotiates the formats, decodes the request into `Input`, hands it to
 * the controller and turns the controller's one completion into the HTTP response. Controllers
 * may complete on any thread; after the completion the server may destroy the handler.
 */
template <typename Input, typename Base = AbstractApiRequestHandler<Input>>
class BaseApiRequestHandler : public Base
{
public:
    using Base::processRequest;

    void processRequest(RequestContext requestContext,
                        kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler) final
    {
        m_completionHandler = std::move(completionHandler);
        m_requestPath = requestContext.request.path;
        m_method = requestContext.request.method;

        ApiRequestResult error;
        Input input{};
        const Request& request = requestContext.request;
        if (!getOutputFormat(request, &error) || !getInputFormat(request, &error) ||
            !parseInput(request, &input, &error)) {
            KEST_VERBOSE(this, "Rejecting request %1 %2: %3", m_method, m_requestPath,
                         error.errorText());
            requestCompleted(std::move(error));
            return;
        }

        try {
            this->processRequest(std::move(requestContext), std::move(input));
        } catch (const std::exception& e) {
            // A controller is not supposed to throw; the client still gets its one answer.
            KEST_ERROR(this, "Unexpected exception while processing %1 %2: %3", m_method,
                       m_requestPath, e.what());
            if (!m_completed.load())
                requestCompleted(ApiRequestResult(ApiRequestErrorClass::internalError,
                                                  "internalError", e.what()));
        }
    }

    /**
     * The answer to input that cannot be read as a `T`, or that holds values no `T` can have:
     * 400, "Error deserializing input of type T: " and the description.
     */
    template <typename T = Input>
    static ApiRequestResult inputError(std::string_view description)
    {
        return ApiRequestResult(ApiRequestErrorClass::badRequest, "deserializationError",
                                kest::utils::format("Error deserializing input of type %1: %2",
                                                    kest::reflect::typeName<T>(), description),
                                ApiRequestErrorDetail::deserializationError);
    }

    SerializationFormat inputFormat() const { return m_inputFormat; }
    const std::string& requestPath() const { return m_requestPath; }

protected:
    /** Completes without output; the status follows the result's error class. */
    void requestCompleted(ApiRequestResult result)
    {
        const auto status = result.calculateHttpStatusCode();
        requestCompleted(status, std::move(result));
    }

    /** Completes with `output`, written in the negotiated format when the result is a success. */
    template <typename Output>
    void requestCompleted(ApiRequestResult result, const Output& output)
    {
        const auto status = result.calculateHttpStatusCode();
        requestCompleted(status, std::move(result), output);
    }

    /**
     * Completes with a status of the controller's choosing. A successful result then carries no
     * body: the status alone is the answer (for example 500 with nothing to explain).
     */
    void requestCompleted(StatusCode::Value status, ApiRequestResult result)
    {
        if (result.isSuccess())
            return sendResponse(RequestResult(status));
        sendResponse(
            RequestResult(status, result.toJson(), contentTypeOf(SerializationFormat::json)));
    }

    /**
     * Completes with a body the controller wrote in a form of its own (a picture, a page), which
     * the "format" of the request does not apply to.
     */
    void requestCompletedWithBody(StatusCode::Value status, std::string body,
                                  std::string contentType)
    {
        sendResponse(RequestResult(status, std::move(body), std::move(contentType)));
    }

    template <typename Output>
    void requestCompleted(StatusCode::Value status, ApiRequestResult result, const Output& output)
    {
        if (!result.isSuccess())
            return requestCompleted(status, std::move(result));

        std::optional<std::string> body = serializeOutput(output);
        if (!body) {
            return requestCompleted(ApiRequestResult(
                ApiRequestErrorClass::internalError, "responseSerializationError",
                kest::utils::format("Cannot write output of type %1 as %2",
                                    kest::reflect::typeName<Output>(), toString(m_outputFormat)),
                ApiRequestErrorDetail::responseSerializationError));
        }
        sendResponse(RequestResult(status, std::move(*body), contentTypeOf(m_outputFormat)));
    }

    /** The "format" query parameter; json when absent. */
    bool getOutputFormat(const Request& request, ApiRequestResult* error)
    {
        const QUrlQuery query(QString::fromStdString(request.query));
        if (!query.hasQueryItem("format")) {
            m_outputFormat = SerializationFormat::json;
            return true;
        }
        const std::string name = query.queryItemValue("format", QUrl::FullyDecoded).toStdString();
        const auto format = serializationFormatFromString(name);
        if (!format || !isSupportedApiFormat(*format)) {
            *error = ApiRequestResult(ApiRequestErrorClass::badRequest, "notAcceptable",
                                      kest::utils::format("Output format %1 not supported", name),
                                      ApiRequestErrorDetail::notAcceptable);
            return false;
        }
        m_outputFormat = *format;
        return true;
    }

    /**
     * The "Content-Type" of the request. A request without a body (GET) carries its input in the
     * URL query: without a Content-Type the record's own query reader reads it (form 6); with one,
     * the query string is the input text in that format (JSON percent-decoded first).
     */
    bool getInputFormat(const Request& request, ApiRequestResult* error)
    {
        const auto contentType = request.header("Content-Type");
        if (!contentType && !methodAllowsRequestBody(request.method)) {
            m_inputFormat = SerializationFormat::urlQuery;
            return true;
        }

        const auto format =
            contentType ? serializationFormatFromContentType(*contentType) : std::nullopt;
        m_inputFormat = format.value_or(SerializationFormat::unknown);
        if (!isSupportedApiFormat(m_inputFormat)) {
            *error = ApiRequestResult(ApiRequestErrorClass::badRequest, "notAcceptable",
                                      kest::utils::format("Input format %1 not supported",
                                                          contentType ? std::string(*contentType)
                                                                      : toString(m_inputFormat)),
                                      ApiRequestErrorDetail::notAcceptable);
            return false;
        }
        return true;
    }

    template <typename T>
    bool parseInput(const Request& request, T* input, ApiRequestResult* error)
    {
        const bool fromBody = methodAllowsRequestBody(request.method);
        kest::reflect::DeserializationResult result;
        try {
            if (fromBody)
                result = deserialize(request.body, input);
            else if (m_inputFormat == SerializationFormat::json)
                result = deserialize(Request::percentDecode(request.query), input);
            else
                result = deserialize(request.query, input);
        } catch (const std::exception& e) {
            result = kest::reflect::DeserializationResult::failure(e.what());
        }
        if (result.success)
            return true;

        *error = inputError<T>(result.errorDescription);
        return false;
    }

private:
    template <typename T>
    kest::reflect::DeserializationResult deserialize(const std::string& text, T* input) const
    {
        switch (m_inputFormat) {
            case SerializationFormat::json:
                return kest::reflect::json::deserialize(text, input);
            case SerializationFormat::urlQuery:
                if constexpr (HasUrlQueryReader<T> || HasDetailedUrlQueryReader<T>)
                    return readUrlQuery(text, input);
                [[fallthrough]];
            case SerializationFormat::urlencoded:
                return kest::reflect::urlencoded::deserialize(text, input);
            default:
                break;
        }
        return kest::reflect::DeserializationResult::failure(
            kest::utils::format("Input format %1 not supported", toString(m_inputFormat)));
    }

    template <typename Output>
    std::optional<std::string> serializeOutput(const Output& output) const
    {
        switch (m_outputFormat) {
            case SerializationFormat::json:
                return kest::reflect::json::serialize(output);
            case SerializationFormat::urlQuery:
            case SerializationFormat::urlencoded:
                return kest::reflect::urlencoded::serialize(output);
            default:
                break;
        }
        return std::nullopt;
    }

    void sendResponse(RequestResult response)
    {
        if (m_completed.exchange(true)) {
            KEST_ASSERT(false, kest::utils::format("Request %1 %2 completed more than once",
                                                   m_method, m_requestPath));
            return;
        }
        if (!methodAllowsResponseBody(m_method)) {
            response.body.clear();
            response.contentType.clear();
        }
        KEST_VERBOSE(this, "Request %1 %2 completed with %3", m_method, m_requestPath,
                     static_cast<int>(response.statusCode));
        // The server may destroy this handler as soon as the handler below has run.
        auto completionHandler = std::move(m_completionHandler);
        completionHandler(std::move(response));
    }

    kest::utils::MoveOnlyFunc<void(RequestResult)> m_completionHandler;
    std::string m_requestPath;
    std::string m_method;
    SerializationFormat m_inputFormat = SerializationFormat::unknown;
    SerializationFormat m_outputFormat = SerializationFormat::json;
    std::atomic<bool> m_completed{false};
};

}  // namespace kest::network::http::detail
