#pragma once

#include <QString>
#include <chrono>

class ZuSettings;

namespace kest::sql {

/** How a SQLite database is opened and tuned. */
struct ConnectionOptions
{
    /** "journalMode": WAL lets searches read while the writer commits. */
    QString journalMode = "WAL";
    /** "synchronous": NORMAL is durable across process crashes with WAL. */
    QString synchronous = "NORMAL";
    /** "cacheSizeKb": page cache per connection. */
    int cacheSizeKb = 64 * 1024;
    /** "busyTimeoutMs": how long a statement waits for a lock. */
    std::chrono::milliseconds busyTimeout{5000};

    /** Reads the keys of `group` ("analyticsDb/journalMode" ...); missing keys keep defaults. */
    void load(const ZuSettings& settings, const QString& group);
};

}  // namespace kest::sql
