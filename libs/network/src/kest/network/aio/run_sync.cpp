#include "run_sync.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>

namespace kest::network::aio {

namespace {

// A stopped thread drops what is queued without a word, so the waiter has to look now and then.
constexpr std::chrono::milliseconds kStopCheckPeriod{10};

struct SyncCall
{
    std::mutex mutex;
    std::condition_variable doneCondition;
    bool claimed = false;  //< Whoever claims the call runs it: the thread or the waiter.
    bool done = false;
    std::exception_ptr error;
};

}  // namespace

void runInThreadSync(AbstractAioThread* thread, kest::utils::MoveOnlyFunc<void()> func)
{
    if (thread->isInSelfThread() || thread->isStopped()) {
        func();
        return;
    }
    auto call = std::make_shared<SyncCall>();
    // Touches `func` only after claiming the call, so it never outlives the waiter's frame.
    thread->post([call, &func]() {
        {
            std::lock_guard lock(call->mutex);
            if (call->claimed)
                return;
            call->claimed = true;
        }
        std::exception_ptr error;
        try {
            func();
        } catch (...) {
            error = std::current_exception();
        }
        std::lock_guard lock(call->mutex);
        call->error = std::move(error);
        call->done = true;
        call->doneCondition.notify_all();
    });

    std::unique_lock lock(call->mutex);
    while (!call->doneCondition.wait_for(lock, kStopCheckPeriod, [&]() { return call->done; })) {
        if (!call->claimed && thread->isStopped()) {
            call->claimed = true;
            lock.unlock();
            func();
            return;
        }
    }
    if (call->error)
        std::rethrow_exception(call->error);
}

}  // namespace kest::network::aio
