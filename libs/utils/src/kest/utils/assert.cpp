#include "assert.h"

#include <cstdlib>

#include "log/log.h"

namespace kest::utils {

namespace {
std::atomic<int> g_failures{0};
std::atomic<bool> g_abort{false};
}  // namespace

void assertionFailed(const char* file, int line, const char* condition, const std::string& message)
{
    ++g_failures;
    KEST_LOG(log::Level::always, "assert", "ASSERTION FAILED: %1:%2 (%3) %4", file, line, condition,
             message);
    if (g_abort)
        std::abort();
}

int assertionFailureCount()
{
    return g_failures;
}

void setAbortOnAssertionFailure(bool value)
{
    g_abort = value;
}

}  // namespace kest::utils
