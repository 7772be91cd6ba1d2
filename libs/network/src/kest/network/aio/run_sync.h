#pragma once

#include "abstract_aio_thread.h"

namespace kest::network::aio {

/**
 * Runs `func` on `thread` and waits until it has run; inline when already on that thread or when
 * the thread no longer runs, including when it stops after `func` was queued. An exception thrown
 * by `func` reaches the caller.
 */
void runInThreadSync(AbstractAioThread* thread, kest::utils::MoveOnlyFunc<void()> func);

}  // namespace kest::network::aio
