#include "token_authenticator.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <kest/utils/log/log.h>

namespace kest::network::http::server {

namespace {

constexpr std::string_view kBearer = "Bearer";

/** The token of an "Authorization: Bearer TOKEN" value; empty for any other. */
std::string_view bearerToken(std::string_view authorization)
{
    if (authorization.size() <= kBearer.size() ||
        !equalsIgnoreCase(authorization.substr(0, kBearer.size()), kBearer) ||
        authorization[kBearer.size()] != ' ') {
        return {};
    }
    std::string_view token = authorization.substr(kBearer.size());
    while (!token.empty() && token.front() == ' ')
        token.remove_prefix(1);
    while (!token.empty() && (token.back() == ' ' || token.back() == '\t'))
        token.remove_suffix(1);
    return token;
}

}  // namespace

TokenAuthenticator::TokenAuthenticator(Options options) : m_options(std::move(options))
{
    if (m_options.tokensFile.empty())
        return;
    std::string error;
    m_table = read(m_options.tokensFile, &error);
    if (!m_table)
        throw std::runtime_error(error);
    KEST_INFO(this, "Read %1 token(s) of %2 name(s) from %3", m_table->tokenCount(),
              m_table->nameCount(), m_options.tokensFile);
}

std::shared_ptr<const TokenTable> TokenAuthenticator::read(const std::string& file,
                                                           std::string* error)
{
    std::ifstream input(file, std::ios::binary);
    if (!input) {
        *error = "Cannot read the tokens file " + file + ": " + std::strerror(errno);
        return nullptr;
    }
    const std::string text{std::istreambuf_iterator<char>(input), {}};
    std::string why;
    auto table = TokenTable::parse(text, &why);
    if (!table) {
        *error = "The tokens file " + file + " is not valid: " + why;
        return nullptr;
    }
    return std::make_shared<const TokenTable>(std::move(*table));
}

bool TokenAuthenticator::reload()
{
    if (m_options.tokensFile.empty())
        return true;
    std::string error;
    auto table = read(m_options.tokensFile, &error);
    if (!table) {
        KEST_ERROR(this, "%1; the tokens read before stay in use", error);
        return false;
    }
    const std::size_t tokens = table->tokenCount();
    const std::size_t names = table->nameCount();
    {
        std::lock_guard lock(m_mutex);
        m_table = std::move(table);
    }
    // Logged once the new tokens are in use, so that whoever watches the log can rely on them.
    KEST_INFO(this, "Read %1 token(s) of %2 name(s) from %3 again", tokens, names,
              m_options.tokensFile);
    return true;
}

std::size_t TokenAuthenticator::tokenCount() const
{
    const auto current = table();
    return current ? current->tokenCount() : 0;
}

std::shared_ptr<const TokenTable> TokenAuthenticator::table() const
{
    std::lock_guard lock(m_mutex);
    return m_table;
}

AuthenticationResult TokenAuthenticator::authenticate(const RequestContext& context) const
{
    const Request& request = context.request;
    for (const auto& rule : m_options.openRoutes) {
        if (rule.allows(request.method, request.path))
            return AuthenticationResult::pass();
    }
    const auto decide = [&](const TokenTable& table, const std::string& name) {
        return table.allows(name, request.method, request.path) ? AuthenticationResult::pass()
                                                                : AuthenticationResult::forbidden();
    };

    const auto current = table();
    if (const auto authorization = request.header("Authorization")) {
        // Credentials sent are the ones that count, even beside a certificate.
        const std::string_view token = bearerToken(*authorization);
        if (token.empty() || !current)
            return AuthenticationResult::unauthenticated();
        const std::string* name = current->nameOfToken(token);
        if (!name)
            return AuthenticationResult::unauthenticated();
        return decide(*current, *name);
    }
    if (!context.clientCertificateName.empty())
        return current ? decide(*current, context.clientCertificateName)
                       : AuthenticationResult::pass();
    return AuthenticationResult::unauthenticated();
}

}  // namespace kest::network::http::server
