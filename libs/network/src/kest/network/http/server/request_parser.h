#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/flat_buffer.hpp>

#include <kest/network/http/request.h>
#include <kest/network/http/status_code.h>

namespace kest::network::http::server {

/** What one request may make the server hold in memory (the server's settings give them). */
struct RequestLimits
{
    /** The request line and header fields together; trailer fields count against it too. */
    std::size_t maxHeaderBytes = 0;
    /** The body after chunked decoding. */
    std::size_t maxBodyBytes = 0;
    /** One chunk-size line with its chunk extensions. */
    std::size_t maxChunkLineBytes = 0;
};

/**
 * Turns the bytes that a client sends into requests, one after the other, on HTTP/1.1 framing
 * rules, holding no more than the limits allow. It does no I/O: the connection reads into its
 * buffer, and anything else (a test, a fuzzer) can feed it bytes the same way.
 */
class RequestParser
{
public:
    enum class Result
    {
        /** The buffered bytes end inside a request: read more. */
        needMore,
        /** A request is complete: take it with takeRequest(). */
        request,
        /** The bytes are not an acceptable request: answer failure() and close. */
        failed,
    };

    /** Why the input was refused: the status to answer and a text for the client and the log. */
    struct Failure
    {
        StatusCode::Value status = StatusCode::badRequest;
        std::string reason;
    };

    explicit RequestParser(const RequestLimits& limits);
    ~RequestParser();

    RequestParser(const RequestParser&) = delete;
    RequestParser& operator=(const RequestParser&) = delete;

    /** Space to read up to `size` more bytes into; commit() what was read. */
    boost::asio::mutable_buffer prepare(std::size_t size);
    void commit(std::size_t size);
    /** prepare() and commit() in one, for input that is at hand. */
    void append(std::string_view bytes);

    /**
     * Parses what is buffered, up to the end of the next request. After `request`, call
     * takeRequest() before parsing on; after `failed` the parser stays failed.
     */
    Result parse();

    /** The request that parse() completed. Parsing goes on with the bytes after it. */
    Request takeRequest();
    /** Whether the connection may carry another request after the completed one. */
    bool keepAlive() const { return m_keepAlive; }

    /** The head of the current request is complete and its client waits for "100 Continue". */
    bool waitsForContinue() const;
    /**
     * The request whose head is complete while its body is still coming (method, target and
     * headers; the body so far); null otherwise.
     */
    const Request* pendingHead() const;

    const Failure& failure() const { return m_failure; }
    /** Received bytes not parsed yet. */
    std::size_t bufferedBytes() const { return m_buffer.size(); }
    /** Memory held for the request being received: its body so far and the unparsed input. */
    std::size_t heldBytes() const;

private:
    class MessageParser;

    Result parseRequestLine();
    Result parseMessage();
    Result checkBufferedLine();
    Result checkHeadLineEnds();
    Result fail(StatusCode::Value status, std::string reason);

    RequestLimits m_limits;
    boost::beast::flat_buffer m_buffer;
    std::unique_ptr<MessageParser> m_message;
    Failure m_failure;
    std::size_t m_skippedEmptyLines = 0;
    std::size_t m_headerBytes = 0;
    /** Bytes of the head, from its start, already checked for line ends; the last four. */
    std::size_t m_headChecked = 0;
    std::uint32_t m_lastHeadBytes = 0;
    bool m_keepAlive = true;
    bool m_failed = false;
    bool m_complete = false;
};

}  // namespace kest::network::http::server
