#include "client_context.h"

#include <atomic>
#include <stdexcept>

#include <openssl/ssl.h>
#include <boost/asio/ssl/context.hpp>

#include "openssl_reason.h"

namespace kest::network::ssl {

namespace {

std::atomic<std::uint64_t> g_nextId{1};

}  // namespace

ClientContext::ClientContext(const Options& options)
    : m_options(options),
      m_context(std::make_unique<boost::asio::ssl::context>(boost::asio::ssl::context::tls_client)),
      m_id(g_nextId.fetch_add(1))
{
    SSL_CTX* context = m_context->native_handle();
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    // Kept-alive connections wait in pools: their buffers are freed while they are idle.
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);

    if (options.caFile.empty()) {
        SSL_CTX_set_default_verify_paths(context);
    } else if (SSL_CTX_load_verify_locations(context, options.caFile.c_str(), nullptr) != 1) {
        throw std::runtime_error(detail::fileFailure("the CA file", options.caFile));
    }

    if (options.certificateFile.empty() != options.privateKeyFile.empty()) {
        throw std::runtime_error(
            "A client certificate needs its private key, and a private key its certificate");
    }
    if (!options.certificateFile.empty()) {
        if (SSL_CTX_use_certificate_chain_file(context, options.certificateFile.c_str()) != 1)
            throw std::runtime_error(
                detail::fileFailure("the certificate file", options.certificateFile));
        if (SSL_CTX_use_PrivateKey_file(context, options.privateKeyFile.c_str(),
                                        SSL_FILETYPE_PEM) != 1)
            throw std::runtime_error(
                detail::fileFailure("the private key file", options.privateKeyFile));
        if (SSL_CTX_check_private_key(context) != 1) {
            throw std::runtime_error("The private key " + options.privateKeyFile +
                                     " does not belong to the certificate " +
                                     options.certificateFile);
        }
    }
}

ClientContext::~ClientContext() = default;

std::shared_ptr<ClientContext> ClientContext::systemDefault()
{
    static const std::shared_ptr<ClientContext> context =
        std::make_shared<ClientContext>(Options{});
    return context;
}

}  // namespace kest::network::ssl
