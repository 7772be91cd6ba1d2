#include "tls_errors.h"

#include <string_view>

#include <openssl/ssl.h>
#include <openssl/x509.h>

namespace kest::network::ssl {

namespace {

constexpr int kRejectedByCheck = X509_V_ERR_APPLICATION_VERIFICATION;

class CertificateCategory : public std::error_category
{
public:
    const char* name() const noexcept override { return "certificate"; }

    std::string message(int value) const override
    {
        if (value == kRejectedByCheck)
            return "refused by the certificate check";
        return X509_verify_cert_error_string(value);
    }
};

}  // namespace

const std::error_category& certificateCategory()
{
    static const CertificateCategory category;
    return category;
}

std::error_code makeCertificateError(long verifyResult)
{
    return std::error_code(static_cast<int>(verifyResult), certificateCategory());
}

std::error_code certificateRejectedByCheck()
{
    return makeCertificateError(kRejectedByCheck);
}

bool isTlsError(std::error_code error)
{
    if (!error)
        return false;
    // Boost's categories reach std::error_code through adapters that keep their names.
    const std::string_view name = error.category().name();
    return &error.category() == &certificateCategory() || name == "asio.ssl" ||
           name == "asio.ssl.stream";
}

std::vector<std::string> peerCertificateChain(SSL* ssl)
{
    std::vector<std::string> chain;
    // A client's view of the chain starts with the server's own certificate.
    const STACK_OF(X509)* certificates = SSL_get_peer_cert_chain(ssl);
    if (!certificates)
        return chain;
    for (int i = 0; i < sk_X509_num(certificates); ++i) {
        X509* certificate = sk_X509_value(certificates, i);
        const int length = i2d_X509(certificate, nullptr);
        if (length <= 0)
            continue;
        std::string der(static_cast<std::size_t>(length), '\0');
        auto* out = reinterpret_cast<unsigned char*>(der.data());
        i2d_X509(certificate, &out);
        chain.push_back(std::move(der));
    }
    return chain;
}

std::string peerCommonName(SSL* ssl)
{
    const X509* certificate = SSL_get0_peer_certificate(ssl);
    if (!certificate)
        return {};
    const X509_NAME* subject = X509_get_subject_name(certificate);
    const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (index < 0)
        return {};
    const ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
    unsigned char* utf8 = nullptr;
    const int length = ASN1_STRING_to_UTF8(&utf8, data);
    if (length < 0)
        return {};
    std::string name(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
    OPENSSL_free(utf8);
    return name;
}

}  // namespace kest::network::ssl
