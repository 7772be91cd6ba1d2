// What gzip on the wire saves on a search that answers 100 tracks: the bytes of the answer with
// and without "Accept-Encoding: gzip", the time to answer each over loopback, the client's time
// to decode, and from these the time saved on links of 10 and 100 Mbit/s. See README.md.

#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <string>
#include <thread>

#include <kest/network/http/gzip.h>

#include "../analytics_db/latency_stats.h"
#include "../http_api/http_connection.h"
#include "figure.h"
#include "service_process.h"

namespace fs = std::filesystem;
using namespace std::chrono;
using kest::bench::Figure;
using kest::bench::HttpConnection;
using kest::bench::LatencyStats;
using kest::network::http::Gzip;

namespace {

constexpr int kTracks = 100;
constexpr const char* kDevice = "6f1c2b9e-3d4a-4c55-9e0f-1a2b3c4d5e6f";
constexpr std::int64_t kStartUs = 1'767'225'600'000'000;
const char* const kSection = "end to end: gzip on the wire, a search answering 100 tracks";

/** One packet per track: a detection with a box and the attributes cameras report. */
std::string packets()
{
    static const char* const types[] = {"person", "car", "truck", "bicycle"};
    static const char* const colors[] = {"red", "blue", "white", "black", "grey", "green"};
    static const char* const makes[] = {"Toyota", "Kia", "Ford", "Volvo", "Renault"};
    std::mt19937 random(7);
    std::string json = "[";
    for (int i = 0; i < kTracks; ++i) {
        char track[64];
        std::snprintf(track, sizeof(track), "7a%06d-0000-4000-8000-%012d", i, i * 7919);
        char plate[16];
        std::snprintf(plate, sizeof(plate), "K%03u%c%c", static_cast<unsigned>(random() % 1000),
                      static_cast<char>('A' + random() % 26),
                      static_cast<char>('A' + random() % 26));
        const double x = (random() % 700) / 1000.0;
        const double y = (random() % 700) / 1000.0;
        json +=
            std::string(i ? "," : "") + R"({"deviceId":"{)" + kDevice + R"(}","timestampUs":)" +
            std::to_string(kStartUs + i * 400'000LL) +
            R"(,"durationUs":40000,"streamIndex":"primary","objectMetadataList":[{"trackId":"{)" +
            track + R"(}","typeId":")" + types[i % 4] +
            R"(","objectMetadataType":"regular","boundingBox":{"x":)" + std::to_string(x) +
            R"(,"y":)" + std::to_string(y) + R"(,"width":0.12,"height":0.25},"attributes":[)" +
            R"({"name":"color","value":")" + colors[random() % 6] + R"("},)" +
            R"({"name":"make","value":")" + makes[random() % 5] + R"("},)" +
            R"({"name":"plate","value":")" + plate + R"("}]}]})";
    }
    return json + "]";
}

std::string searchRequest(bool gzip)
{
    return std::string("GET /metadataDb/v1/data?internal_lookup=1&deviceIds=") + kDevice +
           " HTTP/1.1\r\nHost: b\r\n" + (gzip ? "Accept-Encoding: gzip\r\n" : "") + "\r\n";
}

double ms(nanoseconds duration)
{
    return duration_cast<microseconds>(duration).count() / 1000.0;
}

}  // namespace

int main(int argc, char** argv)
{
    int rounds = 2000;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            rounds = 300;
        } else {
            std::fprintf(stderr, "usage: %s [--quick]\n", argv[0]);
            return 2;
        }
    }

    const fs::path dir = fs::temp_directory_path() / ("http_gzip." + std::to_string(::getpid()));
    fs::create_directories(dir);
    kest::cloud::storage::metadatadb::test::ServiceProcess service(
        KEST_METADATA_STORAGE_PATH,
        {"--http/listenOn=127.0.0.1:0", "--dataDir=" + dir.string(), "--log/level=info",
         "--MongoDb/uri=mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100"});
    const auto listening =
        service.waitForLine(std::regex(R"(HTTP server is listening on \{ 127\.0\.0\.1:(\d+) \})"));
    if (!listening) {
        std::fprintf(stderr, "the service did not start:\n%s\n", service.output().c_str());
        return 1;
    }
    const auto port = static_cast<std::uint16_t>(std::stoi((*listening)[1].str()));

    HttpConnection connection(port);
    if (connection.exchange(kest::bench::postJsonRequest("/metadataDb/v1/data", packets())) !=
        200) {
        std::fprintf(stderr, "the packets were not accepted\n");
        return 1;
    }
    // Written within the commit delay; then the answer is whole.
    std::string plain;
    const auto deadline = steady_clock::now() + 20s;
    while (steady_clock::now() < deadline) {
        connection.exchange(searchRequest(false), &plain);
        if (plain.find("7a000099-") != std::string::npos)
            break;
        std::this_thread::sleep_for(50ms);
    }
    std::string compressed;
    connection.exchange(searchRequest(true), &compressed);
    std::string decoded;
    if (Gzip::decompress(compressed, 64 << 20, &decoded) != Gzip::DecodeResult::ok ||
        decoded != plain) {
        std::fprintf(stderr, "the gzip answer does not decode to the plain one\n");
        return 1;
    }

    // Alternating, so that both see the same machine.
    LatencyStats plainTimes;
    LatencyStats gzipTimes;
    LatencyStats decodeTimes;
    std::string body;
    for (int i = 0; i < rounds; ++i) {
        for (const bool gzip : {false, true}) {
            const auto start = steady_clock::now();
            connection.exchange(searchRequest(gzip), &body);
            (gzip ? gzipTimes : plainTimes).add(steady_clock::now() - start);
        }
        const auto start = steady_clock::now();
        Gzip::decompress(compressed, 64 << 20, &decoded);
        decodeTimes.add(steady_clock::now() - start);
    }
    service.signal(SIGTERM);
    service.wait();
    std::error_code ignored;
    fs::remove_all(dir, ignored);

    const double plainMs = ms(plainTimes.percentile(50));
    const double gzipMs = ms(gzipTimes.percentile(50));
    const double decodeMs = ms(decodeTimes.percentile(50));
    const double savedBytes = static_cast<double>(plain.size() - compressed.size());
    // On a link of B bit/s the answer takes its bytes * 8 / B longer to arrive; gzip costs the
    // service its compression (in the loopback difference) and the client its decoding.
    const auto savedOn = [&](double bitsPerSecond) {
        return savedBytes * 8 / bitsPerSecond * 1000 - (gzipMs - plainMs) - decodeMs;
    };

    std::printf("search answering %d tracks, %d rounds of each over one kept-alive connection\n",
                kTracks, rounds);
    std::printf("bytes: plain %zu, gzip %zu (%.1f%% of plain)\n", plain.size(), compressed.size(),
                100.0 * compressed.size() / plain.size());
    std::printf(
        "loopback p50: plain %.3f ms, gzip %.3f ms (+%.3f ms to compress); client decode "
        "p50 %.3f ms\n",
        plainMs, gzipMs, gzipMs - plainMs, decodeMs);
    std::printf("time saved per answer: %.2f ms at 100 Mbit/s, %.2f ms at 10 Mbit/s\n",
                savedOn(100e6), savedOn(10e6));

    using kest::bench::recordFigure;
    recordFigure(Figure::measured(kSection, "answer bytes, plain", plain.size(), "bytes"));
    recordFigure(Figure::measured(kSection, "answer bytes, gzip", compressed.size(), "bytes"));
    recordFigure(Figure::measured(kSection, "gzip / plain bytes",
                                  static_cast<double>(compressed.size()) / plain.size(), "x"));
    recordFigure(Figure::measured(kSection, "loopback p50, plain", plainMs, "ms"));
    recordFigure(
        Figure::measured(kSection, "loopback p50, gzip (compression included)", gzipMs, "ms"));
    recordFigure(Figure::measured(kSection, "client decode p50", decodeMs, "ms"));
    recordFigure(
        Figure::measured(kSection, "time saved per answer at 100 Mbit/s", savedOn(100e6), "ms"));
    recordFigure(
        Figure::measured(kSection, "time saved per answer at 10 Mbit/s", savedOn(10e6), "ms"));
    return 0;
}
