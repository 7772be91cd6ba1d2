#include "server_context.h"

#include <stdexcept>

#include <openssl/ssl.h>
#include <boost/asio/ssl/context.hpp>

#include "openssl_reason.h"

namespace kest::network::ssl {

namespace {

// Sessions resumed by clients that presented a certificate must come from this server.
constexpr unsigned char kSessionIdContext[] = "kest-http";

}  // namespace

ServerContext::ServerContext(const Options& options)
    : m_options(options),
      m_context(std::make_unique<boost::asio::ssl::context>(boost::asio::ssl::context::tls_server))
{
    SSL_CTX* context = m_context->native_handle();
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    // Renegotiation lets one client make the server redo handshakes at will.
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE);
    // Thousands of idle kept-alive connections would otherwise hold 2 x 16 KiB of buffers each.
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);
    // The chain sent is the certificate file's, not one made up from the client CAs.
    SSL_CTX_set_mode(context, SSL_MODE_NO_AUTO_CHAIN);
    SSL_CTX_set_session_id_context(context, kSessionIdContext, sizeof(kSessionIdContext) - 1);

    if (options.certificateFile.empty() || options.privateKeyFile.empty())
        throw std::runtime_error("TLS needs both a certificate file and a private key file");
    if (SSL_CTX_use_certificate_chain_file(context, options.certificateFile.c_str()) != 1)
        throw std::runtime_error(
            detail::fileFailure("the certificate file", options.certificateFile));
    if (SSL_CTX_use_PrivateKey_file(context, options.privateKeyFile.c_str(), SSL_FILETYPE_PEM) !=
        1) {
        throw std::runtime_error(
            detail::fileFailure("the private key file", options.privateKeyFile));
    }
    if (SSL_CTX_check_private_key(context) != 1) {
        throw std::runtime_error("The private key " + options.privateKeyFile +
                                 " does not belong to the certificate " + options.certificateFile);
    }

    if (!options.clientCaFile.empty()) {
        if (SSL_CTX_load_verify_locations(context, options.clientCaFile.c_str(), nullptr) != 1) {
            throw std::runtime_error(
                detail::fileFailure("the client CA file", options.clientCaFile));
        }
        // The CA names go into the certificate request, so that a client picks a fitting one.
        if (STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(options.clientCaFile.c_str()))
            SSL_CTX_set_client_CA_list(context, names);
        // Without SSL_VERIFY_FAIL_IF_NO_PEER_CERT: a client without a certificate may still
        // present a token. One that presents a certificate the CA did not sign is refused.
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    }
}

ServerContext::~ServerContext() = default;

}  // namespace kest::network::ssl
