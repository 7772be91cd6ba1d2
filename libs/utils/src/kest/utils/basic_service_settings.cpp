#include "basic_service_settings.h"

#include <QFileInfo>
#include <cstdio>
#include <stdexcept>
#include <utility>
#include <vector>

namespace kest::utils {

namespace {

constexpr std::string_view kConfigFileOption = "--configFile=";

}  // namespace

BasicServiceSettings::BasicServiceSettings(QString organizationNameForSettings, QString companyName,
                                           QString moduleName)
    : m_organizationName(std::move(organizationNameForSettings)),
      m_companyName(std::move(companyName)),
      m_moduleName(std::move(moduleName)),
      m_programName(m_moduleName)
{}

void BasicServiceSettings::load(int argc, const char* const* argv)
{
    m_settings = ZuSettings();
    m_configFilePath.clear();
    m_showHelp = false;
    if (argc > 0 && argv[0])
        m_programName = QFileInfo(QString::fromLocal8Bit(argv[0])).fileName();

    // Overrides are collected first: they win over the file whatever their position.
    std::vector<std::pair<QString, QString>> overrides;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            m_showHelp = true;
        } else if (arg == "-c") {
            if (i + 1 >= argc)
                throw std::runtime_error("Option -c requires a settings file path");
            m_configFilePath = QString::fromLocal8Bit(argv[++i]);
        } else if (arg.starts_with(kConfigFileOption)) {
            m_configFilePath = QString::fromLocal8Bit(arg.substr(kConfigFileOption.size()).data());
        } else if (arg.starts_with("--")) {
            const auto eq = arg.find('=');
            if (eq == std::string_view::npos || eq == 2) {
                throw std::runtime_error("Invalid argument '" + std::string(arg) +
                                         "': expected --key=value");
            }
            overrides.emplace_back(
                QString::fromUtf8(arg.data() + 2, static_cast<int>(eq - 2)),
                QString::fromUtf8(arg.data() + eq + 1, static_cast<int>(arg.size() - eq - 1)));
        } else {
            throw std::runtime_error("Unknown argument '" + std::string(arg) + "'");
        }
    }

    if (m_showHelp)
        return;

    if (!m_configFilePath.isEmpty() && !m_settings.loadIniFile(m_configFilePath)) {
        throw std::runtime_error("Cannot read settings file '" + m_configFilePath.toStdString() +
                                 "'");
    }
    for (const auto& [key, value] : overrides)
        m_settings.setValue(key, value);

    loadSettings();
}

std::string BasicServiceSettings::cmdLineArgsHelp() const
{
    std::string text = "Usage: " + m_programName.toStdString() + " [options]\n\n";
    text += m_companyName.toStdString() + " " + m_moduleName.toStdString() + "\n\n";
    text +=
        "Options:\n"
        "  -h, --help               print this help and exit\n"
        "  -c FILE, --configFile=FILE\n"
        "                           read settings from the INI file FILE\n"
        "  --group/key=value        set a setting; wins over the settings file\n\n"
        "Main keys:\n"
        "  dataDir                  directory for the service's data\n"
        "  varDir                   used when dataDir is not set\n"
        "  log/level                none, always, error, warning, info, debug, verbose\n"
        "  log/file                 log file; standard error when empty\n";
    text += additionalHelp();
    return text;
}

void BasicServiceSettings::printCmdLineArgsHelp() const
{
    const std::string text = cmdLineArgsHelp();
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

QString BasicServiceSettings::dataDir() const
{
    QString dir = m_settings.value("dataDir").toString();
    if (dir.isEmpty())
        dir = m_settings.value("varDir").toString();
    if (dir.isEmpty())
        dir = QString("/opt/%1/%2/var").arg(m_companyName.toLower(), m_moduleName);
    return dir;
}

log::Settings BasicServiceSettings::logging() const
{
    log::Settings result;
    result.load(m_settings, "log");
    return result;
}

}  // namespace kest::utils
