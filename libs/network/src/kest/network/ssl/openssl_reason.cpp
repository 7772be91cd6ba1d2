#include "openssl_reason.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <openssl/err.h>

namespace kest::network::ssl::detail {

std::string takeOpenSslReason()
{
    std::string reason;
    // The last error is the outermost one, which names what failed rather than how.
    for (unsigned long code; (code = ERR_get_error()) != 0;) {
        if (const char* text = ERR_reason_error_string(code))
            reason = text;
    }
    return reason.empty() ? "unknown OpenSSL error" : reason;
}

std::string fileFailure(const std::string& what, const std::string& file)
{
    std::string reason;
    if (::access(file.c_str(), R_OK) != 0) {
        reason = std::strerror(errno);
        ERR_clear_error();
    } else {
        reason = takeOpenSslReason();
    }
    return "Cannot use " + what + " " + file + ": " + reason;
}

}  // namespace kest::network::ssl::detail
