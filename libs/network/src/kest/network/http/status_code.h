#pragma once

#include <string>

namespace kest::network::http {

/** An HTTP status code: the result of every request and every client call. */
struct StatusCode
{
    enum Value
    {
        undefined = 0,
        _continue = 100,
        switchingProtocols = 101,
        ok = 200,
        created = 201,
        accepted = 202,
        noContent = 204,
        partialContent = 206,
        multipleChoices = 300,
        movedPermanently = 301,
        found = 302,
        seeOther = 303,
        notModified = 304,
        temporaryRedirect = 307,
        permanentRedirect = 308,
        badRequest = 400,
        unauthorized = 401,
        paymentRequired = 402,
        forbidden = 403,
        notFound = 404,
        notAllowed = 405,
        notAcceptable = 406,
        proxyAuthenticationRequired = 407,
        requestTimeOut = 408,
        conflict = 409,
        gone = 410,
        lengthRequired = 411,
        preconditionFailed = 412,
        payloadTooLarge = 413,
        uriTooLong = 414,
        unsupportedMediaType = 415,
        rangeNotSatisfiable = 416,
        expectationFailed = 417,
        unprocessableEntity = 422,
        locked = 423,
        failedDependency = 424,
        upgradeRequired = 426,
        preconditionRequired = 428,
        tooManyRequests = 429,
        requestHeaderFieldsTooLarge = 431,
        internalServerError = 500,
        notImplemented = 501,
        badGateway = 502,
        serviceUnavailable = 503,
        gatewayTimeOut = 504,
        httpVersionNotSupported = 505,
    };

    /** The reason phrase, for example "Not Found"; "Unknown" for codes without one. */
    static std::string toString(Value value);
    static std::string toString(int value) { return toString(static_cast<Value>(value)); }

    static bool isSuccessCode(Value value) { return value >= 200 && value < 300; }
    static bool isSuccessCode(int value) { return value >= 200 && value < 300; }
};

}  // namespace kest::network::http
