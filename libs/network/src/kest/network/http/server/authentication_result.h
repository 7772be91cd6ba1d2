#pragma once

#include <string>

namespace kest::network::http::server {

/** What an authenticator decides of one request. */
struct AuthenticationResult
{
    enum class Verdict
    {
        /** Goes on to the next authenticator, then to the routes. */
        pass,
        /** No credentials, or unknown ones: 401 with a challenge. */
        unauthenticated,
        /** Known credentials that may not use the route: 403. */
        forbidden,
    };

    Verdict verdict = Verdict::pass;
    /** The WWW-Authenticate value of a 401. */
    std::string challenge = "Bearer";

    static AuthenticationResult pass() { return {}; }
    static AuthenticationResult unauthenticated() { return {Verdict::unauthenticated}; }
    static AuthenticationResult forbidden() { return {Verdict::forbidden}; }
};

}  // namespace kest::network::http::server
