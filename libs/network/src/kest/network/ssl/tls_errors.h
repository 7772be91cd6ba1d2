#pragma once

#include <string>
#include <system_error>
#include <vector>

struct ssl_st;

namespace kest::network::ssl {

/**
 * Results of verifying a peer's certificate (OpenSSL's X509_V_ERR_... values) as error codes, with
 * OpenSSL's texts ("self-signed certificate in certificate chain", "hostname mismatch").
 */
const std::error_category& certificateCategory();
std::error_code makeCertificateError(long verifyResult);
/** The certificate check of the client's owner refused the peer. */
std::error_code certificateRejectedByCheck();

/** Whether `error` comes from TLS (a handshake or record failure, or a refused certificate). */
bool isTlsError(std::error_code error);

/** The peer's certificate chain as DER, leaf first; empty when it sent none. */
std::vector<std::string> peerCertificateChain(ssl_st* ssl);
/** The common name of the subject of the peer's certificate; empty when there is none. */
std::string peerCommonName(ssl_st* ssl);

}  // namespace kest::network::ssl
