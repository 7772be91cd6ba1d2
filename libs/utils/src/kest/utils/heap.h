#pragma once

namespace kest::utils {

/** The process's heap, whichever allocator serves it (jemalloc in optimised builds, else glibc). */
class Heap
{
public:
    /** Gives free pages back to the system. Takes milliseconds on a large heap: not on I/O threads.
     */
    static void releaseFree();
    /** Whether jemalloc serves this process's allocations. */
    static bool isJemalloc();
};

}  // namespace kest::utils
