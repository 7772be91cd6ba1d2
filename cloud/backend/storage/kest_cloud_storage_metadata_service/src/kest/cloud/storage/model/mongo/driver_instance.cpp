#include "driver_instance.h"

#include <mongoc/mongoc.h>

#include <string_view>

#include <kest/utils/log/log.h>

namespace kest::cloud::storage::metadatadb::mongo {

namespace {

kest::utils::log::Level levelOf(mongoc_log_level_t level)
{
    using kest::utils::log::Level;
    switch (level) {
        case MONGOC_LOG_LEVEL_ERROR:
        case MONGOC_LOG_LEVEL_CRITICAL:
            return Level::error;
        case MONGOC_LOG_LEVEL_WARNING:
            return Level::warning;
        case MONGOC_LOG_LEVEL_MESSAGE:
        case MONGOC_LOG_LEVEL_INFO:
            return Level::info;
        case MONGOC_LOG_LEVEL_DEBUG:
            return Level::debug;
        case MONGOC_LOG_LEVEL_TRACE:
            break;
    }
    return Level::verbose;
}

/** The driver's lines go to the service's log, with its levels, instead of standard error. */
void logDriverMessage(mongoc_log_level_t driverLevel, const char* domain, const char* message,
                      void* /*userData*/)
{
    kest::utils::log::Level level = levelOf(driverLevel);
    // A pool ends its server sessions when it is destroyed. A server without the command (the
    // local stand-in) refuses, and the sessions simply expire there: nothing an operator must
    // see at every stop.
    if (std::string_view(message).starts_with("Couldn't send \"endSessions\""))
        level = kest::utils::log::Level::debug;
    KEST_LOG(level, "mongoc", "%1: %2", domain, message);
}

}  // namespace

DriverInstance::DriverInstance()
{
    // The logger must outlive the driver's last line, written by mongoc_cleanup() at exit.
    kest::utils::log::Logger::instance();
    mongoc_log_set_handler(&logDriverMessage, nullptr);
    mongoc_init();
}

DriverInstance::~DriverInstance()
{
    mongoc_cleanup();
}

const DriverInstance& DriverInstance::instance()
{
    static DriverInstance driver;
    return driver;
}

}  // namespace kest::cloud::storage::metadatadb::mongo
