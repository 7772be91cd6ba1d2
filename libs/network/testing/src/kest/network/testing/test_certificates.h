#pragma once

#include <memory>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace kest::network::test {

/**
 * Certificates made at run time with OpenSSL, for tests and benchmarks of TLS: a CA, a server
 * certificate it signed for 127.0.0.1 and localhost, client certificates, and a second CA that
 * nobody trusts. Written as PEM files into a directory of their own, removed with the object.
 */
class TestCertificates
{
public:
    /** The PEM files of one certificate and its key. */
    struct Pair
    {
        std::string certificate;
        std::string key;
    };

    /** Throws when the files cannot be written. */
    TestCertificates();
    ~TestCertificates();
    TestCertificates(const TestCertificates&) = delete;
    TestCertificates& operator=(const TestCertificates&) = delete;

    const std::string& dir() const { return m_dir; }

    std::string caFile;
    std::string untrustedCaFile;
    /** For 127.0.0.1 and localhost; usable as a client certificate too, as an instance does. */
    Pair server;
    /** For 127.0.0.1 alone. */
    Pair serverOnlyByIp;
    /** Signed by the untrusted CA. */
    Pair untrustedServer;
    /** Client certificates named "reader", by the CA and by the untrusted CA. */
    Pair clientReader;
    Pair clientUntrusted;

private:
    enum class Kind
    {
        ca,
        server,
        client,
    };

    using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
    using CertificatePtr = std::unique_ptr<X509, decltype(&X509_free)>;

    struct Issued
    {
        KeyPtr key{nullptr, &EVP_PKEY_free};
        CertificatePtr certificate{nullptr, &X509_free};
    };

    static void extend(X509* certificate, X509* issuer, int nid, const std::string& value);
    Issued issue(const std::string& commonName, const Issued* issuer, Kind kind,
                 const std::vector<std::string>& altNames);
    std::string write(const std::string& name, X509* certificate, EVP_PKEY* key);
    Pair writePair(const std::string& name, const Issued& issued);

    std::string m_dir;
    long m_serial = 0;
};

}  // namespace kest::network::test
