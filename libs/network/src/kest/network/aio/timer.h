#pragma once

#include <chrono>
#include <memory>

#include "basic_pollable.h"

namespace kest::network::aio {

/**
 * A one-shot timer on an I/O thread. The handler runs on that thread, at most once per start, and
 * never after cancelSync() or pleaseStopSync() has returned. The bound thread must be an AioThread.
 */
class Timer : public BasicPollable
{
public:
    explicit Timer(AbstractAioThread* aioThread = nullptr);
    /** Cancels; call pleaseStopSync() first when the handler may touch what dies before the timer.
     */
    ~Timer() override;

    /** (Re)starts the timer; a handler of an earlier start that has not run yet never will. */
    void start(std::chrono::milliseconds timeout, kest::utils::MoveOnlyFunc<void()> handler);
    /** Cancels the pending handler and waits until it can no longer run. */
    void cancelSync();

    void bindToAioThread(AbstractAioThread* aioThread) override;

protected:
    void stopWhileInAioThread() override;

private:
    void cancelInAioThread();

    struct Private;
    std::unique_ptr<Private> d;
};

}  // namespace kest::network::aio
