#pragma once

#include "abstract_aio_thread.h"

namespace kest::network::aio {

/**
 * An object that lives on one I/O thread: its state is touched only there, so it needs no locks.
 * Stopping it runs stopWhileInAioThread() on that thread, after which no handler of it may run.
 */
class BasicPollable
{
public:
    /** Binds to `aioThread`, or to the next thread of the process-wide pool when null. */
    explicit BasicPollable(AbstractAioThread* aioThread = nullptr);
    virtual ~BasicPollable() = default;

    BasicPollable(const BasicPollable&) = delete;
    BasicPollable& operator=(const BasicPollable&) = delete;

    /** Runs stopWhileInAioThread() on the bound thread, then `handler` there. */
    virtual void pleaseStop(kest::utils::MoveOnlyFunc<void()> handler);
    /** Runs stopWhileInAioThread() on the bound thread and waits for it; inline on that thread. */
    virtual void pleaseStopSync();
    virtual AbstractAioThread* getAioThread() const;
    /** Must be called while nothing of the object is pending on the old thread. */
    virtual void bindToAioThread(AbstractAioThread* aioThread);
    virtual void post(kest::utils::MoveOnlyFunc<void()> func);
    /** Runs the function now when on the bound thread, otherwise posts it there. */
    virtual void dispatch(kest::utils::MoveOnlyFunc<void()> func);

    bool isInSelfAioThread() const { return m_aioThread->isInSelfThread(); }

    /**
     * Runs `func` on the bound thread and waits until it has run; inline when already there or
     * when the thread no longer runs.
     */
    void executeInAioThreadSync(kest::utils::MoveOnlyFunc<void()> func);

protected:
    /** Cancels everything pending, on the bound thread. */
    virtual void stopWhileInAioThread() {}

private:
    AbstractAioThread* m_aioThread = nullptr;
};

}  // namespace kest::network::aio
