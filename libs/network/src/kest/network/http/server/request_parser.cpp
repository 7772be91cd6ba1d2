#include "request_parser.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <new>
#include <optional>
#include <vector>

#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/url/authority_view.hpp>

namespace kest::network::http::server {

namespace beast_http = boost::beast::http;
using boost::beast::string_view;

namespace {

/** The last four bytes of a head: "\r\n\r\n". */
constexpr std::uint32_t kHeadEnd = 0x0D0A0D0A;

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

/** The transfer codings of a Transfer-Encoding value, in order, without their parameters. */
std::vector<std::string_view> transferCodings(std::string_view value)
{
    std::vector<std::string_view> codings;
    while (!value.empty()) {
        const auto comma = value.find(',');
        std::string_view item = value.substr(0, comma);
        item = trimmed(item.substr(0, item.find(';')));
        if (!item.empty())
            codings.push_back(item);
        if (comma == std::string_view::npos)
            break;
        value.remove_prefix(comma + 1);
    }
    return codings;
}

/** "0", "000" or "0;ext": the line of the last chunk, which the trailer section follows. */
bool isLastChunkLine(std::string_view line)
{
    const std::size_t zeros = line.find_first_not_of('0');
    if (zeros == 0)
        return false;
    return zeros == std::string_view::npos ||
           !std::isxdigit(static_cast<unsigned char>(line[zeros]));
}

/** Codings that are well known but that this server does not decode. */
bool isUnimplementedCoding(std::string_view coding)
{
    for (const std::string_view known : {"gzip", "x-gzip", "deflate", "compress", "x-compress"}) {
        if (equalsIgnoreCase(coding, known))
            return true;
    }
    return false;
}

/** Host is "host[:port]"; it may be empty when the target URI has no authority. */
bool isValidHost(std::string_view value)
{
    if (value.empty())
        return true;
    const auto authority = boost::urls::parse_authority(value);
    return authority && !authority->has_userinfo();
}

}  // namespace

/** Parses one request straight into a Request and checks its framing fields. */
class RequestParser::MessageParser : public beast_http::basic_parser<true>
{
public:
    Request request;
    /** Set when a callback refuses the request, with a more precise answer than Beast's error. */
    std::optional<Failure> failure;
    /** HTTP/1.0 has no chunked coding: such a request is served, but its framing is not trusted. */
    bool closeAfterResponse = false;
    /** What the head left of the header limit, for the trailer fields. */
    std::size_t trailerAllowance = 0;

    /** Bytes of the current chunk's data still to come; 0 between chunks. */
    std::uint64_t chunkRemaining() const { return m_lastChunkSeen ? 0 : m_chunkRemaining; }

private:
    void refuse(StatusCode::Value status, std::string reason, boost::beast::error_code& ec)
    {
        failure = Failure{status, std::move(reason)};
        ec = beast_http::error::bad_value;
    }

    void on_request_impl(beast_http::verb, string_view method, string_view target, int version,
                         boost::beast::error_code& ec) override
    {
        request.method.assign(method.data(), method.size());
        request.version = version >= 11 ? 11 : 10;
        if (!request.setTarget(std::string(target.data(), target.size())))
            return refuse(StatusCode::badRequest, "Malformed request target", ec);
        // Handlers and the code they call may see their parameters as C strings.
        if (Request::percentDecode(request.path).find('\0') != std::string::npos)
            return refuse(StatusCode::badRequest, "NUL in the request path", ec);
    }

    void on_response_impl(int, string_view, int, boost::beast::error_code&) override {}

    void on_field_impl(beast_http::field field, string_view name, string_view value,
                       boost::beast::error_code& ec) override
    {
        // Trailer fields arrive after the handler could have looked at the head: they are not
        // kept, as they must not pass for header fields.
        if (is_header_done()) {
            const std::size_t fieldBytes = name.size() + value.size() + 4;  //< ": " and CRLF
            if (fieldBytes > trailerAllowance)
                return refuse(StatusCode::requestHeaderFieldsTooLarge, "Request trailer too large",
                              ec);
            trailerAllowance -= fieldBytes;
            return;
        }
        const std::string_view text(value.data(), value.size());
        if (field == beast_http::field::host) {
            ++m_hostCount;
            m_hostValid = m_hostValid && isValidHost(text);
        } else if (field == beast_http::field::transfer_encoding) {
            m_transferEncoding.append(m_hasTransferEncoding ? "," : "").append(text);
            m_hasTransferEncoding = true;
        } else if (field == beast_http::field::content_length) {
            m_hasContentLength = true;
        }
        request.headers.emplace_back(std::string(name.data(), name.size()), std::string(text));
    }

