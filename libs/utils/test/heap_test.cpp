#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <vector>

#include <kest/utils/heap.h>

using kest::utils::Heap;

namespace {

long residentKb()
{
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

}  // namespace

TEST(Heap, JemallocServesTheOptimisedBuilds)
{
    // Linked after the C library, it would be loaded and serve nothing.
#ifdef KEST_EXPECT_JEMALLOC
    EXPECT_TRUE(Heap::isJemalloc());
    // With the program's settings (allocator/jemalloc_conf.cpp), which it reads at its start.
    using Mallctl = int (*)(const char*, void*, std::size_t*, void*, std::size_t);
    const auto mallctl = reinterpret_cast<Mallctl>(dlsym(RTLD_DEFAULT, "mallctl"));
    ASSERT_NE(mallctl, nullptr);
    unsigned arenas = 0;
    std::size_t size = sizeof(arenas);
    ASSERT_EQ(mallctl("opt.narenas", &arenas, &size, nullptr, 0), 0);
    EXPECT_EQ(arenas, 1u);
#else
    EXPECT_FALSE(Heap::isJemalloc());
#endif
}

TEST(Heap, FreedMemoryGoesBackToTheSystem)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's allocator keeps freed memory";
#endif
    // Blocks small enough to come from the heap, not from mappings of their own.
    constexpr std::size_t kBlock = 16 * 1024;
    constexpr std::size_t kBlocks = 64 * 1024 * 1024 / kBlock;
    std::vector<std::unique_ptr<char[]>> blocks;
    for (std::size_t i = 0; i < kBlocks; ++i) {
        blocks.emplace_back(new char[kBlock]);
        for (std::size_t at = 0; at < kBlock; at += 4096)
            blocks.back()[at] = 1;
    }
    const long peak = residentKb();
    blocks.clear();
    Heap::releaseFree();
    EXPECT_LT(residentKb(), peak - 32 * 1024);
}
