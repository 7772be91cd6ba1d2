#include "shared_map_vfs.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace kest::sql {

namespace {

constexpr const char* kName = "kest-shared-map";

using FileKey = std::pair<dev_t, ino_t>;

/**
 * One database file of the process, mapped whole once any of its connections reads through a
 * map. Its descriptors stay open while any connection has the file open: closing a descriptor
 * drops every POSIX lock that the process holds on the file, SQLite's included.
 */
struct FileMap
{
    FileKey key;
    std::vector<int> fds;
    int users = 0;
    const char* base = nullptr;
    sqlite3_int64 length = 0;
    bool failed = false;
};

std::mutex g_mutex;
std::map<FileKey, FileMap*> g_maps;  // guarded by g_mutex

FileMap* acquireMap(const char* path)
{
    std::lock_guard lock(g_mutex);
    struct stat status;
    if (::stat(path, &status) == 0) {
        if (auto it = g_maps.find({status.st_dev, status.st_ino}); it != g_maps.end()) {
            ++it->second->users;
            return it->second;
        }
    }
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    if (::fstat(fd, &status) != 0) {
        ::close(fd);
        return nullptr;
    }
    // The path may name another file than it did a moment ago; the descriptor is kept either
    // way, as it may be on a file that a connection holds locks on.
    const FileKey key{status.st_dev, status.st_ino};
    auto [it, added] = g_maps.try_emplace(key, nullptr);
    if (added) {
        it->second = new FileMap;
        it->second->key = key;
    }
    it->second->fds.push_back(fd);
    ++it->second->users;
    return it->second;
}

void releaseMap(FileMap* map)
{
    std::lock_guard lock(g_mutex);
    if (--map->users > 0)
        return;
    if (map->base)
        ::munmap(const_cast<char*>(map->base), map->length);
    for (const int fd : map->fds)
        ::close(fd);
    g_maps.erase(map->key);
    delete map;
}

/**
 * The map, made by the first connection to read through it, `length` bytes long; null when the
 * file cannot be mapped.
 */
const FileMap* mapOf(FileMap* map, sqlite3_int64 length)
{
    std::lock_guard lock(g_mutex);
    if (!map->base && !map->failed) {
        // Mapped beyond the file's end, so that it never moves as the file grows; a page is
        // handed out only once the file is known to reach past it.
        void* start = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, map->fds.front(), 0);
        if (start == MAP_FAILED) {
            map->failed = true;
        } else {
            map->base = static_cast<const char*>(start);
            map->length = length;
        }
    }
    return map->base ? map : nullptr;
}

/** The file that SQLite holds: the system VFS's file right behind this header. */
struct MappedFile
{
    sqlite3_file base;  // first, as SQLite sees it
    sqlite3_file* real;
    FileMap* map;            // main database files only
    const char* mapped;      // the map's start, once this connection has read through it
    sqlite3_int64 limit;     // this connection's mmap_size, within the map
    sqlite3_int64 readable;  // how far the file went when last looked at
};

constexpr int kHeaderBytes = (sizeof(MappedFile) + 15) & ~15;

MappedFile* self(sqlite3_file* file)
{
    return reinterpret_cast<MappedFile*>(file);
}

sqlite3_vfs* systemVfs(sqlite3_vfs* vfs)
{
    return static_cast<sqlite3_vfs*>(vfs->pAppData);
}

void lookAtSize(MappedFile* file)
{
    sqlite3_int64 size = 0;
    if (file->real->pMethods->xFileSize(file->real, &size) != SQLITE_OK)
        size = 0;
    file->readable = size;
}

/** An entry point of the system VFS's files, called on the real file. */
template <auto Member>
struct ToRealFile;
template <typename R, typename... Args, R (*sqlite3_io_methods::*Member)(sqlite3_file*, Args...)>
struct ToRealFile<Member>
{
    static R call(sqlite3_file* file, Args... args)
    {
        sqlite3_file* real = self(file)->real;
        return (real->pMethods->*Member)(real, args...);
    }
};

/** An entry point of the system VFS, called on it. */
template <auto Member>
struct ToSystemVfs;
template <typename R, typename... Args, R (*sqlite3_vfs::*Member)(sqlite3_vfs*, Args...)>
struct ToSystemVfs<Member>
{
    static R call(sqlite3_vfs* vfs, Args... args)
    {
        sqlite3_vfs* system = systemVfs(vfs);
        return (system->*Member)(system, args...);
    }
};

int closeFile(sqlite3_file* file)
{
    MappedFile* mapped = self(file);
    const int rc = mapped->real->pMethods->xClose(mapped->real);
    // After the system's close, which releases this connection's locks.
    if (mapped->map)
        releaseMap(mapped->map);
    mapped->map = nullptr;
    return rc;
}

int truncateFile(sqlite3_file* file, sqlite3_int64 size)
{
    MappedFile* mapped = self(file);
    mapped->readable = std::min(mapped->readable, size);
    return mapped->real->pMethods->xTruncate(mapped->real, size);
}

int controlFile(sqlite3_file* file, int op, void* arg)
{
    MappedFile* mapped = self(file);
    if (op == SQLITE_FCNTL_MMAP_SIZE && mapped->map) {
        auto* size = static_cast<sqlite3_int64*>(arg);
        const sqlite3_int64 previous = mapped->limit;
        if (*size >= 0)
            mapped->limit = *size;
        *size = previous;
        return SQLITE_OK;
    }
    return mapped->real->pMethods->xFileControl(mapped->real, op, arg);
}

