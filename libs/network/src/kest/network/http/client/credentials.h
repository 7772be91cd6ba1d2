#pragma once

#include <string>

namespace kest::network::http::client {

/** A user name and password for HTTP basic authentication; empty ones send nothing. */
struct Credentials
{
    std::string username;
    std::string password;

    bool empty() const { return username.empty() && password.empty(); }
};

}  // namespace kest::network::http::client
