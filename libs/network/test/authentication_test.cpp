// Who may call which route: the tokens file, the rules of names, the token authenticator's
// verdicts and reloads, and the answers of the authentication dispatcher.

#include <fstream>

#include <gtest/gtest.h>

#include <kest/network/http/api/api_request_result.h>
#include <kest/network/http/server/authentication_dispatcher.h>
#include <kest/network/http/server/token_authenticator.h>

namespace kest::network::http::server {
namespace {

using Verdict = AuthenticationResult::Verdict;

const std::string kIngestToken = "ingest-7f3a";
const std::string kReaderToken = "reader-91c2";
const std::string kOldReaderToken = "reader-0000";

std::string tokensText()
{
    return "# name  credential  routes\n"
           "ingest " +
           TokenTable::credentialOf(kIngestToken) +
           " POST /metadataDb/v1/data\r\n"
           "\n"
           "reader " +
           TokenTable::credentialOf(kReaderToken) +
           " GET /metadataDb/v1/*\n"
           "reader " +
           TokenTable::credentialOf(kOldReaderToken) +
           " get /metadataDb/metrics\n"
           "  ops   -   * /metadataDb/metrics   POST /metadataDb/ping\n";
}

class TokensFile
{
public:
    TokensFile() { write(tokensText()); }
    ~TokensFile() { std::remove(m_path.c_str()); }
    void write(const std::string& text) { std::ofstream(m_path, std::ios::trunc) << text; }
    const std::string& path() const { return m_path; }

private:
    std::string m_path = "/tmp/kest_tokens_" + std::to_string(::getpid()) + ".txt";
};

RequestContext request(std::string method, std::string path, std::string authorization = {},
                       std::string certificateName = {})
{
    RequestContext context;
    context.request.method = std::move(method);
    context.request.setTarget(std::move(path));
    if (!authorization.empty())
        context.request.headers.emplace_back("Authorization", std::move(authorization));
    context.clientCertificateName = std::move(certificateName);
    return context;
}

TEST(TokenTableTest, TheFileIsReadLineByLineOrRefusedNamingTheLine)
{
    std::string error;
    const auto table = TokenTable::parse(tokensText(), &error);
    ASSERT_TRUE(table) << error;
    EXPECT_EQ(table->tokenCount(), 3u);
    EXPECT_EQ(table->nameCount(), 3u);
    EXPECT_EQ(*table->nameOfToken(kReaderToken), "reader");
    EXPECT_EQ(*table->nameOfToken(kOldReaderToken), "reader");
    EXPECT_EQ(table->nameOfToken("reader"), nullptr);
    EXPECT_EQ(table->nameOfToken(""), nullptr);
    EXPECT_EQ(TokenTable::credentialOf("abc"),
              "sha256:ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

    const std::string hash = TokenTable::credentialOf("x");
    const std::pair<std::string, std::string> refused[] = {
        {"a " + hash + " GET\n", "line 1: expected NAME CREDENTIAL METHOD PATH"},
        {"\n\na " + hash + " GET /x POST\n", "line 3: expected"},
        {"a secret GET /x\n", "line 1: the credential is neither"},
        {"a sha256:abcd GET /x\n", "line 1: \"sha256:\" must be followed by 64 hex digits"},
        {"a sha256:" + std::string(64, 'g') + " GET /x\n", "64 hex digits"},
        {"a - GET x\n", "line 1: \"x\" is not a path starting with \"/\""},
        {"a - GET /x*y\n", "does not end it"},
        {"a - GE(T /x\n", "is not an HTTP method"},
        {"a " + hash + " GET /x\nb " + hash + " GET /y\n", "line 2: the same token is given"},
    };
    for (const auto& [text, why] : refused) {
        EXPECT_FALSE(TokenTable::parse(text, &error)) << text;
        EXPECT_NE(error.find(why), std::string::npos) << text << ": " << error;
        EXPECT_EQ(error.find(hash.substr(7, 16)), std::string::npos) << "names a hash: " << error;
    }
}

TEST(TokenTableTest, RulesMatchTheMethodAndTheWholePathOrItsPrefix)
{
    std::string error;
    const auto exact = *AccessRule::make("post", "/metadataDb/v1/data", &error);
    EXPECT_TRUE(exact.allows("POST", "/metadataDb/v1/data"));
    EXPECT_TRUE(exact.allows("post", "/metadataDb/v1/data"));
    EXPECT_FALSE(exact.allows("GET", "/metadataDb/v1/data"));
    EXPECT_FALSE(exact.allows("POST", "/metadataDb/v1/data/"));
    EXPECT_FALSE(exact.allows("POST", "/metadataDb/v1/dat"));
    EXPECT_FALSE(exact.allows("POST", "/metadataDb/v1/Data"));

    const auto prefix = *AccessRule::make("GET", "/metadataDb/v1/*", &error);
    EXPECT_TRUE(prefix.allows("GET", "/metadataDb/v1/"));
    EXPECT_TRUE(prefix.allows("GET", "/metadataDb/v1/dataSaveErrors/a;b"));
    EXPECT_FALSE(prefix.allows("GET", "/metadataDb/v1"));
    EXPECT_FALSE(prefix.allows("GET", "/metadataDb/metrics"));

    const auto any = *AccessRule::make("*", "/metadataDb/metrics", &error);
    EXPECT_TRUE(any.allows("DELETE", "/metadataDb/metrics"));
    EXPECT_EQ(any.toString(), "* /metadataDb/metrics");
    EXPECT_EQ(prefix.toString(), "GET /metadataDb/v1/*");
}

TEST(TokenAuthenticatorTest, EachCredentialMayUseWhatItsNameAllowsAndNothingElse)
{
    TokensFile file;
    std::string error;
    TokenAuthenticator authenticator(
        {file.path(), {*AccessRule::make("POST", "/metadataDb/ping", &error)}});
    EXPECT_EQ(authenticator.tokenCount(), 3u);

    struct Case
    {
        RequestContext context;
        Verdict verdict;
    };
    const std::string data = "/metadataDb/v1/data";
    Case cases[] = {
        {request("POST", "/metadataDb/ping"), Verdict::pass},
        {request("POST", "/metadataDb/ping", "Bearer wrong"), Verdict::pass},
        {request("GET", data), Verdict::unauthenticated},
        {request("GET", data, "Bearer wrong"), Verdict::unauthenticated},
        {request("GET", data, "Bearer"), Verdict::unauthenticated},
        {request("GET", data, "Basic " + kReaderToken), Verdict::unauthenticated},
        {request("GET", data, "Bearer " + kReaderToken + "x"), Verdict::unauthenticated},
        {request("GET", data, "Bearer " + kReaderToken), Verdict::pass},
        {request("GET", data, "bearer   " + kReaderToken + " "), Verdict::pass},
        {request("GET", data + "?deviceIds=x", "Bearer " + kReaderToken), Verdict::pass},
        {request("POST", data, "Bearer " + kReaderToken), Verdict::forbidden},
        {request("GET", "/metadataDb/metrics", "Bearer " + kReaderToken), Verdict::pass},
        {request("GET", "/metadataDb/metrics", "Bearer " + kIngestToken), Verdict::forbidden},
        {request("POST", data, "Bearer " + kIngestToken), Verdict::pass},
        {request("POST", data + "/x", "Bearer " + kIngestToken), Verdict::forbidden},
        // A certificate's name counts as a token's; a token sent beside it counts instead.
        {request("GET", "/metadataDb/metrics", "", "ops"), Verdict::pass},
        {request("GET", data, "", "ops"), Verdict::forbidden},
        {request("GET", data, "", "stranger"), Verdict::forbidden},
        {request("GET", data, "Bearer " + kReaderToken, "ops"), Verdict::pass},
        {request("GET", "/metadataDb/metrics", "Bearer wrong", "ops"), Verdict::unauthenticated},
    };
    for (const auto& [context, verdict] : cases) {
        EXPECT_EQ(authenticator.authenticate(context).verdict, verdict)
            << context.request.method << " " << context.request.target << " "
            << context.request.header("Authorization").value_or("") << " "
            << context.clientCertificateName;
    }

    // Without a tokens file, a verified certificate may do anything, and nothing else may.
    TokenAuthenticator certificatesOnly({});
    EXPECT_EQ(certificatesOnly.authenticate(request("POST", data, "", "anyone")).verdict,
              Verdict::pass);
    EXPECT_EQ(
        certificatesOnly.authenticate(request("POST", data, "Bearer " + kIngestToken)).verdict,
        Verdict::unauthenticated);
    EXPECT_EQ(certificatesOnly.authenticate(request("POST", "/metadataDb/ping")).verdict,
              Verdict::unauthenticated);
}

TEST(TokenAuthenticatorTest, AReloadTakesTheNewFileAndABadOneKeepsTheTokensInUse)
{
    TokensFile file;
    TokenAuthenticator authenticator({file.path(), {}});
    const auto reading = [&](const std::string& token) {
        return authenticator.authenticate(request("GET", "/metadataDb/v1/data", "Bearer " + token))
            .verdict;
    };
    ASSERT_EQ(reading(kReaderToken), Verdict::pass);

    // Rotation: the new token is added, then the old one goes.
    file.write(tokensText() + "reader " + TokenTable::credentialOf("new") +
               " GET /metadataDb/v1/*");
    EXPECT_TRUE(authenticator.reload());
    EXPECT_EQ(reading("new"), Verdict::pass);
    EXPECT_EQ(reading(kReaderToken), Verdict::pass);
    file.write("reader " + TokenTable::credentialOf("new") + " GET /metadataDb/v1/*\n");
    EXPECT_TRUE(authenticator.reload());
    EXPECT_EQ(reading(kReaderToken), Verdict::unauthenticated);
    EXPECT_EQ(authenticator.tokenCount(), 1u);

    file.write("reader sha256:nothex GET /metadataDb/v1/*\n");
    EXPECT_FALSE(authenticator.reload());
    EXPECT_EQ(reading("new"), Verdict::pass);
    std::remove(file.path().c_str());
    EXPECT_FALSE(authenticator.reload());
    EXPECT_EQ(reading("new"), Verdict::pass);

    try {
        TokenAuthenticator({file.path(), {}});
        ADD_FAILURE() << "made without its file";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()),
                  "Cannot read the tokens file " + file.path() + ": No such file or directory");
    }
}

/** Answers every request 200 and counts them. */
class CountingDispatcher : public AbstractMessageDispatcher
{
public:
    std::unique_ptr<AbstractRequestHandler> dispatchRequest(
        RequestContext, kest::utils::MoveOnlyFunc<void(RequestResult)> completion) override
    {
        ++count;
        completion(RequestResult(StatusCode::ok));
        return nullptr;
    }
    int count = 0;
};

TEST(AuthenticationDispatcherTest, RefusalsAre401WithAChallengeOr403WithTheErrorBodyAndCounted)
{
    CountingDispatcher routes;
    AuthenticationDispatcher dispatcher(&routes);
    const auto dispatch = [&](const std::string& token) {
        RequestResult answer;
        dispatcher.dispatchRequest(request("GET", "/x", token.empty() ? "" : "Bearer " + token),
                                   [&](RequestResult result) { answer = std::move(result); });
        return answer;
    };
    EXPECT_EQ(dispatch("").statusCode, StatusCode::ok);  //< No authenticator: all pass.

    dispatcher.addAuthenticator([](const RequestContext& context) {
        const auto authorization = context.request.header("Authorization");
        if (!authorization)
            return AuthenticationResult::unauthenticated();
        return *authorization == "Bearer good" ? AuthenticationResult::pass()
                                               : AuthenticationResult::forbidden();
    });
    EXPECT_EQ(dispatch("good").statusCode, StatusCode::ok);
    EXPECT_EQ(routes.count, 2);

    const auto unauthenticated = dispatch("");
    EXPECT_EQ(unauthenticated.statusCode, StatusCode::unauthorized);
    EXPECT_EQ(unauthenticated.headers, (HttpHeaders{{"WWW-Authenticate", "Bearer"}}));
    EXPECT_EQ(unauthenticated.contentType, "application/json");
    ApiRequestResult body;
    ASSERT_TRUE(body.fromJson(unauthenticated.body));
    EXPECT_EQ(body.errorClass(), ApiRequestErrorClass::unauthorized);
    EXPECT_EQ(body.resultCode(), "unauthenticated");

    const auto forbidden = dispatch("secret-token-value");
    EXPECT_EQ(forbidden.statusCode, StatusCode::forbidden);
    EXPECT_TRUE(forbidden.headers.empty());
    ASSERT_TRUE(body.fromJson(forbidden.body));
    EXPECT_EQ(body.resultCode(), "forbidden");
    EXPECT_EQ(forbidden.body.find("secret-token-value"), std::string::npos);
    dispatch("other");

    EXPECT_EQ(routes.count, 2);
    EXPECT_EQ(dispatcher.unauthenticatedCount(), 1u);
    EXPECT_EQ(dispatcher.forbiddenCount(), 2u);
}

}  // namespace
}  // namespace kest::network::http::server
