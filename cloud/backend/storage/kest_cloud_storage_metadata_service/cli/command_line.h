#pragma once

#include <QStringList>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <kest/cloud/storage/controller/activity_request_data.h>
#include <kest/cloud/storage/controller/data_request_data.h>
#include <kest/cloud/storage/controller/errors_request_data.h>
#include <kest/cloud/storage/controller/optimal_instance_request.h>
#include <kest/utils/url.h>
#include <kest/vms_common/zu_uuid.h>

class QCommandLineParser;

namespace kest::cloud::storage::metadatadb::cli {

/** What one run of the command-line client is asked to do. */
struct Invocation
{
    enum class Command
    {
        save,
        search,
        errors,
        optimalInstance,
        activity,
    };

    Command command = Command::search;
    kest::utils::Url url;
    std::optional<std::chrono::milliseconds> timeout;
    /** JSON even on a terminal. */
    bool json = false;
    /** Log why calls fail (connection errors, the service's error texts). */
    bool verbose = false;
    /** Sent as "Authorization: Bearer": --token, else the environment's KEST_METADATA_TOKEN. */
    std::string token;
    /** https: the CAs to trust instead of the system's, and a client certificate with its key. */
    std::string caFile;
    std::string certificateFile;
    std::string privateKeyFile;

    /** save: the file to read packets from; empty for standard input. */
    std::string packetsFile;
    /** search, and the filter and internal_lookup of activity. */
    DataRequestData search;
    ActivityRequestData activity;
    ErrorsRequestData errors;
    /** errors: empty for every device. */
    std::vector<ZuUuid> errorDevices;
    OptimalInstanceRequest optimalInstance;
};

/**
 * Reads the command line of the client: a command, its options and arguments. A line that cannot
 * be read gives an error text for the user; --help gives the help text.
 */
class CommandLine
{
public:
    enum class Outcome
    {
        run,
        help,
        usageError,
    };

    /** The environment variable that holds the token when --token is not given. */
    static constexpr const char* kTokenVariable = "KEST_METADATA_TOKEN";

    /** `arguments` without the program name; `environmentToken` is kTokenVariable's value. */
    Outcome parse(const QStringList& arguments, const std::string& environmentToken = {});

    const Invocation& invocation() const { return m_invocation; }
    const std::string& error() const { return m_error; }
    static std::string helpText();

    /**
     * Milliseconds since the Unix epoch, or an ISO 8601 date and time ("2026-01-01T10:00:00",
     * UTC unless an offset is given).
     */
    static std::optional<std::int64_t> parseTime(const QString& text);

private:
    Outcome parseErrors(const QCommandLineParser& parser, const QStringList& positional);
    Outcome parseSearch(const QCommandLineParser& parser, const std::vector<ZuUuid>& devices);
    Outcome parseActivity(const QCommandLineParser& parser);
    Outcome fail(std::string error);

    Invocation m_invocation;
    std::string m_error;
};

}  // namespace kest::cloud::storage::metadatadb::cli
