#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kest/network/http/request_context.h>

#include "access_rule.h"
#include "authentication_result.h"
#include "token_table.h"

namespace kest::network::http::server {

/**
 * Decides who may call which route, for the AuthenticationDispatcher: from a bearer token
 * ("Authorization: Bearer TOKEN") looked up in a tokens file (see TokenTable), or else from the
 * name of a verified client certificate, which the file's lines for that name govern. Without a
 * tokens file, every verified client certificate may call every route.
 *
 * A request without credentials, or with a token or scheme that is not known, is unauthenticated
 * (401); known credentials on a route they may not use are forbidden (403). Open routes pass
 * without any. Thread-safe; reload() swaps the tokens while requests are being decided.
 */
class TokenAuthenticator
{
public:
    struct Options
    {
        /** Empty: no tokens, only client certificates. */
        std::string tokensFile;
        /** Routes that need no credentials. */
        std::vector<AccessRule> openRoutes;
    };

    /** Throws std::runtime_error, saying why, when the tokens file cannot be read or parsed. */
    explicit TokenAuthenticator(Options options);

    AuthenticationResult authenticate(const RequestContext& context) const;

    /**
     * Reads the tokens file again. A file that cannot be read or parsed leaves the tokens in use
     * as they were; the reason is logged and false returned.
     */
    bool reload();

    /** The tokens in use; 0 without a tokens file. */
    std::size_t tokenCount() const;

private:
    /** The table of the file, or the reason why there is none. */
    static std::shared_ptr<const TokenTable> read(const std::string& file, std::string* error);
    std::shared_ptr<const TokenTable> table() const;

    const Options m_options;
    mutable std::mutex m_mutex;
    /** Null without a tokens file. Guarded by m_mutex; the table itself is never changed. */
    std::shared_ptr<const TokenTable> m_table;
};

}  // namespace kest::network::http::server
