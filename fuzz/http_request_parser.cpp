// The HTTP request parser, fed raw bytes the way a server connection feeds it: into the space
// prepare() gives, commit(), parse(), the next request taken while bytes are left, and reading
// stopped at a failure or at a request after which the connection closes.
//
// Small limits, so that inputs of a few kilobytes reach them. Checked beyond crashes:
// - the requests served do not depend on how the bytes are split into reads: the input is fed
// whole, byte by byte and in reads of a few bytes;
// - while the parser waits for more, what it holds is bounded by its limits;
// - no body is larger than its limit; a path that decodes to a NUL never comes out.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <kest/network/http/server/request_parser.h>

#include "fuzz_check.h"

namespace {

using kest::network::http::Request;
using kest::network::http::server::RequestLimits;
using kest::network::http::server::RequestParser;

constexpr RequestLimits kLimits{/*maxHeaderBytes*/ 512, /*maxBodyBytes*/ 1024,
                                /*maxChunkLineBytes*/ 32};
/** What the connection asks the parser for on every read. */
constexpr std::size_t kReadChunk = 16 * 1024;
/** Unparsed input that the parser may hold while it waits: a chunk-size line with the CRLF
 *  before it, and a trailer section within the header limit. */
constexpr std::size_t kMaxHeldWhileWaiting =
    2 + kLimits.maxChunkLineBytes + 1 + kLimits.maxHeaderBytes;

std::string describe(const Request& request)
{
    std::string text =
        request.method + ' ' + request.target + " HTTP/" + std::to_string(request.version) + '\n';
    for (const auto& [name, value] : request.headers)
        text += name + ": " + value + '\n';
    return text + "\n" + request.body;
}

/** The status only: the reason may name a different fault of the same input. */
std::string describe(const RequestParser::Failure& failure)
{
    return "failed " + std::to_string(static_cast<int>(failure.status));
}

void checkRequest(const Request& request, bool keepAlive)
{
    FUZZ_CHECK(!request.method.empty(), describe(request));
    FUZZ_CHECK(request.path == "*" || request.path.starts_with('/'), describe(request));
    FUZZ_CHECK(Request::percentDecode(request.path).find('\0') == std::string::npos,
               describe(request));
    FUZZ_CHECK(request.body.size() <= kLimits.maxBodyBytes, describe(request));
    FUZZ_CHECK(request.version == 10 || request.version == 11, describe(request));
    if (request.version == 10 && request.hasHeader("Transfer-Encoding"))
        FUZZ_CHECK(!keepAlive, "a chunked HTTP/1.0 request keeps the connection");
}

/** What a connection makes of the input read `readSize` bytes at a time. */
std::vector<std::string> serve(std::string_view input, std::size_t readSize)
{
    RequestParser parser(kLimits);
    std::vector<std::string> outcome;
    std::size_t offset = 0;
    for (;;) {
        // Parse what is buffered; a request leaves the rest for the next one.
        RequestParser::Result result;
        while ((result = parser.parse()) == RequestParser::Result::request) {
            const bool keepAlive = parser.keepAlive();
            const Request request = parser.takeRequest();
            checkRequest(request, keepAlive);
            outcome.push_back(describe(request));
            if (!keepAlive)
                return outcome;
        }
        if (result == RequestParser::Result::failed) {
            FUZZ_CHECK(parser.bufferedBytes() == 0, "a failed parser holds input");
            FUZZ_CHECK(parser.parse() == RequestParser::Result::failed, "a failure is not final");
            outcome.push_back(describe(parser.failure()));
            return outcome;
        }
        FUZZ_CHECK(parser.bufferedBytes() <= kMaxHeldWhileWaiting,
                   std::to_string(parser.bufferedBytes()) + " bytes held while waiting");
        parser.waitsForContinue();
        if (offset == input.size())
            return outcome;
        const std::size_t size = std::min({readSize, kReadChunk, input.size() - offset});
        const auto space = parser.prepare(kReadChunk);
        std::memcpy(space.data(), input.data() + offset, size);
        parser.commit(size);
        offset += size;
    }
}

/**
 * Whether two ways of feeding the same bytes agree: the same requests served. Refusals may differ
 * in their status (a malformed trailer that is also too large gets 400 or 431 depending on which
 * fault shows first), and a malformed request that one refuses at once the other may still wait
 * on: the waiting one holds no more than its limits (checked above), and the connection's read
 * timeout ends the wait.
 */
bool agree(const std::vector<std::string>& a, const std::vector<std::string>& b)
{
    const auto isFailure = [](const std::string& item) { return item.starts_with("failed "); };
    const auto requests = [&](const std::vector<std::string>& outcome) {
        return outcome.empty() || !isFailure(outcome.back())
                   ? outcome
                   : std::vector<std::string>(outcome.begin(), outcome.end() - 1);
    };
    return requests(a) == requests(b);
}

std::string joined(const std::vector<std::string>& outcome)
{
    std::string text;
    for (const auto& item : outcome)
        text += item + "\n----\n";
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    kest::fuzz::abortOnAssertionFailure();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view input = kest::fuzz::asText(data, size);
    const auto whole = serve(input, input.size());
    const auto byteByByte = serve(input, 1);
    FUZZ_CHECK(agree(whole, byteByByte),
               "whole:\n" + joined(whole) + "byte by byte:\n" + joined(byteByByte));
    const auto inSevens = serve(input, 7);
    FUZZ_CHECK(agree(whole, inSevens),
               "whole:\n" + joined(whole) + "in reads of 7:\n" + joined(inSevens));
    return 0;
}
