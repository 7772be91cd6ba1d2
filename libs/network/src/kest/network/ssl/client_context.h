#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace boost::asio::ssl {
class context;
}  // namespace boost::asio::ssl

namespace kest::network::ssl {

/**
 * What HTTPS clients share: the certificate authorities they trust and the certificate, if any,
 * that they present to a server that asks for one. Made once and shared, since loading a CA
 * bundle takes milliseconds; used from any thread.
 */
class ClientContext
{
public:
    struct Options
    {
        /** PEM file of the trusted CAs. Empty: the system's store, which the environment
         * variables SSL_CERT_FILE and SSL_CERT_DIR replace, as for any OpenSSL program. */
        std::string caFile;
        /** PEM certificate (with its chain) and key presented to servers that ask; both or
         * neither. */
        std::string certificateFile;
        std::string privateKeyFile;
    };

    /** Throws std::runtime_error naming the file that cannot be used, and why. */
    explicit ClientContext(const Options& options);
    ~ClientContext();

    ClientContext(const ClientContext&) = delete;
    ClientContext& operator=(const ClientContext&) = delete;

    /** The system's trusted CAs and no certificate of its own, made on first use. */
    static std::shared_ptr<ClientContext> systemDefault();

    boost::asio::ssl::context& native() { return *m_context; }
    /** Unique in the process: connections made with one context are never used by another. */
    std::uint64_t id() const { return m_id; }
    const Options& options() const { return m_options; }

private:
    Options m_options;
    std::unique_ptr<boost::asio::ssl::context> m_context;
    std::uint64_t m_id = 0;
};

}  // namespace kest::network::ssl