int fetchPage(sqlite3_file* file, sqlite3_int64 offset, int bytes, void** page)
{
    MappedFile* mapped = self(file);
    *page = nullptr;
    if (!mapped->map || mapped->limit <= 0)
        return SQLITE_OK;
    if (!mapped->mapped) {
        const FileMap* map = mapOf(mapped->map, mapped->limit);
        if (!map) {
            mapped->limit = 0;  // read through the system's calls from now on
            return SQLITE_OK;
        }
        mapped->mapped = map->base;
        lookAtSize(mapped);
    }
    // No page goes out past what the file held when last looked at: the map reaches beyond
    // the file's end, and a page there would be a SIGBUS. SQLite reads such a page instead.
    if (offset + bytes <= std::min({mapped->readable, mapped->limit, mapped->map->length}))
        *page = const_cast<char*>(mapped->mapped + offset);
    return SQLITE_OK;
}

int unfetchPage(sqlite3_file* file, sqlite3_int64, void* page)
{
    // SQLite unfetches everything (no page) when another connection has changed the database:
    // where the system VFS unmaps, this one looks at how far the file now goes.
    MappedFile* mapped = self(file);
    if (!page && mapped->mapped)
        lookAtSize(mapped);
    return SQLITE_OK;
}

const sqlite3_io_methods kFileMethods = {
    3,
    &closeFile,
    &ToRealFile<&sqlite3_io_methods::xRead>::call,
    &ToRealFile<&sqlite3_io_methods::xWrite>::call,
    &truncateFile,
    &ToRealFile<&sqlite3_io_methods::xSync>::call,
    &ToRealFile<&sqlite3_io_methods::xFileSize>::call,
    &ToRealFile<&sqlite3_io_methods::xLock>::call,
    &ToRealFile<&sqlite3_io_methods::xUnlock>::call,
    &ToRealFile<&sqlite3_io_methods::xCheckReservedLock>::call,
    &controlFile,
    &ToRealFile<&sqlite3_io_methods::xSectorSize>::call,
    &ToRealFile<&sqlite3_io_methods::xDeviceCharacteristics>::call,
    &ToRealFile<&sqlite3_io_methods::xShmMap>::call,
    &ToRealFile<&sqlite3_io_methods::xShmLock>::call,
    &ToRealFile<&sqlite3_io_methods::xShmBarrier>::call,
    &ToRealFile<&sqlite3_io_methods::xShmUnmap>::call,
    &fetchPage,
    &unfetchPage,
};

int openFile(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* outFlags)
{
    sqlite3_vfs* system = systemVfs(vfs);
    MappedFile* mapped = self(file);
    mapped->base.pMethods = nullptr;
    mapped->real = reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(file) + kHeaderBytes);
    mapped->real->pMethods = nullptr;
    mapped->map = nullptr;
    mapped->mapped = nullptr;
    mapped->limit = 0;
    mapped->readable = 0;
    const int rc = system->xOpen(system, name, mapped->real, flags, outFlags);
    if (!mapped->real->pMethods)
        return rc;
    // Every call is forwarded, so the system's files must have them all (its Unix files do).
    if (mapped->real->pMethods->iVersion < 3) {
        mapped->real->pMethods->xClose(mapped->real);
        return SQLITE_CANTOPEN;
    }
    mapped->base.pMethods = &kFileMethods;
    if (rc == SQLITE_OK && (flags & SQLITE_OPEN_MAIN_DB) && name)
        mapped->map = acquireMap(name);
    return rc;
}

}  // namespace

bool SharedMapVfs::install()
{
    static const bool installed = [] {
        sqlite3_vfs* system = sqlite3_vfs_find(nullptr);
        if (!system)
            return false;
        if (std::strcmp(system->zName, kName) == 0)
            return true;
        static sqlite3_vfs vfs{};
        vfs.iVersion = std::min(system->iVersion, 3);
        vfs.szOsFile = kHeaderBytes + system->szOsFile;
        vfs.mxPathname = system->mxPathname;
        vfs.zName = kName;
        vfs.pAppData = system;
        vfs.xOpen = &openFile;
        vfs.xDelete = &ToSystemVfs<&sqlite3_vfs::xDelete>::call;
        vfs.xAccess = &ToSystemVfs<&sqlite3_vfs::xAccess>::call;
        vfs.xFullPathname = &ToSystemVfs<&sqlite3_vfs::xFullPathname>::call;
        vfs.xDlOpen = &ToSystemVfs<&sqlite3_vfs::xDlOpen>::call;
        vfs.xDlError = &ToSystemVfs<&sqlite3_vfs::xDlError>::call;
        vfs.xDlSym = &ToSystemVfs<&sqlite3_vfs::xDlSym>::call;
        vfs.xDlClose = &ToSystemVfs<&sqlite3_vfs::xDlClose>::call;
        vfs.xRandomness = &ToSystemVfs<&sqlite3_vfs::xRandomness>::call;
        vfs.xSleep = &ToSystemVfs<&sqlite3_vfs::xSleep>::call;
        vfs.xCurrentTime = &ToSystemVfs<&sqlite3_vfs::xCurrentTime>::call;
        vfs.xGetLastError = &ToSystemVfs<&sqlite3_vfs::xGetLastError>::call;
        if (vfs.iVersion >= 2)
            vfs.xCurrentTimeInt64 = &ToSystemVfs<&sqlite3_vfs::xCurrentTimeInt64>::call;
        if (vfs.iVersion >= 3) {
            vfs.xSetSystemCall = &ToSystemVfs<&sqlite3_vfs::xSetSystemCall>::call;
            vfs.xGetSystemCall = &ToSystemVfs<&sqlite3_vfs::xGetSystemCall>::call;
            vfs.xNextSystemCall = &ToSystemVfs<&sqlite3_vfs::xNextSystemCall>::call;
        }
        return sqlite3_vfs_register(&vfs, 1) == SQLITE_OK;
    }();
    return installed;
}

}  // namespace kest::sql
