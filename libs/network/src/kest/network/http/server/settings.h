#pragma once

#include <QString>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include <kest/network/socket_address.h>

class ZuSettings;

namespace kest::network::http::server {

/** The HTTP server's settings: where it listens, its I/O threads and its limits per connection. */
class Settings
{
public:
    static constexpr int kDefaultBacklog = 1024;
    static constexpr std::size_t kDefaultMaxHeaderBytes = 16 * 1024;
    static constexpr std::size_t kDefaultMaxBodyBytes = 64 * 1024 * 1024;
    static constexpr std::size_t kDefaultMaxChunkLineBytes = 4 * 1024;
    static constexpr std::size_t kDefaultMaxConnections = 10000;
    static constexpr std::chrono::milliseconds kDefaultRequestReadTimeout{30'000};
    static constexpr std::chrono::milliseconds kDefaultIdleTimeout{60'000};
    static constexpr std::chrono::milliseconds kDefaultStopTimeout{10'000};
    /** Longer timeouts are cut to this, a day, which is as good as none for a connection. */
    static constexpr std::chrono::milliseconds kMaxTimeout{24 * 60 * 60 * 1000};

    explicit Settings(QString group = "http");

    /**
     * "listenOn": comma-separated host:port; port 0 picks a free port; empty means none. An
     * address written "https://host:port" serves TLS, "http://host:port" plain HTTP; one without
     * a scheme serves TLS when a certificate is set, plain HTTP otherwise.
     */
    std::vector<SocketAddress> endpoints{SocketAddress{"0.0.0.0", 8080}};
    /** The addresses of `endpoints` that serve TLS. */
    std::vector<SocketAddress> tlsEndpoints;
    /** "certificateFile": PEM certificate of the TLS addresses, followed by its chain. */
    std::string certificateFile;
    /** "privateKeyFile": PEM private key of the certificate. */
    std::string privateKeyFile;
    /**
     * "clientCaFile": PEM CA certificates. When set, TLS clients are asked for a certificate,
     * which must chain to one of them; its subject's common name then names the client.
     */
    std::string clientCaFile;
    /** "backlog": the listen queue length. */
    int listenBacklog = kDefaultBacklog;
    /** "ioThreads": I/O threads of the server; 0 means one per core. */
    unsigned ioThreads = 0;
    /** "maxHeaderBytes": a larger request head, or trailer section after a chunked body, is
     * answered 431 and the connection closed; a request line alone longer than this gets 414. */
    std::size_t maxHeaderBytes = kDefaultMaxHeaderBytes;
    /** "maxBodyBytes": a larger body is answered 413 and the connection closed. */
    std::size_t maxBodyBytes = kDefaultMaxBodyBytes;
    /** "maxChunkLineBytes": a longer chunk-size line (with its extensions) in a chunked body is
     * answered 400 and the connection closed. */
    std::size_t maxChunkLineBytes = kDefaultMaxChunkLineBytes;
    /** "maxConnections": connections past this are closed as soon as accepted. */
    std::size_t maxConnections = kDefaultMaxConnections;
    /** "requestReadTimeoutMs": time to receive a whole request once it has begun, and to send
     * the answer; 0 means no limit. */
    std::chrono::milliseconds requestReadTimeout = kDefaultRequestReadTimeout;
    /** "idleTimeoutMs": a kept-alive connection with no new request is closed after this; 0 means
     * no limit. */
    std::chrono::milliseconds idleTimeout = kDefaultIdleTimeout;
    /** "stopTimeoutMs": how long stopping waits for the requests in flight to be answered, since
     * their handlers may use what the server's owner destroys next; past it their responses are
     * dropped. 0 means not waiting at all. */
    std::chrono::milliseconds stopTimeout = kDefaultStopTimeout;

    /**
     * Reads the keys of the group; missing keys keep their defaults. Throws
     * std::invalid_argument naming the key when a value is malformed, or when TLS is asked for
     * without a certificate and key.
     */
    void load(const ZuSettings& settings);

    const QString& group() const { return m_group; }

private:
    QString m_group;
};

}  // namespace kest::network::http::server
