#include "http_client.h"

#include <future>

#include <kest/network/http/client/async_http_client.h>
#include <kest/network/ssl/client_context.h>

namespace kest::bench {

using kest::network::http::client::AsyncHttpClient;
using kest::network::http::client::Response;

HttpClient::HttpClient(std::string baseUrl, const std::string& caFile)
    : m_baseUrl(std::move(baseUrl)), m_client(std::make_unique<AsyncHttpClient>())
{
    m_client->setAcceptGzip(false);
    if (!caFile.empty()) {
        kest::network::ssl::ClientContext::Options options;
        options.caFile = caFile;
        m_client->setTlsContext(std::make_shared<kest::network::ssl::ClientContext>(options));
    }
}

void HttpClient::setHeader(std::string name, std::string value)
{
    m_client->addRequestHeader(std::move(name), std::move(value));
}

HttpClient::~HttpClient()
{
    m_client->pleaseStopSync();
}

HttpClient::Reply HttpClient::get(const std::string& target)
{
    m_client->setRequestBody({}, {});
    return call("GET", target);
}

HttpClient::Reply HttpClient::post(const std::string& target, std::string body,
                                   std::string contentType)
{
    m_client->setRequestBody(std::move(body), std::move(contentType));
    return call("POST", target);
}

HttpClient::Reply HttpClient::call(const char* method, const std::string& target)
{
    std::promise<Reply> done;
    m_client->doRequest(method, kest::utils::Url(m_baseUrl + target),
                        [&done](std::error_code error, std::unique_ptr<Response> response) {
                            Reply reply;
                            if (!error && response) {
                                reply.status = response->statusCode;
                                reply.body = std::move(response->body);
                            }
                            done.set_value(std::move(reply));
                        });
    return done.get_future().get();
}

}  // namespace kest::bench
