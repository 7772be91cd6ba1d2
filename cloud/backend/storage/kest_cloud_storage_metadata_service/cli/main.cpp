// metadata_storage_client: the metadata storage service's API from the command line.

#include <unistd.h>

#include <QStringList>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include <kest/cloud/storage/api/client_factory.h>
#include <kest/cloud/storage/view/api_paths.h>
#include <kest/reflect/json.h>
#include <kest/utils/log/logger.h>

#include "command_line.h"
#include "text_output.h"

namespace kest::cloud::storage::metadatadb::cli {
namespace {

using kest::common::metadata::ObjectMetadataPacket;
using kest::network::http::StatusCode;
using Command = Invocation::Command;

constexpr int kExitOk = 0;
constexpr int kExitCallFailed = 1;
constexpr int kExitUsage = 2;

constexpr const char* kProgram = "metadata_storage_client";

const char* commandName(Command command)
{
    switch (command) {
        case Command::save:
            return "save";
        case Command::search:
            return "search";
        case Command::errors:
            return "errors";
        case Command::optimalInstance:
            return "optimal-instance";
        case Command::activity:
            return "activity";
    }
    return "call";
}

/** The packets of a JSON list, or of one JSON object; false with the reason otherwise. */
bool readPackets(const std::string& file, std::vector<ObjectMetadataPacket>* packets,
                 std::string* error)
{
    std::string text;
    const std::string source = file.empty() ? "standard input" : file;
    if (file.empty()) {
        text.assign(std::istreambuf_iterator<char>(std::cin), {});
    } else {
        std::ifstream input(file, std::ios::binary);
        if (!input) {
            *error = "cannot open " + file + ": " + std::strerror(errno);
            return false;
        }
        text.assign(std::istreambuf_iterator<char>(input), {});
    }
    const auto result = kest::reflect::json::deserialize(text, packets);
    if (result.success)
        return true;
    ObjectMetadataPacket packet;
    if (kest::reflect::json::deserialize(text, &packet).success) {
        packets->assign(1, std::move(packet));
        return true;
    }
    *error = "cannot read packets from " + source + ": " + result.errorDescription;
    return false;
}

/** How the last exchange of the call ended: the result code alone says 500 for no answer. */
class LastExchange
{
public:
    void record(const kest::network::http::ApiExchangeReport& report)
    {
        std::lock_guard lock(m_mutex);
        m_report = report;
    }
    std::optional<kest::network::http::ApiExchangeReport> get() const
    {
        std::lock_guard lock(m_mutex);
        return m_report;
    }

private:
    mutable std::mutex m_mutex;
    std::optional<kest::network::http::ApiExchangeReport> m_report;
};

int failed(const Invocation& run, StatusCode::Value status, const LastExchange& last)
{
    std::cerr << kProgram << ": " << commandName(run.command) << " at " << run.url.toString()
              << " failed: ";
    const auto report = last.get();
    if (report && report->error) {
        std::cerr << explainTransportError(report->error, run.url) << '\n';
        return kExitCallFailed;
    }
    if (report && report->status != StatusCode::undefined)
        status = report->status;
    std::cerr << static_cast<int>(status) << ' ' << StatusCode::toString(status) << ": "
              << (report && !report->errorText.empty() ? report->errorText
                                                       : explainStatus(run.command, status))
              << '\n';
    return kExitCallFailed;
}

template <typename T>
void printJson(const T& value)
{
    std::cout << kest::reflect::json::serialize(value) << '\n';
}

int execute(const Invocation& run)
{
    std::vector<ObjectMetadataPacket> packets;
    if (run.command == Command::save) {
        std::string error;
        if (!readPackets(run.packetsFile, &packets, &error)) {
            std::cerr << kProgram << ": " << error << '\n';
            return kExitUsage;
        }
    }

    LastExchange last;
    const auto client = api::ClientFactory::instance().create(run.url);
    if (!client)
        return failed(run, StatusCode::internalServerError, last);
    if (run.timeout)
        client->setRequestTimeout(*run.timeout);
    client->setExchangeObserver(
        [&last](const kest::network::http::ApiExchangeReport& report) { last.record(report); });
    if (!run.token.empty()) {
        kest::network::http::client::Credentials credentials;
        credentials.bearerToken = run.token;
        client->setCredentials(credentials);
    }
    if (!run.caFile.empty() || !run.certificateFile.empty()) {
        try {
            client->setTlsContext(std::make_shared<kest::network::ssl::ClientContext>(
                kest::network::ssl::ClientContext::Options{run.caFile, run.certificateFile,
                                                           run.privateKeyFile}));
        } catch (const std::runtime_error& e) {
            std::cerr << kProgram << ": " << e.what() << '\n';
            return kExitUsage;
        }
    }
    const bool table = !run.json && ::isatty(STDOUT_FILENO);

    switch (run.command) {
        case Command::save: {
            const auto [status] = client->saveDataSync(packets);
            if (status != StatusCode::ok)
                return failed(run, status, last);
            std::cout << packets.size() << (packets.size() == 1 ? " packet" : " packets")
                      << " accepted\n";
            return kExitOk;
        }
        case Command::search: {
            const auto [status, tracks] = client->getDataSync(run.search);
            if (status != StatusCode::ok)
                return failed(run, status, last);
            if (table)
                std::cout << trackTable(tracks);
            else
                printJson(tracks);
            return kExitOk;
        }
        case Command::activity: {
            const auto [status, activity] = client->getActivitySync(run.activity);
            if (status != StatusCode::ok)
                return failed(run, status, last);
            if (table)
                std::cout << activityChart(activity);
            else
                printJson(activity);
            return kExitOk;
        }
        case Command::errors: {
            QUrlQuery query;
            serializeToUrlQuery(run.errors, &query);
            // Every device: the service reads a device list of separators alone as "all".
            std::string_view base = ApiPaths::kErrorHandlerPath;
            base.remove_suffix(std::string_view("{deviceIds}").size());
            const auto [status, errors] =
                run.errorDevices.empty() ? client->makeSyncCallInternal<std::vector<DbErrorData>>(
                                               "GET", std::string(base) + ";", query)
                                         : client->getErrorsSync(run.errors, run.errorDevices);
            if (status != StatusCode::ok)
                return failed(run, status, last);
            if (table)
                std::cout << errorsTable(errors);
            else
                printJson(errors);
            return kExitOk;
        }
        case Command::optimalInstance: {
            const auto [status, url] = client->getOptimalInstanceSync(run.optimalInstance);
            if (status != StatusCode::ok)
                return failed(run, status, last);
            if (run.json)
                printJson(url);
            else
                std::cout << url << '\n';
            return kExitOk;
        }
    }
    return kExitUsage;
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::cli

int main(int argc, char** argv)
{
    using namespace kest::cloud::storage::metadatadb::cli;
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments.push_back(QString::fromLocal8Bit(argv[i]));

    CommandLine commandLine;
    const char* token = std::getenv(CommandLine::kTokenVariable);
    switch (commandLine.parse(arguments, token ? token : "")) {
        case CommandLine::Outcome::help:
            std::cout << CommandLine::helpText();
            return kExitOk;
        case CommandLine::Outcome::usageError:
            std::cerr << kProgram << ": " << commandLine.error() << " (see --help)\n";
            return kExitUsage;
        case CommandLine::Outcome::run:
            break;
    }
    const Invocation& run = commandLine.invocation();
    kest::utils::log::Logger::instance().setLevel(run.verbose ? kest::utils::log::Level::debug
                                                              : kest::utils::log::Level::warning);
    return execute(run);
}
