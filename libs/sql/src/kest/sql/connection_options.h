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
    /**
     * "mmapSizeMb": reads go through a memory map of this much of the file, so that a page that
     * is not in the page cache costs no system call and no copy; 0 maps nothing. The map is
     * address space: its pages are the kernel's file cache, resident once read, and the kernel
     * takes them back under pressure.
     */
    int mmapSizeMb = 64 * 1024;
    /** "busyTimeoutMs": how long a statement waits for a lock. */
    std::chrono::milliseconds busyTimeout{5000};

    /** Reads the keys of `group` ("analyticsDb/journalMode" ...); missing keys keep defaults. */
    void load(const ZuSettings& settings, const QString& group);
};

}  // namespace kest::sql
