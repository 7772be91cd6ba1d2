#pragma once

#include <memory>
#include <string>

namespace boost::asio::ssl {
class context;
}  // namespace boost::asio::ssl

namespace kest::network::ssl {

/** The certificate and key that a TLS listener serves, and whom it asks for a certificate. */
class ServerContext
{
public:
    struct Options
    {
        /** PEM certificate, followed by the intermediate certificates of its chain. */
        std::string certificateFile;
        /** PEM private key of the certificate, not encrypted. */
        std::string privateKeyFile;
        /** When set, clients are asked for a certificate, which must chain to a CA of this PEM
         * file. A client may still connect without one. */
        std::string clientCaFile;
    };

    /** Throws std::runtime_error naming the file that cannot be used, and why. */
    explicit ServerContext(const Options& options);
    ~ServerContext();

    ServerContext(const ServerContext&) = delete;
    ServerContext& operator=(const ServerContext&) = delete;

    boost::asio::ssl::context& native() { return *m_context; }
    bool asksForClientCertificates() const { return !m_options.clientCaFile.empty(); }

private:
    Options m_options;
    std::unique_ptr<boost::asio::ssl::context> m_context;
};

}  // namespace kest::network::ssl
