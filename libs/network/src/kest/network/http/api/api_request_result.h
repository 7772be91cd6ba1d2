#pragma once

#include <map>
#include <string>

#include <kest/network/http/status_code.h>

namespace kest::network::http {

enum class ApiRequestErrorClass : int
{
    noError = 0,
    badRequest = 1,
    unauthorized = 2,
    logicError = 3,
    notFound = 4,
    ioError = 5,
    internalError = 6,
};

enum class ApiRequestErrorDetail : int
{
    ok = 0,
    responseSerializationError = 1,
    deserializationError = 2,
    notAcceptable = 3,
};

std::string toString(ApiRequestErrorClass value);
std::string toString(ApiRequestErrorDetail value);

/**
 * The outcome of an API request, sent as the uniform error body: "errorClass", "resultCode",
 * "errorText" and "errorDetail", all as text. A default-constructed result means success.
 */
class ApiRequestResult
{
public:
    static constexpr const char* kErrorClass = "errorClass";
    static constexpr const char* kResultCode = "resultCode";
    static constexpr const char* kErrorText = "errorText";
    static constexpr const char* kErrorDetail = "errorDetail";

    ApiRequestResult();
    ApiRequestResult(ApiRequestErrorClass errorClass, std::string resultCode, std::string errorText,
                     ApiRequestErrorDetail errorDetail = ApiRequestErrorDetail::ok);

    ApiRequestErrorClass errorClass() const;
    ApiRequestErrorDetail errorDetail() const;
    std::string resultCode() const { return field(kResultCode); }
    std::string errorText() const { return field(kErrorText); }

    void setErrorClass(ApiRequestErrorClass value);
    void setErrorDetail(ApiRequestErrorDetail value);
    void setResultCode(std::string value) { m_fields[kResultCode] = std::move(value); }
    void setErrorText(std::string value) { m_fields[kErrorText] = std::move(value); }

    bool isSuccess() const { return errorClass() == ApiRequestErrorClass::noError; }

    /** The HTTP status that answers this result. */
    StatusCode::Value calculateHttpStatusCode() const;

    /** The JSON error body: the four fields, in the order above, as JSON strings. */
    std::string toJson() const;
    /** Reads an error body; false when it is not a JSON object. Missing fields read as empty. */
    bool fromJson(std::string_view json);

    /** Any field, as text; empty when it is not set. */
    std::string field(const std::string& name) const;
    const std::map<std::string, std::string>& fields() const { return m_fields; }

    friend bool operator==(const ApiRequestResult&, const ApiRequestResult&) = default;

private:
    std::map<std::string, std::string> m_fields;
};

std::string toString(const ApiRequestResult& result);

}  // namespace kest::network::http
