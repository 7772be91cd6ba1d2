#pragma once

// What a fuzz target asserts about its code beyond "it does not crash": a property that fails
// prints what was expected and stops the run, so that libFuzzer saves the input as a crash.

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#define FUZZ_CHECK(condition, ...)                                                         \
    do {                                                                                   \
        if (!(condition)) {                                                                \
            std::fprintf(stderr, "FUZZ CHECK FAILED: %s:%d (%s) %s\n", __FILE__, __LINE__, \
                         #condition, std::string(__VA_ARGS__).c_str());                    \
            std::abort();                                                                  \
        }                                                                                  \
    } while (false)

namespace kest::fuzz {

/** Quiets the log, and makes a failed KEST_ASSERT in the code under test a crash the fuzzer keeps.
 */
void abortOnAssertionFailure();

inline std::string_view asText(const unsigned char* data, std::size_t size)
{
    return {reinterpret_cast<const char*>(data), size};
}

}  // namespace kest::fuzz
