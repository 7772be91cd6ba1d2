#pragma once

#include <QString>
#include <string>
#include <vector>

#include "level.h"

class ZuSettings;

namespace kest::utils::log {

/** Where one logger writes and how much. */
struct LoggerSettings
{
    Level level = Level::info;
    /** A file to append to; empty means standard error. */
    std::string file;
};

/** The list of logger settings of a service, read from a settings group ("log/level", "log/file").
 */
class Settings
{
public:
    std::vector<LoggerSettings> loggers{LoggerSettings{}};

    /** Reads "<group>/level" (a name or number) and "<group>/file"; missing keys keep defaults. */
    void load(const ZuSettings& settings, const QString& group);
};

}  // namespace kest::utils::log
