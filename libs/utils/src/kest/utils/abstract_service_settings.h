#pragma once

#include <QString>

#include "log/settings.h"

namespace kest::utils {

/** What the service host needs of a service's settings: loading, help, data dir and logging. */
class AbstractServiceSettings
{
public:
    virtual ~AbstractServiceSettings() = default;

    /** Reads the command line and the settings file it names. Throws on malformed input. */
    virtual void load(int argc, const char* const* argv) = 0;
    virtual bool isShowHelpRequested() const = 0;
    virtual void printCmdLineArgsHelp() const = 0;
    virtual QString dataDir() const = 0;
    virtual log::Settings logging() const = 0;
};

}  // namespace kest::utils
