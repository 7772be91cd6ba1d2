#pragma once

#include <string>

namespace kest::network::ssl::detail {

/** Why the last OpenSSL call failed, from its error queue, which is left empty. */
std::string takeOpenSslReason();

/**
 * "Cannot use <what> <file>: <reason>", with the system's reason when the file cannot be read at
 * all, else OpenSSL's; for the exceptions of contexts that cannot be made.
 */
std::string fileFailure(const std::string& what, const std::string& file);

}  // namespace kest::network::ssl::detail
