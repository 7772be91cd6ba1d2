#include "fuzz_check.h"

#include <kest/utils/assert.h>
#include <kest/utils/log/logger.h>

namespace kest::fuzz {

void abortOnAssertionFailure()
{
    // Millions of rejected inputs would each log a line; an assertion is logged at "always".
    kest::utils::log::Logger::instance().setLevel(kest::utils::log::Level::always);
    kest::utils::setAbortOnAssertionFailure(true);
}

}  // namespace kest::fuzz
