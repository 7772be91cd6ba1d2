// What gzip on the wire saves on a search that answers 100 tracks: the bytes of the answer with
// and without "Accept-Encoding: gzip", the time to answer each over loopback, the client's time
// to decode, and from these the time saved on links of 10 and 100 Mbit/s. See README.md.

#include <chrono>
#include <cstdio>
#include <random>
#include <regex>
#include <string>
#include <thread>

#include <kest/cloud/storage/testing/service_process.h>
#include <kest/cloud/storage/testing/temporary_directory.h>
#include <kest/cloud/storage/testing/wait_for.h>
#include <kest/network/http/gzip.h>

#include "command_line.h"
#include "figure.h"
#include "http_client.h"
#include "latency_stats.h"

using namespace std::chrono;
using kest::bench::Figure;
using kest::bench::HttpClient;
using kest::bench::LatencyStats;
namespace test = kest::cloud::storage::metadatadb::test;
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

const std::string kSearch =
    std::string("/metadataDb/v1/data?internal_lookup=1&deviceIds=") + kDevice;

double ms(nanoseconds duration)
{
    return duration_cast<microseconds>(duration).count() / 1000.0;
}

}  // namespace

int main(int argc, char** argv)
{
    bool quick = false;
    kest::bench::CommandLine commandLine(
        "http_gzip_bench [OPTIONS]: what gzip on the wire saves on a search of 100 tracks");
    commandLine.flag("--quick", &quick, "300 rounds instead of 2000");
    bool help = false;
    if (!commandLine.parse(argc, argv, &help))
        return help ? 0 : 2;
    const int rounds = quick ? 300 : 2000;

    test::TemporaryDirectory dir;
    test::ServiceProcess service(
        KEST_METADATA_STORAGE_PATH,
        {"--http/listenOn=127.0.0.1:0", "--dataDir=" + dir.path(), "--log/level=info",
         "--MongoDb/uri=mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100"});
    const auto listening =
        service.waitForLine(std::regex(R"(HTTP server is listening on \{ 127\.0\.0\.1:(\d+) \})"));
    if (!listening) {
        std::fprintf(stderr, "the service did not start:\n%s\n", service.output().c_str());
        return 1;
    }
    const std::string url = "http://127.0.0.1:" + (*listening)[1].str();
    HttpClient plainClient(url), gzipClient(url);
    gzipClient.setHeader("Accept-Encoding", "gzip");

    if (plainClient.post("/metadataDb/v1/data", packets()).status != 200) {
        std::fprintf(stderr, "the packets were not accepted\n");
        return 1;
    }
    // Written within the commit delay; then the answer is whole.
    std::string plain;
    test::waitFor([&] {
        plain = plainClient.get(kSearch).body;
        return plain.find("7a000099-") != std::string::npos;
    });
    const std::string compressed = gzipClient.get(kSearch).body;
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
    for (int i = 0; i < rounds; ++i) {
        for (const bool gzip : {false, true}) {
            const auto start = steady_clock::now();
            (gzip ? gzipClient : plainClient).get(kSearch);
            (gzip ? gzipTimes : plainTimes).add(steady_clock::now() - start);
        }
        const auto start = steady_clock::now();
        Gzip::decompress(compressed, 64 << 20, &decoded);
        decodeTimes.add(steady_clock::now() - start);
    }
    service.terminate(10s);

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
