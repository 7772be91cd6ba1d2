#include "status_code.h"

namespace kest::network::http {

std::string StatusCode::toString(Value value)
{
    switch (value) {
        case undefined:
            return "Undefined";
        case _continue:
            return "Continue";
        case switchingProtocols:
            return "Switching Protocols";
        case ok:
            return "OK";
        case created:
            return "Created";
        case accepted:
            return "Accepted";
        case noContent:
            return "No Content";
        case partialContent:
            return "Partial Content";
        case multipleChoices:
            return "Multiple Choices";
        case movedPermanently:
            return "Moved Permanently";
        case found:
            return "Found";
        case seeOther:
            return "See Other";
        case notModified:
            return "Not Modified";
        case temporaryRedirect:
            return "Temporary Redirect";
        case permanentRedirect:
            return "Permanent Redirect";
        case badRequest:
            return "Bad Request";
        case unauthorized:
            return "Unauthorized";
        case paymentRequired:
            return "Payment Required";
        case forbidden:
            return "Forbidden";
        case notFound:
            return "Not Found";
        case notAllowed:
            return "Method Not Allowed";
        case notAcceptable:
            return "Not Acceptable";
        case proxyAuthenticationRequired:
            return "Proxy Authentication Required";
        case requestTimeOut:
            return "Request Timeout";
        case conflict:
            return "Conflict";
        case gone:
            return "Gone";
        case lengthRequired:
            return "Length Required";
        case preconditionFailed:
            return "Precondition Failed";
        case payloadTooLarge:
            return "Payload Too Large";
        case uriTooLong:
            return "URI Too Long";
        case unsupportedMediaType:
            return "Unsupported Media Type";
        case rangeNotSatisfiable:
            return "Range Not Satisfiable";
        case expectationFailed:
            return "Expectation Failed";
        case unprocessableEntity:
            return "Unprocessable Entity";
        case locked:
            return "Locked";
        case failedDependency:
            return "Failed Dependency";
        case upgradeRequired:
            return "Upgrade Required";
        case preconditionRequired:
            return "Precondition Required";
        case tooManyRequests:
            return "Too Many Requests";
        case requestHeaderFieldsTooLarge:
            return "Request Header Fields Too Large";
        case internalServerError:
            return "Internal Server Error";
        case notImplemented:
            return "Not Implemented";
        case badGateway:
            return "Bad Gateway";
        case serviceUnavailable:
            return "Service Unavailable";
        case gatewayTimeOut:
            return "Gateway Timeout";
        case httpVersionNotSupported:
            return "HTTP Version Not Supported";
    }
    return "Unknown";
}

}  // namespace kest::network::http
