#include "settings.h"

#include <algorithm>

#include <kest/utils/zu_settings.h>

namespace kest::analytics::db {

void Settings::load(const ZuSettings& settings, const QString& group)
{
    const QString prefix = group + "/";
    path = settings.value(prefix + "path", path).toString();
    connection.load(settings, group);

    bool ok = false;
    const int age = settings.value(prefix + "maxAgeDays").toInt(&ok);
    if (ok && age >= 0)
        maxAgeDays = std::min(age, kMaxAgeDaysLimit);
    const qlonglong queued = settings.value(prefix + "maxQueuedPackets").toLongLong(&ok);
    if (ok && queued > 0)
        maxQueuedPackets = static_cast<std::size_t>(queued);
    const qlonglong queuedMb = settings.value(prefix + "maxQueuedMb").toLongLong(&ok);
    if (ok && queuedMb > 0)
        maxQueuedBytes = static_cast<std::size_t>(std::min<qlonglong>(queuedMb, 1 << 20)) << 20;
    const int writerCache = settings.value(prefix + "writerCacheSizeKb").toInt(&ok);
    if (ok && writerCache > 0)
        writerCacheSizeKb = writerCache;
    const qlonglong openMb = settings.value(prefix + "maxOpenTracksMb").toLongLong(&ok);
    if (ok && openMb > 0)
        maxOpenTrackBytes = static_cast<std::size_t>(std::min<qlonglong>(openMb, 1 << 20)) << 20;
    const QString ack = settings.value(prefix + "ackAfterCommit").toString().trimmed().toLower();
    if (ack == "true" || ack == "1" || ack == "yes" || ack == "on")
        ackAfterCommit = true;
    else if (ack == "false" || ack == "0" || ack == "no" || ack == "off")
        ackAfterCommit = false;
    const qlonglong delay = settings.value(prefix + "maxCommitDelayMs").toLongLong(&ok);
    if (ok && delay >= 0)
        maxCommitDelay = std::min(std::chrono::milliseconds(delay), kMaxCommitDelayLimit);
}

}  // namespace kest::analytics::db
