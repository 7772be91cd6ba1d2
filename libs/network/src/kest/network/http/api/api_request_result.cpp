#include "api_request_result.h"

#include <charconv>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <kest/reflect/utf8.h>
#include <kest/utils/assert.h>
#include <kest/utils/to_text.h>

namespace kest::network::http {

namespace {

int toInt(const std::string& text, int defaultValue)
{
    int value = defaultValue;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return (error == std::errc() && end == text.data() + text.size()) ? value : defaultValue;
}

}  // namespace

std::string toString(ApiRequestErrorClass value)
{
    switch (value) {
        case ApiRequestErrorClass::noError:
            return "noError = 0";
        case ApiRequestErrorClass::badRequest:
            return "badRequest";
        case ApiRequestErrorClass::unauthorized:
            return "unauthorized";
        case ApiRequestErrorClass::logicError:
            return "logicError";
        case ApiRequestErrorClass::notFound:
            return "notFound";
        case ApiRequestErrorClass::ioError:
            return "ioError";
        case ApiRequestErrorClass::internalError:
            return "internalError";
    }
    return std::to_string(static_cast<int>(value));
}

std::string toString(ApiRequestErrorDetail value)
{
    switch (value) {
        case ApiRequestErrorDetail::ok:
            return "ok = 0";
        case ApiRequestErrorDetail::responseSerializationError:
            return "responseSerializationError";
        case ApiRequestErrorDetail::deserializationError:
            return "deserializationError";
        case ApiRequestErrorDetail::notAcceptable:
            return "notAcceptable";
    }
    return std::to_string(static_cast<int>(value));
}

ApiRequestResult::ApiRequestResult()
    : ApiRequestResult(ApiRequestErrorClass::noError, {}, {}, ApiRequestErrorDetail::ok)
{}

ApiRequestResult::ApiRequestResult(ApiRequestErrorClass errorClass, std::string resultCode,
                                   std::string errorText, ApiRequestErrorDetail errorDetail)
{
    setErrorClass(errorClass);
    setResultCode(std::move(resultCode));
    setErrorText(std::move(errorText));
    setErrorDetail(errorDetail);
}

ApiRequestErrorClass ApiRequestResult::errorClass() const
{
    return static_cast<ApiRequestErrorClass>(toInt(field(kErrorClass), 0));
}

ApiRequestErrorDetail ApiRequestResult::errorDetail() const
{
    return static_cast<ApiRequestErrorDetail>(toInt(field(kErrorDetail), 0));
}

void ApiRequestResult::setErrorClass(ApiRequestErrorClass value)
{
    m_fields[kErrorClass] = std::to_string(static_cast<int>(value));
}

void ApiRequestResult::setErrorDetail(ApiRequestErrorDetail value)
{
    m_fields[kErrorDetail] = std::to_string(static_cast<int>(value));
}

StatusCode::Value ApiRequestResult::calculateHttpStatusCode() const
{
    switch (errorClass()) {
        case ApiRequestErrorClass::noError:
            return StatusCode::ok;
        case ApiRequestErrorClass::badRequest:
            return errorDetail() == ApiRequestErrorDetail::notAcceptable ? StatusCode::notAcceptable
                                                                         : StatusCode::badRequest;
        case ApiRequestErrorClass::unauthorized:
            // Deliberately not 401: there is no authentication challenge to answer.
            return StatusCode::forbidden;
        case ApiRequestErrorClass::logicError:
        case ApiRequestErrorClass::notFound:
            return StatusCode::notFound;
        case ApiRequestErrorClass::ioError:
            return StatusCode::serviceUnavailable;
        case ApiRequestErrorClass::internalError:
            return StatusCode::internalServerError;
    }
    KEST_ASSERT(false, kest::utils::format("Unknown error class %1", field(kErrorClass)));
    return StatusCode::internalServerError;
}

std::string ApiRequestResult::toJson() const
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    for (const char* name : {kErrorClass, kResultCode, kErrorText, kErrorDetail}) {
        // Error texts may quote what a client sent, which need not be well-formed UTF-8.
        const std::string value = kest::reflect::utf8::toValid(field(name));
        writer.Key(name);
        writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
    }
    writer.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize());
}

bool ApiRequestResult::fromJson(std::string_view json)
{
    rapidjson::Document document;
    document.Parse(json.data(), json.size());
    if (document.HasParseError() || !document.IsObject())
        return false;
    m_fields.clear();
    for (const auto& member : document.GetObject()) {
        const std::string name(member.name.GetString(), member.name.GetStringLength());
        if (member.value.IsString()) {
            m_fields[name] = std::string(member.value.GetString(), member.value.GetStringLength());
        } else if (member.value.IsInt64()) {
            m_fields[name] = std::to_string(member.value.GetInt64());
        }
    }
    return true;
}

std::string ApiRequestResult::field(const std::string& name) const
{
    const auto it = m_fields.find(name);
    return it == m_fields.end() ? std::string() : it->second;
}

std::string toString(const ApiRequestResult& result)
{
    return kest::utils::format("(errorClass: %1, resultCode: %2, errorText: %3, errorDetail: %4)",
                               toString(result.errorClass()), result.resultCode(),
                               result.errorText(), toString(result.errorDetail()));
}

}  // namespace kest::network::http
