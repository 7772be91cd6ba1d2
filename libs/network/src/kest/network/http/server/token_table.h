#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "access_rule.h"

namespace kest::network::http::server {

/**
 * The credentials file: who may call which routes. One line per credential and name:
 *
 *     NAME  CREDENTIAL  METHOD PATH  [METHOD PATH ...]
 *
 * CREDENTIAL is "sha256:" and the hex SHA-256 of a bearer token, or "-" for a name that only a
 * client certificate carries (its subject's common name). A name's routes are those of all its
 * lines, so that a name may have an old and a new token while they are rotated. Blank lines and
 * lines starting with "#" are skipped. The file holds no token, only hashes.
 */
class TokenTable
{
public:
    using Digest = std::array<std::uint8_t, 32>;

    /** Nothing, with "line N: why" in `error`, when the text is not such a file. */
    static std::optional<TokenTable> parse(std::string_view text, std::string* error);

    /** SHA-256 of the token, through OpenSSL. */
    static Digest hash(std::string_view token);
    /** "sha256:" and the digest in lower-case hex: what a line holds for the token. */
    static std::string credentialOf(std::string_view token);

    /**
     * The name the token belongs to. Compares with every hash in constant time and does not stop
     * at a match, so that neither whether nor where a token matched shows in the time taken.
     */
    const std::string* nameOfToken(std::string_view token) const;

    /** Whether the name may use the route; false for a name without lines. */
    bool allows(const std::string& name, std::string_view method, std::string_view path) const;

    std::size_t tokenCount() const { return m_tokens.size(); }
    std::size_t nameCount() const { return m_rules.size(); }

private:
    struct Token
    {
        Digest digest;
        std::string name;
    };

    std::vector<Token> m_tokens;
    std::map<std::string, std::vector<AccessRule>, std::less<>> m_rules;
};

}  // namespace kest::network::http::server
