#pragma once

#include <memory>
#include <string>

namespace kest::network::http::client {
class AsyncHttpClient;
}

namespace kest::bench {

/**
 * Blocking calls to one service through the network library's HTTP client, one at a time, its
 * connection kept alive between them. Answers come as the service sends them: no gzip is asked
 * for unless a header says so, and then the body is handed over still compressed.
 */
class HttpClient
{
public:
    /** `baseUrl` as "http://127.0.0.1:8080"; an https one trusts the CAs of `caFile`. */
    explicit HttpClient(std::string baseUrl, const std::string& caFile = {});
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    struct Reply
    {
        /** 0 when no answer came. */
        int status = 0;
        std::string body;
    };
    /** Sent with every request from now on. */
    void setHeader(std::string name, std::string value);

    Reply get(const std::string& target);
    Reply post(const std::string& target, std::string body,
               std::string contentType = "application/json");

private:
    Reply call(const char* method, const std::string& target);

    const std::string m_baseUrl;
    std::unique_ptr<kest::network::http::client::AsyncHttpClient> m_client;
};

}  // namespace kest::bench
