#pragma once

// Loopback peers for the HTTP client tests: the project's own server with routes the tests steer,
// and a raw TCP peer that plays a script for answers the server would never give.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <kest/network/http/server/builder.h>
#include <kest/network/http/server/rest/message_dispatcher.h>
#include <kest/utils/url.h>

namespace kest::network::http::test {

using namespace std::chrono_literals;

/** Polls `condition` for up to `timeout`: generous, since a loaded machine slows what is awaited.
 */
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = 30s)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

/**
 * The project's HTTP server on 127.0.0.1, port 0. A request "/NAME/..." is answered by the
 * responder set for NAME; a responder that gives nothing parks the request until release or
 * destruction. Every request is recorded with the client's port, which tells connections apart.
 */
class TestServer
{
public:
    using Responder = std::function<std::optional<RequestResult>(const RequestContext&)>;

    struct Recorded
    {
        std::string path;
        std::string body;
        HttpHeaders headers;
        std::uint16_t clientPort = 0;
    };

    TestServer()
    {
        settings.endpoints = {SocketAddress{"127.0.0.1", 0}};
        settings.ioThreads = 1;
        settings.stopTimeout = 0ms;
        for (const char* pattern :
             {"/{name}", "/{name}/{a}", "/{name}/{a}/{b}", "/{name}/{a}/{b}/{c}"})
            dispatcher.registerRequestProcessor(pattern, [this]() { return makeHandler(); });
    }

    ~TestServer()
    {
        releaseParked();
        if (m_server)
            m_server->stop();
    }

    /** Binds and listens with `settings` and the routes registered so far. */
    void start()
    {
        m_server = server::Builder::buildOrThrow(settings, nullptr, &dispatcher);
        ASSERT_TRUE(m_server->bind(settings.endpoints));
        ASSERT_TRUE(m_server->listen(settings.listenBacklog));
        m_port = m_server->endpoints().at(0).port;
    }

    void on(const std::string& name, Responder responder)
    {
        std::lock_guard lock(m_mutex);
        m_responders[name] = std::move(responder);
    }

    std::uint16_t port() const { return m_port; }
    kest::utils::Url url(const std::string& pathAndQuery = "") const
    {
        return kest::utils::Url("http://127.0.0.1:" + std::to_string(m_port) + pathAndQuery);
    }

    std::vector<Recorded> requests() const
    {
        std::lock_guard lock(m_mutex);
        return m_requests;
    }
    std::size_t requestCount() const { return requests().size(); }
    std::size_t connectionCount() const
    {
        std::set<std::uint16_t> ports;
        for (const auto& request : requests())
            ports.insert(request.clientPort);
        return ports.size();
    }

    std::size_t parkedCount() const
    {
        std::lock_guard lock(m_mutex);
        return m_parked.size();
    }
    /** Answers every parked request with 200. */
    void releaseParked()
    {
        std::vector<kest::utils::MoveOnlyFunc<void(RequestResult)>> parked;
        {
            std::lock_guard lock(m_mutex);
            parked.swap(m_parked);
        }
        for (auto& completion : parked)
            completion(RequestResult(StatusCode::ok, "late", "text/plain"));
    }

    server::Settings settings;
    server::rest::MessageDispatcher dispatcher;

private:
    class Handler : public AbstractRequestHandler
    {
    public:
        explicit Handler(TestServer* owner) : m_owner(owner) {}
        void processRequest(RequestContext context,
                            kest::utils::MoveOnlyFunc<void(RequestResult)> completion) override
        {
            m_owner->handle(context, std::move(completion));
        }

    private:
        TestServer* m_owner;
    };

    std::unique_ptr<AbstractRequestHandler> makeHandler()
    {
        return std::make_unique<Handler>(this);
    }

    void handle(const RequestContext& context,
                kest::utils::MoveOnlyFunc<void(RequestResult)> completion)
    {
        const Request& request = context.request;
        Responder responder;
        {
            std::lock_guard lock(m_mutex);
            m_requests.push_back(
                {request.path, request.body, request.headers, context.clientEndpoint.port});
            const auto name = context.requestPathParams.getByName("name").value_or("");
            if (const auto it = m_responders.find(name); it != m_responders.end())
                responder = it->second;
        }
        if (!responder)
            return completion(RequestResult(StatusCode::notFound));
        if (auto result = responder(context))
            return completion(std::move(*result));
        std::lock_guard lock(m_mutex);
        m_parked.push_back(std::move(completion));
    }

