// The command-line client run as a program against the service running in-process, whose shared
// database is scripted (it names this instance as the holder of any data).

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <fstream>

#include <kest/analytics_db/object_track_ex.h>
#include <kest/cloud/storage/controller/activity_answer.h>
#include <kest/cloud/storage/testing/packets.h>
#include <kest/cloud/storage/testing/running_service.h>
#include <kest/cloud/storage/testing/scripted_distribution.h>
#include <kest/cloud/storage/testing/service_process.h>
#include <kest/cloud/storage/testing/temporary_directory.h>
#include <kest/network/http/server/token_table.h>
#include <kest/network/testing/test_certificates.h>
#include <kest/reflect/json.h>

#include "fake_peers.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using kest::analytics::db::ObjectTrackEx;

struct CliResult
{
    int exitCode = -1;
    std::string output;  //< Standard output and error together.
};

CliResult run(const std::string& program, std::vector<std::string> args)
{
    ServiceProcess process(program, std::move(args));
    if (!process.started())
        return {};
    const int status = process.wait();
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, process.output()};
}

CliResult cli(std::vector<std::string> args)
{
    return run(KEST_CLIENT_CLI_PATH, std::move(args));
}

/** Through a shell, for redirections and for a terminal made by script(1). */
CliResult shell(const std::string& command)
{
    return run("/bin/sh", {"-c", command});
}

std::vector<ZuUuid> trackIdsOf(const CliResult& result)
{
    std::vector<ObjectTrackEx> tracks;
    EXPECT_TRUE(kest::reflect::json::deserialize(result.output, &tracks).success) << result.output;
    std::vector<ZuUuid> ids;
    for (const auto& track : tracks)
        ids.push_back(track.id);
    return ids;
}

class CliTest : public ::testing::Test
{
protected:
    std::string write(const std::string& name, const std::string& text)
    {
        const std::string path = m_dir.path() + "/" + name;
        std::ofstream(path) << text;
        return path;
    }

    ScriptedDistribution m_distribution;
    TemporaryDirectory m_dir;
    const ZuUuid m_device = ZuUuid::createUuid();
};

