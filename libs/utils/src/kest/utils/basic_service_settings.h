#pragma once

#include <QString>
#include <string>

#include "abstract_service_settings.h"
#include "zu_settings.h"

namespace kest::utils {

/**
 * Service settings filled from an INI file ("-c FILE" / "--configFile=FILE") and overridden by
 * "--group/key=value" arguments. Subclasses read their members from settings() in loadSettings().
 */
class BasicServiceSettings : public AbstractServiceSettings
{
public:
    BasicServiceSettings(QString organizationNameForSettings, QString companyName,
                         QString moduleName);

    /**
     * Parses the arguments (argv[0] is the program), loads the file, applies the overrides and
     * calls loadSettings(). With help requested nothing is loaded. Throws std::runtime_error on
     * an unknown argument or an unreadable settings file; loadSettings() may throw too.
     */
    void load(int argc, const char* const* argv) override;
    bool isShowHelpRequested() const override { return m_showHelp; }
    void printCmdLineArgsHelp() const override;
    /** "dataDir", else "varDir", else "/opt/<company>/<module>/var". */
    QString dataDir() const override;
    /** The group "log". */
    log::Settings logging() const override;

    const ZuSettings& settings() const { return m_settings; }
    const QString& organizationName() const { return m_organizationName; }
    const QString& companyName() const { return m_companyName; }
    const QString& moduleName() const { return m_moduleName; }
    /** The settings file given on the command line; empty when none. */

    /** The usage text printed by printCmdLineArgsHelp(). */
    std::string cmdLineArgsHelp() const;

protected:
    virtual void loadSettings() {}
    /** Extra lines appended to the usage text, for a service's own keys. */
    virtual std::string additionalHelp() const { return {}; }

private:
    QString m_organizationName;
    QString m_companyName;
    QString m_moduleName;
    QString m_programName;
    QString m_configFilePath;
    bool m_showHelp = false;
    ZuSettings m_settings;
};

}  // namespace kest::utils
