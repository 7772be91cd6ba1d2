#include "test_certificates.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace kest::network::test {

TestCertificates::TestCertificates()
{
    char pattern[] = "/tmp/kest_certs.XXXXXX";
    if (!::mkdtemp(pattern))
        throw std::runtime_error("mkdtemp failed");
    m_dir = pattern;
    const Issued ca = issue("Test CA", nullptr, Kind::ca, {});
    const Issued otherCa = issue("Untrusted CA", nullptr, Kind::ca, {});
    caFile = write("ca.pem", ca.certificate.get(), nullptr);
    untrustedCaFile = write("untrusted_ca.pem", otherCa.certificate.get(), nullptr);
    server = writePair(
        "server", issue("metadata-storage", &ca, Kind::server, {"IP:127.0.0.1", "DNS:localhost"}));
    serverOnlyByIp =
        writePair("server_ip", issue("metadata-storage", &ca, Kind::server, {"IP:127.0.0.1"}));
    untrustedServer = writePair(
        "server_untrusted", issue("metadata-storage", &otherCa, Kind::server, {"IP:127.0.0.1"}));
    clientReader = writePair("client_reader", issue("reader", &ca, Kind::client, {}));
    clientUntrusted = writePair("client_untrusted", issue("reader", &otherCa, Kind::client, {}));
}

TestCertificates::~TestCertificates()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_dir, ignored);
}

void TestCertificates::extend(X509* certificate, X509* issuer, int nid, const std::string& value)
{
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer ? issuer : certificate, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
    if (!extension)
        throw std::runtime_error("bad extension " + value);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

TestCertificates::Issued TestCertificates::issue(const std::string& commonName,
                                                 const Issued* issuer, Kind kind,
                                                 const std::vector<std::string>& altNames)
{
    Issued result;
    // P-256 keys: made in microseconds, unlike RSA ones.
    result.key.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    result.certificate.reset(X509_new());
    X509* certificate = result.certificate.get();
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++m_serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 24 * 3600);
    X509_set_pubkey(certificate, result.key.get());
    X509_NAME* name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1,
                               0);
    X509* issuerCertificate = issuer ? issuer->certificate.get() : nullptr;
    X509_set_issuer_name(certificate,
                         issuerCertificate ? X509_get_subject_name(issuerCertificate) : name);
    switch (kind) {
        case Kind::ca:
            extend(certificate, nullptr, NID_basic_constraints, "critical,CA:TRUE");
            extend(certificate, nullptr, NID_key_usage, "critical,keyCertSign,cRLSign");
            break;
        case Kind::server:
            extend(certificate, issuerCertificate, NID_basic_constraints, "CA:FALSE");
            // Instances present their server certificate to each other as clients too.
            extend(certificate, issuerCertificate, NID_ext_key_usage, "serverAuth,clientAuth");
            break;
        case Kind::client:
            extend(certificate, issuerCertificate, NID_basic_constraints, "CA:FALSE");
            extend(certificate, issuerCertificate, NID_ext_key_usage, "clientAuth");
            break;
    }
    if (!altNames.empty()) {
        std::string value;
        for (const auto& altName : altNames)
            value += (value.empty() ? "" : ",") + altName;
        extend(certificate, issuerCertificate, NID_subject_alt_name, value);
    }
    X509_sign(certificate, issuer ? issuer->key.get() : result.key.get(), EVP_sha256());
    return result;
}

std::string TestCertificates::write(const std::string& name, X509* certificate, EVP_PKEY* key)
{
    const std::string path = m_dir + "/" + name;
    FILE* file = std::fopen(path.c_str(), "w");
    if (!file)
        throw std::runtime_error("cannot write " + path);
    if (certificate)
        PEM_write_X509(file, certificate);
    if (key)
        PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr);
    std::fclose(file);
    return path;
}

TestCertificates::Pair TestCertificates::writePair(const std::string& name, const Issued& issued)
{
    return {write(name + ".pem", issued.certificate.get(), nullptr),
            write(name + ".key", nullptr, issued.key.get())};
}

}  // namespace kest::network::test