    std::unique_ptr<server::MultiAddressHttpServer> m_server;
    std::uint16_t m_port = 0;
    mutable std::mutex m_mutex;
    std::map<std::string, Responder> m_responders;
    std::vector<Recorded> m_requests;
    std::vector<kest::utils::MoveOnlyFunc<void(RequestResult)>> m_parked;
};

/**
 * A raw TCP peer on 127.0.0.1 that runs the script for each accepted connection, one at a time,
 * on its own thread. Scripts wait with idle() so that the peer can stop.
 */
class ScriptedPeer
{
public:
    using Script = std::function<void(ScriptedPeer& peer, int fd, int connectionIndex)>;

    explicit ScriptedPeer(Script script) : m_script(std::move(script))
    {
        m_listenFd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        EXPECT_EQ(::bind(m_listenFd, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(::listen(m_listenFd, 16), 0);
        ::getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this]() { run(); });
    }

    ~ScriptedPeer()
    {
        m_stopping = true;
        m_thread.join();
        ::close(m_listenFd);
    }

    std::uint16_t port() const { return m_port; }
    kest::utils::Url url(const std::string& path = "/") const
    {
        return kest::utils::Url("http://127.0.0.1:" + std::to_string(m_port) + path);
    }
    int connections() const { return m_connections.load(); }
    int requests() const { return m_requests.load(); }

    /** Sleeps up to `duration`, less when the peer stops. */
    void idle(std::chrono::milliseconds duration)
    {
        const auto until = std::chrono::steady_clock::now() + duration;
        while (!m_stopping && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(2ms);
    }

    /** One request head and its Content-Length body; empty when the client closed or 5 s went
     * by. */
    std::string readRequest(int fd)
    {
        std::string& pending = m_pending[fd];
        std::size_t headEnd;
        while ((headEnd = pending.find("\r\n\r\n")) == std::string::npos) {
            if (!readMore(fd, pending))
                return {};
        }
        std::size_t length = 0;
        if (const auto at = pending.find("Content-Length: ");
            at != std::string::npos && at < headEnd)
            length = std::stoul(pending.substr(at + 16));
        while (pending.size() < headEnd + 4 + length) {
            if (!readMore(fd, pending))
                return {};
        }
        std::string request = pending.substr(0, headEnd + 4 + length);
        pending.erase(0, request.size());
        ++m_requests;
        return request;
    }

    static void write(int fd, std::string_view data)
    {
        while (!data.empty()) {
            const ssize_t sent = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
            if (sent <= 0)
                return;
            data.remove_prefix(static_cast<std::size_t>(sent));
        }
    }

private:
    bool readMore(int fd, std::string& pending)
    {
        for (int waited = 0; waited < 5000 && !m_stopping; waited += 20) {
            pollfd item{fd, POLLIN, 0};
            if (::poll(&item, 1, 20) <= 0)
                continue;
            char buffer[8192];
            const ssize_t got = ::recv(fd, buffer, sizeof(buffer), 0);
            if (got <= 0)
                return false;
            pending.append(buffer, static_cast<std::size_t>(got));
            return true;
        }
        return false;
    }

    void run()
    {
        while (!m_stopping) {
            pollfd item{m_listenFd, POLLIN, 0};
            if (::poll(&item, 1, 20) <= 0)
                continue;
            const int fd = ::accept(m_listenFd, nullptr, nullptr);
            if (fd < 0)
                continue;
            const int index = m_connections++;
            m_script(*this, fd, index);
            m_pending.erase(fd);
            ::close(fd);
        }
    }

    Script m_script;
    int m_listenFd = -1;
    std::uint16_t m_port = 0;
    std::atomic<bool> m_stopping{false};
    std::atomic<int> m_connections{0};
    std::atomic<int> m_requests{0};
    std::map<int, std::string> m_pending;  //< Only touched by the peer's thread.
    std::thread m_thread;
};

}  // namespace kest::network::http::test
