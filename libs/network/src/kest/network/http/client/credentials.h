#pragma once

#include <string>

namespace kest::network::http::client {

/**
 * Who the client is: a bearer token, sent as "Authorization: Bearer", or else a user name and
 * password for basic authentication. Empty ones send nothing.
 */
struct Credentials
{
    std::string username;
    std::string password;
    std::string bearerToken;

    bool empty() const { return username.empty() && password.empty() && bearerToken.empty(); }
};

}  // namespace kest::network::http::client
