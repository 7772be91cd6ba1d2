#pragma once

// Programming errors. A failed assertion logs
//     "ASSERTION FAILED: <file>:<line> (<condition>) <message>"
// and the program goes on, so that a bad call is answered as an internal error rather than
// crashing the service. Tests can count failures or make them fatal.

#include <atomic>
#include <string>

namespace kest::utils {

void assertionFailed(const char* file, int line, const char* condition, const std::string& message);

/** How many assertions have failed in this process. */
int assertionFailureCount();

/** When set, a failed assertion aborts the process after logging (debugging aid). */
void setAbortOnAssertionFailure(bool value);

}  // namespace kest::utils

#define KEST_ASSERT(condition, ...)                                        \
    (static_cast<bool>(condition)                                          \
         ? true                                                            \
         : (::kest::utils::assertionFailed(__FILE__, __LINE__, #condition, \
                                           std::string{__VA_ARGS__}),      \
            false))
