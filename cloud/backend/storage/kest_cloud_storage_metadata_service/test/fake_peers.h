#pragma once

// Loopback sockets that play instances misbehaving at the TCP level, for distributed searches.

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace kest::cloud::storage::metadatadb::test {

/** A loopback socket listening on a port of its own. */
class ListeningSocket
{
public:
    ListeningSocket()
    {
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        ::listen(m_fd, 16);
        ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length);
        m_url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    }
    ~ListeningSocket() { ::close(m_fd); }
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;

    const std::string& url() const { return m_url; }
    int fd() const { return m_fd; }

private:
    int m_fd = -1;
    std::string m_url;
};

/** Takes connections and never reads from them: a peer that never answers. */
class SilentPeer : public ListeningSocket
{};

/**
 * Reads each request, sends the head of a 200 answer and the start of its body, then, after
 * `delay`, resets the connection: an instance that dies in the middle of its answer.
 */
class DyingPeer : public ListeningSocket
{
public:
    explicit DyingPeer(std::chrono::milliseconds delay) : m_delay(delay)
    {
        m_thread = std::thread([this]() { run(); });
    }
    ~DyingPeer()
    {
        m_stop = true;
        m_thread.join();
    }

    int answered() const { return m_answered.load(); }

private:
    void run()
    {
        while (!m_stop) {
            pollfd listening{fd(), POLLIN, 0};
            if (::poll(&listening, 1, 20) <= 0)
                continue;
            const int connection = ::accept(fd(), nullptr, nullptr);
            if (connection < 0)
                continue;
            std::string request;
            char buffer[4096];
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
            while (request.find("\r\n\r\n") == std::string::npos &&
                   std::chrono::steady_clock::now() < deadline) {
                pollfd readable{connection, POLLIN, 0};
                if (::poll(&readable, 1, 20) <= 0)
                    continue;
                const ssize_t n = ::recv(connection, buffer, sizeof(buffer), 0);
                if (n <= 0)
                    break;
                request.append(buffer, static_cast<std::size_t>(n));
            }
            const std::string partial =
                "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 4096\r\n\r\n"
                "[{\"id\":\"{0b6e3f0a-8d1c";
            ::send(connection, partial.data(), partial.size(), MSG_NOSIGNAL);
            ++m_answered;
            std::this_thread::sleep_for(m_delay);
            // Linger 0: the close sends a reset, as the kernel does for a killed process with
            // data left unread.
            const linger reset{1, 0};
            ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
            ::close(connection);
        }
    }

    std::chrono::milliseconds m_delay;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_answered{0};
    std::thread m_thread;
};

}  // namespace kest::cloud::storage::metadatadb::test