    void on_header_impl(boost::beast::error_code& ec) override
    {
        if (m_hostCount > 1)
            return refuse(StatusCode::badRequest, "More than one Host header", ec);
        if (!m_hostValid)
            return refuse(StatusCode::badRequest, "Malformed Host header", ec);
        if (m_hostCount == 0 && request.version >= 11)
            return refuse(StatusCode::badRequest, "No Host header", ec);
        if (m_hasTransferEncoding)
            checkTransferEncoding(ec);
    }

    void checkTransferEncoding(boost::beast::error_code& ec)
    {
        // Framing that two parties may read differently is how requests get smuggled past a
        // proxy: anything but one final "chunked" is refused.
        if (m_hasContentLength)
            return refuse(StatusCode::badRequest, "Both Transfer-Encoding and Content-Length", ec);
        const auto codings = transferCodings(m_transferEncoding);
        if (codings.empty() || !equalsIgnoreCase(codings.back(), "chunked"))
            return refuse(StatusCode::badRequest, "The last transfer coding is not chunked", ec);
        std::string_view unimplemented;
        for (std::size_t i = 0; i + 1 < codings.size(); ++i) {
            if (equalsIgnoreCase(codings[i], "chunked"))
                return refuse(StatusCode::badRequest, "Chunked transfer coding applied twice", ec);
            if (!isUnimplementedCoding(codings[i]))
                return refuse(StatusCode::badRequest,
                              "Unknown transfer coding " + std::string(codings[i]), ec);
            unimplemented = codings[i];
        }
        if (!unimplemented.empty()) {
            return refuse(StatusCode::notImplemented,
                          "Transfer coding " + std::string(unimplemented) + " is not supported",
                          ec);
        }
        if (request.version < 11)
            closeAfterResponse = true;
    }

    void on_body_init_impl(const boost::optional<std::uint64_t>& length,
                           boost::beast::error_code&) override
    {
        // Nothing is reserved for the declared length yet: the body grows with the bytes that
        // really arrive, so a client cannot make the server hold memory by promising it data.
        m_declaredLength = length.value_or(0);
    }

    std::size_t on_body_impl(string_view body, boost::beast::error_code&) override
    {
        // Once a quarter of the declared body is here, the rest is room for what is on its way:
        // doubling step by step up to it would copy the body about once more, and a body
        // larger than malloc keeps in its heap would get fresh zeroed pages each time.
        const std::size_t needed = request.body.size() + body.size();
        if (needed > request.body.capacity() && needed <= m_declaredLength &&
            needed >= m_declaredLength / 4) {
            request.body.reserve(m_declaredLength);
        }
        request.body.append(body.data(), body.size());
        return body.size();
    }

    void on_chunk_header_impl(std::uint64_t size, string_view, boost::beast::error_code&) override
    {
        m_chunkRemaining = size;
        m_lastChunkSeen = m_lastChunkSeen || size == 0;
    }

    std::size_t on_chunk_body_impl(std::uint64_t, string_view body,
                                   boost::beast::error_code&) override
    {
        request.body.append(body.data(), body.size());
        m_chunkRemaining -= std::min<std::uint64_t>(m_chunkRemaining, body.size());
        return body.size();
    }

public:
    /** The next bytes are a chunk-size line (with the CRLF that ends the previous chunk). */
    bool awaitsChunkLine() const
    {
        return is_header_done() && chunked() && m_chunkRemaining == 0 && !m_lastChunkSeen;
    }

private:
    void on_finish_impl(boost::beast::error_code&) override {}

