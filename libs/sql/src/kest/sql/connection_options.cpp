#include "connection_options.h"

#include <kest/utils/zu_settings.h>

namespace kest::sql {

void ConnectionOptions::load(const ZuSettings& settings, const QString& group)
{
    const QString prefix = group + "/";
    journalMode = settings.value(prefix + "journalMode", journalMode).toString();
    synchronous = settings.value(prefix + "synchronous", synchronous).toString();
    cacheSizeKb = settings.value(prefix + "cacheSizeKb", cacheSizeKb).toInt();
    mmapSizeMb = settings.value(prefix + "mmapSizeMb", mmapSizeMb).toInt();
    busyTimeout = std::chrono::milliseconds(
        settings.value(prefix + "busyTimeoutMs", static_cast<qlonglong>(busyTimeout.count()))
            .toLongLong());
}

}  // namespace kest::sql
