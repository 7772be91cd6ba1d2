#pragma once

#include <mutex>

namespace kest {

/** The platform's plain (non-recursive) mutex. */
using Mutex = std::mutex;

}  // namespace kest