    std::uint64_t m_chunkRemaining = 0;
    std::uint64_t m_declaredLength = 0;
    bool m_lastChunkSeen = false;
    std::size_t m_hostCount = 0;
    bool m_hostValid = true;
    bool m_hasTransferEncoding = false;
    bool m_hasContentLength = false;
    std::string m_transferEncoding;
};

RequestParser::RequestParser(const RequestLimits& limits) : m_limits(limits) {}

RequestParser::~RequestParser() = default;

boost::asio::mutable_buffer RequestParser::prepare(std::size_t size)
{
    return m_buffer.prepare(size);
}

void RequestParser::commit(std::size_t size)
{
    m_buffer.commit(size);
}

void RequestParser::append(std::string_view bytes)
{
    if (bytes.empty())
        return;
    const auto space = m_buffer.prepare(bytes.size());
    std::memcpy(space.data(), bytes.data(), bytes.size());
    m_buffer.commit(bytes.size());
}

RequestParser::Result RequestParser::parse()
{
    if (m_failed)
        return Result::failed;
    if (m_complete)
        return Result::request;
    try {
        if (!m_message) {
            const Result result = parseRequestLine();
            if (!m_message)
                return result;
        }
        return parseMessage();
    } catch (const std::bad_alloc&) {
        return fail(StatusCode::serviceUnavailable, "Out of memory");
    }
}

RequestParser::Result RequestParser::parseRequestLine()
{
    auto* data = static_cast<char*>(m_buffer.data().data());
    std::size_t size = m_buffer.size();

    // Empty lines before a request are skipped, as some clients send CRLF after a body.
    std::size_t empty = 0;
    while (empty < size) {
        if (data[empty] == '\n')
            empty += 1;
        else if (data[empty] == '\r' && empty + 1 < size && data[empty + 1] == '\n')
            empty += 2;
        else
            break;
    }
    m_buffer.consume(empty);
    m_skippedEmptyLines += empty;
    if (m_skippedEmptyLines > m_limits.maxHeaderBytes)
        return fail(StatusCode::badRequest, "Too many empty lines before the request");
    data = static_cast<char*>(m_buffer.data().data());
    size = m_buffer.size();
    if (size == 0 || (size == 1 && data[0] == '\r'))
        return Result::needMore;

    const std::size_t searched = std::min(size, m_limits.maxHeaderBytes);
    const auto* lineEnd = static_cast<char*>(std::memchr(data, '\n', searched));
    if (!lineEnd) {
        if (size >= m_limits.maxHeaderBytes)
            return fail(StatusCode::uriTooLong, "Request line too long");
        return Result::needMore;
    }

    // Beast takes HTTP/1.0 and 1.1 only. Any later 1.x is served as 1.1; another major version
    // gets the answer that says so. Anything else is left to Beast to refuse.
    std::size_t lineLength = static_cast<std::size_t>(lineEnd - data);
    if (lineLength > 0 && data[lineLength - 1] == '\r')
        --lineLength;
    static constexpr std::size_t kVersionLength = 9;  //< " HTTP/x.y"
    if (lineLength >= kVersionLength) {
        char* version = data + lineLength - kVersionLength;
        if (std::memcmp(version, " HTTP/", 6) == 0 && isDigit(version[6]) && version[7] == '.' &&
            isDigit(version[8])) {
            if (version[6] != '1')
                return fail(StatusCode::httpVersionNotSupported, "HTTP version not supported");
            if (version[8] > '1')
                version[8] = '1';
        }
    }

    m_message = std::make_unique<MessageParser>();
    m_message->header_limit(static_cast<std::uint32_t>(
        std::min<std::size_t>(m_limits.maxHeaderBytes, std::numeric_limits<std::uint32_t>::max())));
    m_message->body_limit(static_cast<std::uint64_t>(m_limits.maxBodyBytes));
    // Stops at the end of the head, which tells how long it was; eager from then on.
    m_message->eager(false);
    m_headerBytes = 0;
    m_headChecked = 0;
    m_lastHeadBytes = 0;
    return Result::needMore;
}

RequestParser::Result RequestParser::parseMessage()
{
    if (!m_message->is_header_done()) {
        // Beast judges a head by as much of it as it is given, sooner or later depending on how
        // the bytes arrived; it is given only whole heads, so that the answer does not depend on
        // that.
        if (checkHeadLineEnds() == Result::failed)
            return Result::failed;
        if (m_lastHeadBytes != kHeadEnd) {
            if (m_headChecked >= m_limits.maxHeaderBytes)
                return fail(StatusCode::requestHeaderFieldsTooLarge, "Request header too large");
            return Result::needMore;
        }
    }
    boost::beast::error_code error;
    while (m_buffer.size() > 0 && !m_message->is_done()) {
        const bool headerWasDone = m_message->is_header_done();
        std::size_t used = 0;
        const bool sliced = m_message->awaitsChunkLine();
        if (sliced) {
            // Beast holds a chunk-size line only while it is incomplete, and reads a chunk's
            // extensions as far as it is given bytes: it is given the line alone, once it is
            // complete within its limit, so that neither the limit nor the outcome depends on how
            // the bytes arrive. The last chunk's line goes with the whole trailer section.
            const auto* data = static_cast<const char*>(m_buffer.data().data());
            const std::size_t size = m_buffer.size();
            const std::size_t lineStart = size >= 2 && data[0] == '\r' && data[1] == '\n' ? 2 : 0;
            const std::size_t lineLimit = lineStart + m_limits.maxChunkLineBytes;
            const auto* lineEnd = static_cast<const char*>(
                std::memchr(data + lineStart, '\n', std::min(size, lineLimit) - lineStart));
            if (!lineEnd)
                break;  //< checkBufferedLine() tells a long line from an incomplete one.
            used = m_message->put(
                boost::asio::buffer(data, static_cast<std::size_t>(lineEnd + 1 - data)), error);
            if (error == beast_http::error::need_more && used == 0 &&
                !isLastChunkLine(std::string_view(
                    data + lineStart, static_cast<std::size_t>(lineEnd - data) - lineStart))) {
                // A whole line that Beast cannot take (it reads a quoted extension past the
                // line's end): what follows the line must not decide.
                return fail(StatusCode::badRequest, "Malformed chunk-size line");
            }
            if (error == beast_http::error::need_more && used == 0) {
                // Beast judges the trailer's fields before its size; the size is judged first
                // here, as checkBufferedLine() does when the trailer arrives in pieces.
                const char* from = lineEnd > data ? lineEnd - 1 : lineEnd;  //< The line's CR.
                const std::string_view rest(from, static_cast<std::size_t>(data + size - from));
                const std::size_t eom = rest.find("\r\n\r\n");
                if (eom == std::string_view::npos) {
                    error = {};
                    break;
                }
                const std::size_t held = static_cast<std::size_t>(from - data) + eom + 3;
                const std::size_t trailer = held - static_cast<std::size_t>(lineEnd + 1 - data);
                if (held > lineLimit && trailer > m_message->trailerAllowance)
                    return fail(StatusCode::requestHeaderFieldsTooLarge,
                                "Request trailer too large");
                error = {};
                used = m_message->put(boost::asio::buffer(data, held + 1), error);
            }
        } else if (!headerWasDone) {
            // Only the head: Beast asks for more when a head ends too early (a short version),
            // so what follows it must not decide.
            const std::size_t headBytes = m_headChecked - m_headerBytes;
            used = m_message->put(boost::asio::buffer(m_buffer.data().data(), headBytes), error);
            if (error == beast_http::error::need_more && used == 0 &&
                !m_message->is_header_done()) {
                return fail(StatusCode::badRequest, "Malformed request head");
            }
        } else if (const std::uint64_t chunk = m_message->chunkRemaining(); chunk > 0) {
            // The chunk's data alone: Beast would go on into the next chunk-size line, past the
            // line's limit.
            used = m_message->put(
                boost::asio::buffer(
                    m_buffer.data().data(),
                    static_cast<std::size_t>(std::min<std::uint64_t>(chunk, m_buffer.size()))),
                error);
        } else {
            used = m_message->put(m_buffer.data(), error);
        }
        m_buffer.consume(used);
        if (!headerWasDone) {
            m_headerBytes += used;
            if (m_message->is_header_done()) {
                m_message->trailerAllowance = m_limits.maxHeaderBytes > m_headerBytes
                                                  ? m_limits.maxHeaderBytes - m_headerBytes
                                                  : 0;
                m_message->eager(true);
            }
        }
        if (error == beast_http::error::need_more) {
            error = {};
            // A slice (of a head, or up to a chunk-size line's limit) may end inside what
            // follows while the rest is already buffered.
            if ((sliced || !headerWasDone) && used > 0)
                continue;
            break;
        }
        if (error || used == 0)
            break;
    }
    if (error) {
        if (m_message->failure)
            return fail(m_message->failure->status, std::move(m_message->failure->reason));
        if (error == beast_http::error::header_limit)
            return fail(StatusCode::requestHeaderFieldsTooLarge, "Request header too large");
        if (error == beast_http::error::body_limit)
            return fail(StatusCode::payloadTooLarge, "Request body too large");
        return fail(StatusCode::badRequest, "Malformed request: " + error.message());
    }
    if (m_message->is_done()) {
        m_keepAlive = m_message->keep_alive() && !m_message->closeAfterResponse;
        m_complete = true;
        return Result::request;
    }
    return checkBufferedLine();
}

RequestParser::Result RequestParser::checkHeadLineEnds()
{
    // Beast finds the end of a head by its CRLF CRLF alone: a head with bare LFs would never end.
    // Refused here, before Beast sees it, however the bytes arrive.
    if (m_lastHeadBytes == kHeadEnd)
        return Result::needMore;
    const auto* data = static_cast<const char*>(m_buffer.data().data());
    const std::size_t size = m_buffer.size();
    // Past the header limit nothing more is looked at: the head is too large, whatever follows.
    for (std::size_t i = m_headChecked - m_headerBytes;
         i < size && m_headChecked < m_limits.maxHeaderBytes; ++i) {
        const auto byte = static_cast<unsigned char>(data[i]);
        if (byte == '\n' && (m_lastHeadBytes & 0xFF) != '\r')
            return fail(StatusCode::badRequest, "A line of the request head ends without CR");
        m_lastHeadBytes = (m_lastHeadBytes << 8) | byte;
        ++m_headChecked;
        if (m_lastHeadBytes == kHeadEnd)
            break;
    }
    return Result::needMore;
}

RequestParser::Result RequestParser::checkBufferedLine()
{
    // Beast consumes body bytes as they come, but holds a chunk-size line, and the trailer
    // section after the last chunk, until they are complete: both need a bound of their own.
    if (!m_message->is_header_done() || !m_message->chunked())
        return Result::needMore;
    const auto* data = static_cast<const char*>(m_buffer.data().data());
    const std::size_t size = m_buffer.size();
    // What is held starts with the CRLF that ends the previous chunk's data, if any.
    const std::size_t lineStart = size >= 2 && data[0] == '\r' && data[1] == '\n' ? 2 : 0;
    const std::size_t lineLimit = lineStart + m_limits.maxChunkLineBytes;
    if (size <= lineLimit)
        return Result::needMore;
    const auto* lineEnd =
        static_cast<const char*>(std::memchr(data + lineStart, '\n', lineLimit - lineStart));
    if (!lineEnd)
        return fail(StatusCode::badRequest, "Chunk size line too long");
    // A complete line that is still held is the last chunk's: the trailer section follows.
    const std::size_t trailerBytes = size - static_cast<std::size_t>(lineEnd + 1 - data);
    if (trailerBytes > m_message->trailerAllowance)
        return fail(StatusCode::requestHeaderFieldsTooLarge, "Request trailer too large");
    return Result::needMore;
}

Request RequestParser::takeRequest()
{
    Request request;
    if (!m_complete || !m_message)
        return request;
    request = std::move(m_message->request);
    m_message.reset();
    m_complete = false;
    m_skippedEmptyLines = 0;
    m_headerBytes = 0;
    m_headChecked = 0;
    m_lastHeadBytes = 0;
    return request;
}

bool RequestParser::waitsForContinue() const
{
    if (!m_message || !m_message->is_header_done() || m_message->is_done() ||
        m_message->request.version < 11) {
        return false;
    }
    const auto expect = m_message->request.header("Expect");
    return expect && equalsIgnoreCase(*expect, "100-continue");
}

const Request* RequestParser::pendingHead() const
{
    if (!m_message || !m_message->is_header_done() || m_message->is_done())
        return nullptr;
    return &m_message->request;
}

std::size_t RequestParser::heldBytes() const
{
    return m_buffer.capacity() + (m_message ? m_message->request.body.capacity() : 0);
}

RequestParser::Result RequestParser::fail(StatusCode::Value status, std::string reason)
{
    m_failed = true;
    m_failure = Failure{status, std::move(reason)};
    // Nothing more is parsed: what is held is let go at once.
    m_message.reset();
    m_buffer.clear();
    m_buffer.shrink_to_fit();
    return Result::failed;
}

}  // namespace kest::network::http::server
