#include "gzip.h"

#include <zlib.h>

#include <algorithm>
#include <charconv>

#include "request.h"

namespace kest::network::http {

namespace {

constexpr int kGzipWindowBits = 15 + 16;  //< zlib's way to ask for the gzip wrapper.
constexpr std::size_t kChunk = 64 * 1024;

std::string_view trim(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

/** The q of a coding's parameters ("q=0.5"); 1 when absent, 0 when malformed. */
double qualityOf(std::string_view parameters)
{
    double quality = 1;
    while (!parameters.empty()) {
        const auto end = parameters.find(';');
        const std::string_view parameter = trim(parameters.substr(0, end));
        parameters =
            end == std::string_view::npos ? std::string_view() : parameters.substr(end + 1);
        if (parameter.size() < 2 || (parameter[0] != 'q' && parameter[0] != 'Q') ||
            parameter[1] != '=') {
            continue;
        }
        const std::string_view value = trim(parameter.substr(2));
        const auto [ptr, error] =
            std::from_chars(value.data(), value.data() + value.size(), quality);
        if (error != std::errc() || ptr != value.data() + value.size())
            return 0;
    }
    return quality;
}

}  // namespace

bool Gzip::isAccepted(std::string_view acceptEncoding)
{
    std::optional<double> gzip;
    std::optional<double> any;
    while (!acceptEncoding.empty()) {
        const auto end = acceptEncoding.find(',');
        const std::string_view item = trim(acceptEncoding.substr(0, end));
        acceptEncoding =
            end == std::string_view::npos ? std::string_view() : acceptEncoding.substr(end + 1);
        const auto semicolon = item.find(';');
        const std::string_view coding = trim(item.substr(0, semicolon));
        const double quality =
            semicolon == std::string_view::npos ? 1 : qualityOf(item.substr(semicolon + 1));
        if (equalsIgnoreCase(coding, "gzip") || equalsIgnoreCase(coding, "x-gzip"))
            gzip = std::max(gzip.value_or(0), quality);
        else if (coding == "*")
            any = quality;
    }
    // A coding named outright overrides the wildcard, even to refuse it.
    return gzip ? *gzip > 0 : any.value_or(0) > 0;
}

std::optional<std::string> Gzip::compress(std::string_view data, int level)
{
    z_stream stream{};
    if (deflateInit2(&stream, level, Z_DEFLATED, kGzipWindowBits, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        return std::nullopt;
    std::string out(deflateBound(&stream, static_cast<uLong>(data.size())), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    // The bound makes one call enough.
    const int result = deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END)
        return std::nullopt;
    return out;
}

Gzip::DecodeResult Gzip::decompress(std::string_view data, std::size_t maxSize, std::string* out)
{
    out->clear();
    z_stream stream{};
    if (inflateInit2(&stream, kGzipWindowBits) != Z_OK)
        return DecodeResult::corrupt;
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream.avail_in = static_cast<uInt>(data.size());
    DecodeResult result = DecodeResult::ok;
    for (;;) {
        const std::size_t used = out->size();
        if (used > maxSize) {
            result = DecodeResult::tooLarge;
            break;
        }
        // One byte past the limit is enough to know that it is passed.
        const std::size_t room = std::min(kChunk, maxSize - used + 1);
        out->resize(used + room);
        stream.next_out = reinterpret_cast<Bytef*>(out->data() + used);
        stream.avail_out = static_cast<uInt>(room);
        const int status = inflate(&stream, Z_NO_FLUSH);
        out->resize(used + room - stream.avail_out);
        if (status == Z_STREAM_END) {
            if (stream.avail_in == 0)
                break;
            // Another member follows: gzip allows several, one after the other.
            if (inflateReset(&stream) != Z_OK) {
                result = DecodeResult::corrupt;
                break;
            }
            continue;
        }
        if (status == Z_BUF_ERROR && stream.avail_in == 0 && stream.avail_out > 0) {
            result = DecodeResult::corrupt;  //< Cut short.
            break;
        }
        if (status != Z_OK && status != Z_BUF_ERROR) {
            result = DecodeResult::corrupt;
            break;
        }
    }
    if (result == DecodeResult::ok && out->size() > maxSize)
        result = DecodeResult::tooLarge;
    inflateEnd(&stream);
    return result;
}

}  // namespace kest::network::http
