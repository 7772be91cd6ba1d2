#pragma once

#include <kest/utils/move_only_func.h>

namespace kest::network::aio {

/** One thread that runs asynchronous I/O and posted functions, in order, never blocking. */
class AbstractAioThread
{
public:
    virtual ~AbstractAioThread() = default;

    /** Queues the function to run on this thread; never runs it inline. */
    virtual void post(kest::utils::MoveOnlyFunc<void()> func) = 0;
    /** Runs the function now when called on this thread, otherwise posts it. */
    virtual void dispatch(kest::utils::MoveOnlyFunc<void()> func) = 0;
    virtual bool isInSelfThread() const = 0;
    /** Once stopped, posted functions never run, so nobody may wait for them. */
    virtual bool isStopped() const = 0;
};

}  // namespace kest::network::aio