TEST_F(CliTest, SavesSearchesAndReportsAsTheApiAnswers)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    m_distribution.setAddresses({service.url()});
    m_distribution.setLoads({{"http://h1:1", 0, 0.5}, {"http://h2:2", 0, 0.1}});
    const std::string url = "--url=" + service.url();
    const std::int64_t t0 = 1'767'225'600'000;  // 2026-01-01T00:00:00Z
    const ZuUuid person = ZuUuid::createUuid(), car = ZuUuid::createUuid(),
                 truck = ZuUuid::createUuid();

    const auto saved = cli(
        {"save", url,
         write("two.json", kest::reflect::json::serialize(std::vector{
                               packet(m_device, t0, person, "person", {{"color", "red"}}),
                               packet(m_device, t0 + 10'000, car, "car", {{"make", "Toyota"}})}))});
    EXPECT_EQ(saved.exitCode, 0) << saved.output;
    EXPECT_EQ(saved.output, "2 packets accepted\n");
    // One packet, not in a list, from standard input.
    const auto piped =
        shell(std::string(KEST_CLIENT_CLI_PATH) + " save " + url + " < " +
              write("one.json",
                    kest::reflect::json::serialize(packet(m_device, t0 + 20'000, truck, "truck"))));
    EXPECT_EQ(piped.exitCode, 0) << piped.output;
    EXPECT_EQ(piped.output, "1 packet accepted\n");
    service.events().flush();

    const std::string device = "--device=" + m_device.toSimpleStdString();
    EXPECT_EQ(trackIdsOf(cli({"search", url, device, "--internal"})),
              (std::vector{truck, car, person}));
    EXPECT_EQ(trackIdsOf(cli({"search", url, device, "--type=car", "--type=truck", "--internal"})),
              (std::vector{truck, car}));
    // Distributed (back to this instance), a period in ISO 8601 and in milliseconds.
    EXPECT_EQ(trackIdsOf(cli({"search", url, device, "--from=2026-01-01T00:00:05",
                              "--to=2026-01-01T00:00:30Z", "--sort=asc", "--limit=1"})),
              (std::vector{car}));
    EXPECT_EQ(trackIdsOf(cli({"search", url, device, "--start-ms", std::to_string(t0),
                              "--duration-ms=1000", "--text=red"})),
              (std::vector{person}));

    // On a terminal: a table, unless JSON is asked for.
    const std::string search = std::string(KEST_CLIENT_CLI_PATH) + " search " + url + " " + device;
    auto table = shell("script -qec '" + search + " --internal --text=toyota' /dev/null");
    EXPECT_EQ(table.exitCode, 0);
    EXPECT_NE(table.output.find("FIRST SEEN (UTC)"), std::string::npos) << table.output;
    EXPECT_NE(table.output.find("2026-01-01 00:00:10.000  " + m_device.toSimpleStdString() +
                                "  car   " + car.toSimpleStdString() + "  make=Toyota"),
              std::string::npos)
        << table.output;
    EXPECT_NE(table.output.find("1 track"), std::string::npos) << table.output;
    table = shell("script -qec '" + search + " --json' /dev/null");
    EXPECT_EQ(table.output.find("FIRST SEEN"), std::string::npos) << table.output;
    EXPECT_NE(table.output.find(toString(truck)), std::string::npos) << table.output;

    EXPECT_EQ(cli({"optimal-instance", url}).output, "http://h2:2\n");
    EXPECT_EQ(cli({"optimal-instance", url, "--json", device}).output, "\"http://h2:2\"\n");
    const auto errors = cli({"errors", url});
    EXPECT_EQ(errors.exitCode, 0);
    EXPECT_EQ(errors.output, "[]\n");
    EXPECT_EQ(cli({"errors", url, m_device.toSimpleStdString(), "--count=1"}).output, "[]\n");
}

TEST_F(CliTest, FailedCallsExit1AndBadCommandLines2WithTheReason)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    const std::string url = "--url=" + service.url();

    struct Case
    {
        CliResult result;
        int exitCode;
        std::string text;
    };
    const Case cases[] = {
        {cli({"optimal-instance", url}), 1,
         "optimal-instance at " + service.url() +
             " failed: 500 Internal Server Error: no instance has published its load"},
        {cli({"search", "--url=http://127.0.0.1:1"}), 1,
         "search at http://127.0.0.1:1 failed: cannot connect to 127.0.0.1:1: connection refused"},
        {cli({"save", url, m_dir.path() + "/missing.json"}), 2, "cannot open"},
        {cli({"save", url, write("bad.json", R"([{"deviceId": 5}])")}), 2,
         "cannot read packets from " + m_dir.path() + "/bad.json: [0].deviceId"},
        {cli({"search", "--device=camera-1"}), 2, "--device: not a UUID: camera-1"},
        {cli({"search", "--from=yesterday"}), 2, "--from: not a time"},
        {cli({"search", "--from=1", "--start-ms=1"}), 2, "not both"},
        {cli({"search", "--box=0,0,1"}), 2, "--box"},
        {cli({"errors", "--clear"}), 2, "--clear needs --timestamp"},
        {cli({"errors", "--text=x"}), 2, "--text is not an option of errors"},
        {cli({"frobnicate"}), 2, "unknown command \"frobnicate\""},
        {cli({}), 2, "no command given"},
        {cli({"search", "--url=ftp://h/"}), 2, "not an http or https URL"},
        {cli({"search", "--cert=c.pem"}), 2, "--cert and --key go together"},
        {cli({"search", "--cacert=ca.pem"}), 2, "are for https URLs"},
        {cli({"search", "--url=https://127.0.0.1:1", "--cacert=" + m_dir.path() + "/none.pem"}), 2,
         "Cannot use the CA file " + m_dir.path() + "/none.pem: No such file or directory"},
    };
    for (const auto& [result, exitCode, text] : cases) {
        EXPECT_EQ(result.exitCode, exitCode) << text << ": " << result.output;
        EXPECT_NE(result.output.find(text), std::string::npos) << result.output;
    }
    const auto help = cli({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_EQ(help.output.rfind("Usage: metadata_storage_client COMMAND", 0), 0u) << help.output;
}

TEST_F(CliTest, SaysWhyNoAnswerCameAndCallsWithATokenOverHttps)
{
    kest::network::test::TestCertificates certificates;
    const std::string token = "cli-3d9a61";
    const std::string tokens =
        write("tokens", "operator " + kest::network::http::server::TokenTable::credentialOf(token) +
                            " * /metadataDb/v1/*\n");
    RunningService service(
        kUnreachableMongo,
        {"--http/certificateFile=" + certificates.server.certificate,
         "--http/privateKeyFile=" + certificates.server.key, "--http/tokensFile=" + tokens});
    ASSERT_TRUE(service.started());
    const std::string url = "--url=https://127.0.0.1:" + std::to_string(service.port());
    const std::string where = "127.0.0.1:" + std::to_string(service.port());
    const std::string cacert = "--cacert=" + certificates.caFile;
    const std::string search = "search --internal --device=" + m_device.toSimpleStdString();
    SilentPeer silent;

    struct Case
    {
        CliResult result;
        int exitCode;
        std::string text;
    };
    const Case cases[] = {
        {cli({"search", url, "--token=" + token}), 1,
         "the TLS certificate of " + where +
             " is not trusted: unable to get local issuer certificate"},
        {cli({"search", url, cacert}), 1,
         "failed: 401 Unauthorized: Credentials are required: a valid bearer token or client "
         "certificate"},
        {cli({"search", url, cacert, "--token=wrong"}), 1, "401 Unauthorized"},
        {cli({"search", url, cacert, "--token=" + token, "--internal"}), 0, "[]"},
        {shell("KEST_METADATA_TOKEN=" + token + " " KEST_CLIENT_CLI_PATH " " + search + " " + url +
               " " + cacert),
         0, "[]"},
        {shell("KEST_METADATA_TOKEN=" + token + " " KEST_CLIENT_CLI_PATH " " + search + " " + url +
               " " + cacert + " --token=other"),
         1, "401 Unauthorized"},
        {cli({"search", "--url=http://" + where}), 1, "failed: no answer from " + where},
        {cli({"search", "--url=" + silent.url(), "--timeout-ms=300"}), 1,
         "no answer in time from 127.0.0.1:"},
    };
    for (const auto& [result, exitCode, text] : cases) {
        EXPECT_EQ(result.exitCode, exitCode) << text << ": " << result.output;
        EXPECT_NE(result.output.find(text), std::string::npos) << result.output;
        EXPECT_EQ(result.output.find(token), std::string::npos) << result.output;
    }

    RunningService plain(kUnreachableMongo);
    const auto tlsToPlain =
        cli({"search", "--url=https://127.0.0.1:" + std::to_string(plain.port()), cacert});
    EXPECT_EQ(tlsToPlain.exitCode, 1);
    EXPECT_NE(tlsToPlain.output.find(
                  "the TLS handshake with 127.0.0.1:" + std::to_string(plain.port()) + " failed: "),
              std::string::npos)
        << tlsToPlain.output;
    EXPECT_NE(tlsToPlain.output.find("(does it serve TLS on this port?)"), std::string::npos);
}

TEST_F(CliTest, ActivityAsBarsASparklineOrJson)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    const std::string url = "--url=" + service.url();
    const std::int64_t t0 = 1'767'225'600'000;  // 2026-01-01T00:00:00Z
    ASSERT_EQ(service.post({packet(m_device, t0 + 1000, ZuUuid::createUuid(), "person"),
                            packet(m_device, t0 + 2000, ZuUuid::createUuid(), "car"),
                            packet(m_device, t0 + 61'000, ZuUuid::createUuid(), "car")}),
              200);
    const std::vector<std::string> minutes{
        "activity",         url, "--internal", "--from=2026-01-01T00:00", "--to=2026-01-01T00:02",
        "--bucket-ms=60000"};

    const auto json = cli(minutes);
    EXPECT_EQ(json.exitCode, 0) << json.output;
    ActivityAnswer answer;
    ASSERT_TRUE(kest::reflect::json::deserialize(json.output, &answer).success) << json.output;
    ASSERT_EQ(answer.buckets.size(), 2u);
    EXPECT_EQ(answer.buckets[0].tracks, 2);
    EXPECT_EQ(answer.buckets[1].byType, (std::map<std::string, std::int64_t>{{"car", 1}}));

    std::string command = KEST_CLIENT_CLI_PATH;
    for (const auto& arg : minutes)
        command += " " + arg;
    const auto bars = shell("script -qec '" + command + " --heatmap' /dev/null");
    EXPECT_EQ(bars.exitCode, 0);
    std::string fullBar;
    for (int i = 0; i < 40; ++i)
        fullBar += "█";
    EXPECT_NE(bars.output.find("2026-01-01 00:00:00.000       2  " + fullBar + "  car 1, person 1"),
              std::string::npos)
        << bars.output;
    EXPECT_NE(bars.output.find("2 buckets of 1 min, at most 2 tracks in one"), std::string::npos)
        << bars.output;
    EXPECT_NE(bars.output.find("Where (a 16x16 grid over the frame)"), std::string::npos);

    // One bucket a second: a sparkline, a line per 64 buckets.
    const auto sparkline = shell("script -qec '" + command + " --bucket-ms=1000' /dev/null");
    EXPECT_EQ(sparkline.exitCode, 0);
    EXPECT_NE(sparkline.output.find("2026-01-01 00:01:04.000  "), std::string::npos)
        << sparkline.output;
    EXPECT_NE(sparkline.output.find("120 buckets of 1 s"), std::string::npos) << sparkline.output;

    for (const auto& [args, text] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"activity", url, "--from=2026-01-01T00:00"}, "a period with an end"},
             {{"activity", url, "--duration-ms=5", "--bucket-ms=0"}, "--bucket-ms: not a positive"},
             {{"activity", url, "--duration-ms=5", "--limit=3"},
              "--limit is not an option of activity"},
             {{"search", url, "--heatmap"}, "--heatmap is not an option of search"}}) {
        const auto refused = cli(args);
        EXPECT_EQ(refused.exitCode, 2) << refused.output;
        EXPECT_NE(refused.output.find(text), std::string::npos) << refused.output;
    }
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
