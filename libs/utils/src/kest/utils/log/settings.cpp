#include "settings.h"

#include "../zu_settings.h"

namespace kest::utils::log {

void Settings::load(const ZuSettings& settings, const QString& group)
{
    LoggerSettings logger;
    const QVariant level = settings.value(group + "/level");
    if (!level.isNull()) {
        if (const auto parsed = levelFromString(level.toString().toStdString()))
            logger.level = *parsed;
    }
    logger.file = settings.value(group + "/file").toString().toStdString();
    loggers = {logger};
}

}  // namespace kest::utils::log
