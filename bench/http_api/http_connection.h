#pragma once

#include <cstdint>
#include <string>

namespace kest::bench {

/** One kept-alive HTTP/1.1 connection to a loopback port; one request at a time. */
class HttpConnection
{
public:
    explicit HttpConnection(std::uint16_t port);
    ~HttpConnection();
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;

    bool connected() const { return m_fd >= 0; }

    /**
     * Sends `request` (a whole HTTP request, head and body) and reads the answer's status and
     * body. Status 0 when the connection failed; it is then reopened for the next request.
     */
    int exchange(const std::string& request, std::string* body = nullptr);

private:
    bool connect();
    bool readSome();

    std::uint16_t m_port;
    int m_fd = -1;
    std::string m_buffer;
};

/** "GET target" with no body, or "POST target" with a JSON body, as raw HTTP text. */
std::string getRequest(const std::string& target);
std::string postJsonRequest(const std::string& target, const std::string& body);

}  // namespace kest::bench
