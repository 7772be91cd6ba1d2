#include "mongo_connection_settings.h"

#include <kest/utils/zu_settings.h>

namespace kest::cloud::storage::metadatadb::conf {

namespace {

std::string readText(const ZuSettings& settings, const char* key)
{
    return settings.value(key).toString().toStdString();
}

std::uint32_t readUnsigned(const ZuSettings& settings, const char* key, std::uint32_t defaultValue)
{
    const QVariant value = settings.value(key);
    return value.isNull() ? defaultValue : value.toUInt();
}

std::vector<std::string> splitOutsideQuotes(const std::string& text, char separator)
{
    std::vector<std::string> parts(1);
    bool quoted = false;
    for (const char c : text) {
        if (c == '"')
            quoted = !quoted;
        if (c == separator && !quoted)
            parts.emplace_back();
        else
            parts.back() += c;
    }
    return parts;
}

std::string trimmed(const std::string& text)
{
    constexpr const char* kBlanks = " \t\r\n\v\f";
    const auto first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos)
        return {};
    const auto last = text.find_last_not_of(kBlanks);
    return text.substr(first, last - first + 1);
}

std::string unquoted(const std::string& text)
{
    const auto first = text.find_first_not_of('"');
    if (first == std::string::npos)
        return {};
    const auto last = text.find_last_not_of('"');
    return text.substr(first, last - first + 1);
}

}  // namespace

std::vector<std::pair<std::string, std::uint32_t>> MongoConnectionSettings::parseInstances(
    const std::string& text)
{
    std::vector<std::pair<std::string, std::uint32_t>> result;
    for (const std::string& entry : splitOutsideQuotes(text, ';')) {
        // Only empty entries are skipped; a blank one is an entry without a port and fails below.
        if (entry.empty())
            continue;
        const std::vector<std::string> fields = splitOutsideQuotes(entry, ':');
        const std::string host = unquoted(trimmed(fields[0]));
        // Everything after the first unquoted colon is the port; std::stoi ignores what
        // follows the digits and throws for no digits at all.
        std::string port;
        for (std::size_t i = 1; i < fields.size(); ++i)
            port += (i > 1 ? ":" : "") + fields[i];
        const int portNumber = std::stoi(trimmed(port));
        result.emplace_back(host, static_cast<std::uint32_t>(portNumber));
    }
    return result;
}

void MongoConnectionSettings::load(const ZuSettings& settings)
{
    user = readText(settings, "MongoDb/user");
    password = readText(settings, "MongoDb/password");
    replicaSet = readText(settings, "MongoDb/replicaSet");
    minPoolSize = readUnsigned(settings, "MongoDb/minPoolSize", defaultMinPoolSize);
    maxPoolSize = readUnsigned(settings, "MongoDb/maxPoolSize", defaultMaxPoolSize);
    instances = parseInstances(readText(settings, "MongoDb/instances"));
    uri = readText(settings, "MongoDb/uri");
}

}  // namespace kest::cloud::storage::metadatadb::conf
