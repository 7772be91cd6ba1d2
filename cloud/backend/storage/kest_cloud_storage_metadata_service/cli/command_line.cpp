#include "command_line.h"

#include <QCommandLineParser>
#include <QDateTime>
#include <limits>
#include <map>
#include <set>

namespace kest::cloud::storage::metadatadb::cli {

namespace {

using Command = Invocation::Command;

constexpr const char* kDefaultUrl = "http://127.0.0.1:8080";

const std::map<QString, Command> kCommands = {
    {"save", Command::save},         {"search", Command::search},
    {"errors", Command::errors},     {"optimal-instance", Command::optimalInstance},
    {"activity", Command::activity},
};

constexpr const char* kCommandList = "save, search, activity, errors or optimal-instance";

/** An option and the commands that take it; none listed: every command. */
struct CommandOption
{
    QCommandLineOption option;
    std::set<Command> commands;
};

std::vector<CommandOption> commandOptions()
{
    const auto withValue = [](const QString& name, const QString& valueName) {
        return QCommandLineOption(name, QString(), valueName);
    };
    const std::set<Command> search{Command::search};
    const std::set<Command> filter{Command::search, Command::activity};
    const std::set<Command> activity{Command::activity};
    const std::set<Command> errors{Command::errors};
    return {
        {QCommandLineOption(QStringList{"h", "help"}), {}},
        {withValue("url", "URL"), {}},
        {QCommandLineOption("json"), {}},
        {QCommandLineOption("verbose"), {}},
        {withValue("timeout-ms", "MS"), {}},
        {withValue("token", "TOKEN"), {}},
        {withValue("cacert", "FILE"), {}},
        {withValue("cert", "FILE"), {}},
        {withValue("key", "FILE"), {}},
        {withValue("device", "ID"), {Command::search, Command::activity, Command::optimalInstance}},
        {withValue("type", "TYPE"), filter},
        {withValue("track", "ID"), filter},
        {withValue("from", "TIME"), filter},
        {withValue("to", "TIME"), filter},
        {withValue("start-ms", "MS"), filter},
        {withValue("duration-ms", "MS"), filter},
        {withValue("box", "X,Y,W,H"), filter},
        {withValue("text", "TEXT"), filter},
        {withValue("limit", "N"), search},
        {QCommandLineOption("full-track"), search},
        {withValue("sort", "ORDER"), search},
        {QCommandLineOption("best-shot-only"), filter},
        {withValue("engine", "ID"), filter},
        {QCommandLineOption("internal"), filter},
        {withValue("bucket-ms", "MS"), activity},
        {QCommandLineOption("heatmap"), activity},
        {withValue("timestamp", "TIME"), errors},
        {withValue("count", "N"), errors},
        {QCommandLineOption("clear"), errors},
        {withValue("vms", "ID"), {Command::optimalInstance}},
    };
}

std::optional<ZuUuid> parseUuid(const QString& text)
{
    ZuUuid id;
    if (!ZuUuid::parse(text.toStdString(), &id))
        return std::nullopt;
    return id;
}

std::optional<std::int64_t> parseInteger(const QString& text)
{
    bool ok = false;
    const qlonglong value = text.toLongLong(&ok, 10);
    return ok ? std::optional<std::int64_t>(value) : std::nullopt;
}

}  // namespace

std::optional<std::int64_t> CommandLine::parseTime(const QString& text)
{
    if (const auto milliseconds = parseInteger(text))
        return milliseconds;
    QDateTime time = QDateTime::fromString(text, Qt::ISODateWithMs);
    if (!time.isValid())
        return std::nullopt;
    if (time.timeSpec() == Qt::LocalTime)
        time.setTimeSpec(Qt::UTC);
    return time.toMSecsSinceEpoch();
}

CommandLine::Outcome CommandLine::fail(std::string error)
{
    m_error = std::move(error);
    return Outcome::usageError;
}

CommandLine::Outcome CommandLine::parse(const QStringList& arguments,
                                        const std::string& environmentToken)
{
    QCommandLineParser parser;
    const auto options = commandOptions();
    for (const auto& known : options)
        parser.addOption(known.option);
    if (!parser.parse(QStringList{"metadata_storage_client"} + arguments))
        return fail(parser.errorText().toStdString());
    if (parser.isSet("help"))
        return Outcome::help;

    QStringList positional = parser.positionalArguments();
    if (positional.isEmpty())
        return fail(std::string("no command given: ") + kCommandList);
    const auto command = kCommands.find(positional.takeFirst());
    if (command == kCommands.end())
        return fail("unknown command \"" + parser.positionalArguments().first().toStdString() +
                    "\": " + kCommandList);
    Invocation& run = m_invocation;
    run.command = command->second;

    for (const QString& name : parser.optionNames()) {
        for (const auto& known : options) {
            if (known.option.names().contains(name) && !known.commands.empty() &&
                !known.commands.contains(run.command)) {
                return fail("--" + name.toStdString() + " is not an option of " +
                            command->first.toStdString());
            }
        }
    }

    const QString url = parser.isSet("url") ? parser.value("url") : QString(kDefaultUrl);
    const auto parsedUrl = kest::utils::Url::parse(url.toStdString());
    if (!parsedUrl || (parsedUrl->scheme() != "http" && parsedUrl->scheme() != "https"))
        return fail("--url: not an http or https URL: " + url.toStdString());
    run.url = *parsedUrl;
    run.json = parser.isSet("json");
    run.verbose = parser.isSet("verbose");
    run.token = parser.isSet("token") ? parser.value("token").toStdString() : environmentToken;
    for (const char c : run.token) {
        if (static_cast<unsigned char>(c) < 0x21 || c == 0x7f)
            return fail("the token holds a blank or control character");
    }
    run.caFile = parser.value("cacert").toStdString();
    run.certificateFile = parser.value("cert").toStdString();
    run.privateKeyFile = parser.value("key").toStdString();
    if (run.certificateFile.empty() != run.privateKeyFile.empty())
        return fail("--cert and --key go together");
    if ((!run.caFile.empty() || !run.certificateFile.empty()) && run.url.scheme() != "https")
        return fail("--cacert, --cert and --key are for https URLs");
    if (parser.isSet("timeout-ms")) {
        const auto timeout = parseInteger(parser.value("timeout-ms"));
        if (!timeout || *timeout <= 0)
            return fail("--timeout-ms: not a positive number of milliseconds");
        run.timeout = std::chrono::milliseconds(*timeout);
    }

    // Device ids of --device, for search and optimal-instance.
    std::vector<ZuUuid> devices;
    for (const QString& text : parser.values("device")) {
        const auto id = parseUuid(text);
        if (!id)
            return fail("--device: not a UUID: " + text.toStdString());
        devices.push_back(*id);
    }

    switch (run.command) {
        case Command::save:
            if (positional.size() > 1)
                return fail("save takes one file of packets (or none for standard input)");
            if (!positional.isEmpty() && positional.first() != "-")
                run.packetsFile = positional.first().toStdString();
            return Outcome::run;

        case Command::optimalInstance:
            if (!positional.isEmpty())
                return fail("optimal-instance takes no arguments");
            run.optimalInstance.deviceIds = devices;
            if (parser.isSet("vms")) {
                const auto vms = parseUuid(parser.value("vms"));
                if (!vms)
                    return fail("--vms: not a UUID: " + parser.value("vms").toStdString());
                run.optimalInstance.vmsId = *vms;
            }
            return Outcome::run;

        case Command::errors:
            return parseErrors(parser, positional);

        case Command::search:
        case Command::activity:
            break;
    }
    if (!positional.isEmpty()) {
        return fail(command->first.toStdString() + " takes options only, not \"" +
                    positional.first().toStdString() + "\"");
    }
    if (const Outcome outcome = parseSearch(parser, devices); outcome != Outcome::run)
        return outcome;
    return run.command == Command::activity ? parseActivity(parser) : Outcome::run;
}

CommandLine::Outcome CommandLine::parseActivity(const QCommandLineParser& parser)
{
    Invocation& run = m_invocation;
    const ZuTimePeriod& period = run.search.filter.timePeriod;
    if (period.isInfinite()) {
        return fail(
            "activity is counted over a period with an end: give --from and --to, or "
            "--start-ms and --duration-ms");
    }
    run.activity.filter = run.search.filter;
    run.activity.internal_lookup = run.search.internal_lookup;
    run.activity.heatmap = parser.isSet("heatmap");
    if (parser.isSet("bucket-ms")) {
        const auto bucketMs = parseInteger(parser.value("bucket-ms"));
        if (!bucketMs || *bucketMs <= 0)
            return fail("--bucket-ms: not a positive number of milliseconds");
        run.activity.bucketMs = *bucketMs;
    }
    return Outcome::run;
}

CommandLine::Outcome CommandLine::parseErrors(const QCommandLineParser& parser,
                                              const QStringList& positional)
{
    Invocation& run = m_invocation;
    for (const QString& text : positional) {
        const auto id = parseUuid(text);
        if (!id)
            return fail("not a device id: " + text.toStdString());
        run.errorDevices.push_back(*id);
    }
    if (parser.isSet("timestamp")) {
        const auto time = parseTime(parser.value("timestamp"));
        if (!time || *time < 0)
            return fail("--timestamp: not a time: " + parser.value("timestamp").toStdString());
        run.errors.timestamp = std::chrono::milliseconds(*time);
    }
    if (parser.isSet("count")) {
        const auto count = parseInteger(parser.value("count"));
        if (!count || *count < 0 || *count > std::numeric_limits<std::uint32_t>::max())
            return fail("--count: not a number of devices");
        run.errors.count = static_cast<std::uint32_t>(*count);
    }
    if (parser.isSet("clear")) {
        // The service forgets nothing without a timestamp: say so rather than do nothing.
        if (!run.errors.timestamp)
            return fail("--clear needs --timestamp: errors that ended before it are forgotten");
        run.errors.clearData = true;
    }
    return Outcome::run;
}

CommandLine::Outcome CommandLine::parseSearch(const QCommandLineParser& parser,
                                              const std::vector<ZuUuid>& devices)
{
    Invocation& run = m_invocation;
    auto& filter = run.search.filter;
    filter.deviceIds.insert(devices.begin(), devices.end());
    for (const QString& type : parser.values("type"))
        filter.objectTypeId.insert(type.toStdString());
    const auto readId = [&parser](const char* option, ZuUuid* out) {
        if (!parser.isSet(option))
            return true;
        const auto id = parseUuid(parser.value(option));
        if (id)
            *out = *id;
        return id.has_value();
    };
    if (!readId("track", &filter.objectTrackId))
        return fail("--track: not a UUID");
    if (!readId("engine", &filter.analyticsEngineId))
        return fail("--engine: not a UUID");

    const bool byTime = parser.isSet("from") || parser.isSet("to");
    const bool byMs = parser.isSet("start-ms") || parser.isSet("duration-ms");
    if (byTime && byMs)
        return fail("give the period as --from/--to or as --start-ms/--duration-ms, not both");
    std::int64_t start = 0;
    std::optional<std::int64_t> end;
    if (byTime) {
        if (parser.isSet("from")) {
            const auto from = parseTime(parser.value("from"));
            if (!from)
                return fail("--from: not a time: " + parser.value("from").toStdString());
            start = *from;
        }
        if (parser.isSet("to")) {
            end = parseTime(parser.value("to"));
            if (!end)
                return fail("--to: not a time: " + parser.value("to").toStdString());
            if (*end < start)
                return fail("--to is before --from");
        }
        filter.timePeriod =
            ZuTimePeriod(start, end ? *end - start : ZuTimePeriod::kInfiniteDuration);
    } else if (byMs) {
        const auto startMs = parseInteger(parser.value("start-ms"));
        if (parser.isSet("start-ms") && !startMs)
            return fail("--start-ms: not a number of milliseconds");
        const auto durationMs = parseInteger(parser.value("duration-ms"));
        if (parser.isSet("duration-ms") && (!durationMs || *durationMs < 0))
            return fail("--duration-ms: not a number of milliseconds");
        filter.timePeriod =
            ZuTimePeriod(startMs.value_or(0), durationMs.value_or(ZuTimePeriod::kInfiniteDuration));
    }

    if (parser.isSet("box")) {
        const char* const boxError = "--box: not x,y,width,height with a positive width and height";
        std::vector<double> numbers;
        for (const QString& part : parser.value("box").split(',')) {
            bool ok = false;
            numbers.push_back(part.trimmed().toDouble(&ok));
            if (!ok)
                return fail(boxError);
        }
        if (numbers.size() != 4 || numbers[2] <= 0 || numbers[3] <= 0)
            return fail(boxError);
        filter.boundingBox =
            kest::common::metadata::Rect{numbers[0], numbers[1], numbers[2], numbers[3]};
    }
    filter.freeText = parser.value("text").toStdString();
    if (parser.isSet("limit")) {
        const auto limit = parseInteger(parser.value("limit"));
        if (!limit || *limit < 0 || *limit > std::numeric_limits<int>::max())
            return fail("--limit: not a number of tracks");
        filter.maxObjectTracksToSelect = static_cast<int>(*limit);
    }
    filter.needFullTrack = parser.isSet("full-track");
    filter.withBestShotOnly = parser.isSet("best-shot-only");
    if (parser.isSet("sort")) {
        const QString order = parser.value("sort");
        if (order != "asc" && order != "desc")
            return fail("--sort: asc or desc");
        filter.sortOrder = order == "asc" ? kest::analytics::db::SortOrder::asc
                                          : kest::analytics::db::SortOrder::desc;
    }
    run.search.internal_lookup = parser.isSet("internal");
    return Outcome::run;
}

std::string CommandLine::helpText()
{
    return R"(Usage: metadata_storage_client COMMAND [OPTIONS] [ARGUMENTS]

The command-line client of the metadata storage service.

Commands:
  save [FILE]               Save object-metadata packets: a JSON list of packets (or one packet)
                            from FILE, or from standard input when FILE is absent or "-".
  search [OPTIONS]          Search tracks. Every instance that holds data of the devices for the
                            period is asked, unless --internal is given; without --device such a
                            distributed search finds nothing ([]), as data is recorded per
                            device. Prints the tracks as JSON, or as a table when standard output
                            is a terminal.
  activity [OPTIONS]        Count the tracks of a search per bucket of time and per type, asking
                            the instances as search does. On a terminal: a bar per bucket (a
                            sparkline when there are many), otherwise the JSON answer.
  errors [DEVICE...]        The periods whose saving failed, per device (every device when none
                            is named).
  optimal-instance          The base URL of the least loaded instance.

Options of every command:
  --url URL                 The service instance (default http://127.0.0.1:8080); https:// for
                            TLS.
  --token TOKEN             The bearer token to call with (default: the environment variable
                            KEST_METADATA_TOKEN, which keeps it out of the process list).
  --cacert FILE             https: trust the CAs of this PEM file instead of the system's.
  --cert FILE, --key FILE   https: present this client certificate (PEM) and its key.
  --json                    JSON output even on a terminal.
  --timeout-ms MS           Give up on a call after MS milliseconds without progress.
  --verbose                 Log every exchange that failed, with the service's error text.
  -h, --help                This text.

Search options, also of activity (each optional; repeated ones select any of their values):
  --device ID               A device (camera) id; repeatable. Needed unless --internal.
  --type TYPE               An object type, such as person; repeatable.
  --track ID                One track.
  --from TIME, --to TIME    The period. TIME: milliseconds since 1970, or ISO 8601 such as
                            2026-01-01T10:00:00 (UTC unless an offset is given).
  --start-ms MS, --duration-ms MS
                            The period as a start and a length in milliseconds.
  --box X,Y,W,H             Tracks that crossed this frame region (relative coordinates, 0 to 1).
  --text TEXT               Words that start words of the tracks' attribute names or values.
  --limit N                 At most N tracks per instance.
  --full-track              With every position of each track.
  --sort asc|desc           Oldest or newest first (default desc).
  --best-shot-only          Only tracks with a best shot.
  --engine ID               Only tracks of this analytics engine.
  --internal                Search the asked instance's own storage only.

Activity options (the search options but --limit, --full-track and --sort; a period is needed):
  --bucket-ms MS            The width of a bucket (default: the period in 100 buckets; at most
                            10000 buckets).
  --heatmap                 Also where the tracks were: a 16x16 grid over the frame.

Errors options:
  --timestamp TIME          Leave out errors that ended before TIME.
  --count N                 At most N devices.
  --clear                   Forget the errors that ended before --timestamp, then report.

Optimal-instance options:
  --vms ID                  The VMS asking (default: the null id).
  --device ID               A device it will send; repeatable.

Exit status: 0 done, 1 the call failed (what happened is printed: no connection, no answer in
time, a certificate not trusted, or the status that the service answered and what it means), 2
the command line, the packets or a certificate file could not be read.
)";
}

}  // namespace kest::cloud::storage::metadatadb::cli
