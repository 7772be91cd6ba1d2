#include "token_table.h"

#include <memory>

#include <openssl/crypto.h>
#include <openssl/evp.h>

namespace kest::network::http::server {

namespace {

constexpr std::string_view kSha256Prefix = "sha256:";
constexpr std::string_view kNoToken = "-";

std::vector<std::string_view> fieldsOf(std::string_view line)
{
    std::vector<std::string_view> fields;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t'))
            ++i;
        const std::size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t')
            ++i;
        if (i > start)
            fields.push_back(line.substr(start, i - start));
    }
    return fields;
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::optional<TokenTable::Digest> parseDigest(std::string_view hex)
{
    TokenTable::Digest digest{};
    if (hex.size() != digest.size() * 2)
        return std::nullopt;
    for (std::size_t i = 0; i < digest.size(); ++i) {
        const int high = hexValue(hex[2 * i]);
        const int low = hexValue(hex[2 * i + 1]);
        if (high < 0 || low < 0)
            return std::nullopt;
        digest[i] = static_cast<std::uint8_t>(high * 16 + low);
    }
    return digest;
}

}  // namespace

std::optional<TokenTable> TokenTable::parse(std::string_view text, std::string* error)
{
    TokenTable table;
    std::size_t lineNumber = 0;
    while (!text.empty()) {
        ++lineNumber;
        const auto end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        const auto fields = fieldsOf(line);
        if (fields.empty() || fields.front().starts_with('#'))
            continue;

        const auto fail = [&](const std::string& why) {
            *error = "line " + std::to_string(lineNumber) + ": " + why;
            return std::nullopt;
        };
        if (fields.size() < 4 || fields.size() % 2 != 0)
            return fail("expected NAME CREDENTIAL METHOD PATH [METHOD PATH ...]");
        const std::string name(fields[0]);
        const std::string_view credential = fields[1];
        if (credential != kNoToken) {
            if (!credential.starts_with(kSha256Prefix))
                return fail("the credential is neither \"sha256:HEX\" nor \"-\"");
            const auto digest = parseDigest(credential.substr(kSha256Prefix.size()));
            if (!digest)
                return fail("\"sha256:\" must be followed by 64 hex digits");
            for (const auto& token : table.m_tokens) {
                if (token.digest == *digest && token.name != name)
                    return fail("the same token is given to " + token.name + " already");
            }
            table.m_tokens.push_back(Token{*digest, name});
        }
        auto& rules = table.m_rules[name];
        for (std::size_t i = 2; i < fields.size(); i += 2) {
            std::string why;
            auto rule = AccessRule::make(fields[i], fields[i + 1], &why);
            if (!rule)
                return fail(why);
            rules.push_back(std::move(*rule));
        }
    }
    return table;
}

TokenTable::Digest TokenTable::hash(std::string_view token)
{
    // Fetched once: EVP_sha256() looks the algorithm up again on every call, which costs more
    // than hashing a token. Each thread keeps a context of its own.
    static EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    thread_local const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(
        EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    Digest digest{};
    unsigned int length = 0;
    EVP_DigestInit_ex2(context.get(), sha256, nullptr);
    EVP_DigestUpdate(context.get(), token.data(), token.size());
    EVP_DigestFinal_ex(context.get(), digest.data(), &length);
    return digest;
}

std::string TokenTable::credentialOf(std::string_view token)
{
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text(kSha256Prefix);
    for (const std::uint8_t byte : hash(token)) {
        text.push_back(kHex[byte >> 4]);
        text.push_back(kHex[byte & 15]);
    }
    return text;
}

const std::string* TokenTable::nameOfToken(std::string_view token) const
{
    const Digest digest = hash(token);
    const std::string* found = nullptr;
    for (const auto& entry : m_tokens) {
        const bool equal = CRYPTO_memcmp(entry.digest.data(), digest.data(), digest.size()) == 0;
        found = equal ? &entry.name : found;
    }
    return found;
}

bool TokenTable::allows(const std::string& name, std::string_view method,
                        std::string_view path) const
{
    const auto it = m_rules.find(name);
    if (it == m_rules.end())
        return false;
    for (const auto& rule : it->second) {
        if (rule.allows(method, path))
            return true;
    }
    return false;
}

}  // namespace kest::network::http::server
