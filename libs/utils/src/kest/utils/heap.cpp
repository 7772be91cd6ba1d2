#include "heap.h"

#include <dlfcn.h>
#include <malloc.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace kest::utils {

namespace {

using Mallctl = int (*)(const char*, void*, std::size_t*, void*, std::size_t);

// Looked up, not linked: sanitized builds run on the sanitizer's allocator, without jemalloc.
Mallctl mallctl()
{
    static const auto function = reinterpret_cast<Mallctl>(dlsym(RTLD_DEFAULT, "mallctl"));
    return function;
}

}  // namespace

void Heap::releaseFree()
{
    if (const Mallctl control = mallctl()) {
        // Every arena ("arena.<MALLCTL_ARENAS_ALL>.purge").
        control("arena.4096.purge", nullptr, nullptr, nullptr, 0);
        return;
    }
    malloc_trim(0);
}

bool Heap::isJemalloc()
{
    const Mallctl control = mallctl();
    if (!control)
        return false;
    // Loaded is not enough: it serves the process when an allocation counts in its statistics.
    const auto allocated = [control] {
        std::uint64_t bytes = 0;
        std::size_t size = sizeof(bytes);
        return control("thread.allocated", &bytes, &size, nullptr, 0) == 0 ? bytes : 0;
    };
    const std::uint64_t before = allocated();
    void* volatile block = std::malloc(4096);
    const std::uint64_t after = allocated();
    std::free(block);
    return after >= before + 4096;
}

}  // namespace kest::utils
