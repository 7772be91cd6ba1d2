#include <atomic>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include <kest/network/aio/aio_thread_pool.h>
#include <kest/network/aio/basic_pollable.h>
#include <kest/network/aio/timer.h>

namespace kest::network::aio {
namespace {

using namespace std::chrono_literals;

class Recorder : public BasicPollable
{
public:
    using BasicPollable::BasicPollable;

    std::atomic<int> stops{0};
    std::atomic<bool> stoppedInOwnThread{false};

protected:
    void stopWhileInAioThread() override
    {
        stoppedInOwnThread = isInSelfAioThread();
        ++stops;
    }
};

TEST(AioThread, PostRunsInOrderOnItsThreadDispatchInlineThere)
{
    AioThread thread;
    std::vector<int> order;
    std::promise<void> done;
    thread.post([&]() {
        EXPECT_TRUE(thread.isInSelfThread());
        EXPECT_EQ(AioThread::current(), &thread);
        thread.post([&]() { order.push_back(3); });
        thread.dispatch([&]() { order.push_back(1); });  // inline: before the posted one
        order.push_back(2);
    });
    thread.post([&]() { done.set_value(); });
    done.get_future().wait();
    std::promise<void> flushed;
    thread.post([&]() { flushed.set_value(); });
    flushed.get_future().wait();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_FALSE(thread.isInSelfThread());
}

TEST(AioThreadPool, ZeroMeansOnePerCoreAndRoundRobin)
{
    AioThreadPool pool(0);
    EXPECT_EQ(pool.size(), std::max(1u, std::thread::hardware_concurrency()));
    AioThreadPool two(2);
    auto* first = two.next();
    auto* second = two.next();
    EXPECT_NE(first, second);
    EXPECT_EQ(two.next(), first);

    // Work on a pool's thread can hold it weakly, and finds it gone with the pool.
    std::weak_ptr<AioThread> current;
    std::promise<void> looked;
    first->post([&]() {
        current = AioThread::currentWeak();
        looked.set_value();
    });
    looked.get_future().wait();
    EXPECT_EQ(current.lock().get(), first);
    {
        AioThreadPool gone(1);
        std::promise<void> taken;
        gone.next()->post([&]() {
            current = AioThread::currentWeak();
            taken.set_value();
        });
        taken.get_future().wait();
        EXPECT_FALSE(current.expired());
    }
    EXPECT_TRUE(current.expired());
    EXPECT_TRUE(AioThread::currentWeak().expired());
}

TEST(BasicPollable, StopRunsOnceOnBoundThreadSyncAlsoFromThatThread)
{
    AioThread thread;
    Recorder pollable(&thread);
    EXPECT_EQ(pollable.getAioThread(), &thread);

    pollable.pleaseStopSync();
    EXPECT_EQ(pollable.stops, 1);
    EXPECT_TRUE(pollable.stoppedInOwnThread);

    std::promise<int> inline_;
    pollable.post([&]() {
        pollable.pleaseStopSync();  // must not wait for itself
        inline_.set_value(pollable.stops);
    });
    EXPECT_EQ(inline_.get_future().get(), 2);

    std::promise<void> handlerDone;
    pollable.pleaseStop([&]() {
        EXPECT_TRUE(thread.isInSelfThread());
        handlerDone.set_value();
    });
    handlerDone.get_future().wait();
    EXPECT_EQ(pollable.stops, 3);
}

TEST(BasicPollable, RebindMovesWorkToTheNewThread)
{
    AioThread a;
    AioThread b;
    Recorder pollable(&a);
    pollable.bindToAioThread(&b);
    std::promise<bool> onB;
    pollable.dispatch([&]() { onB.set_value(b.isInSelfThread()); });
    EXPECT_TRUE(onB.get_future().get());
}

/** A thread that stops just as a function is queued, dropping it, as a real one may. */
class StoppingOnPostThread : public AbstractAioThread
{
public:
    void post(kest::utils::MoveOnlyFunc<void()>) override { stopped = true; }
    void dispatch(kest::utils::MoveOnlyFunc<void()> func) override { post(std::move(func)); }
    bool isInSelfThread() const override { return false; }
    bool isStopped() const override { return stopped; }

    std::atomic<bool> stopped{false};
};

TEST(AioThread, SurvivesThrowingHandlersAndSyncCallsNeverHangOnAStoppedThread)
{
    AioThread thread;
    thread.post([]() { throw std::runtime_error("handler failure"); });
    thread.post([]() { throw 42; });
    std::promise<void> stillRunning;
    thread.post([&]() { stillRunning.set_value(); });
    ASSERT_EQ(stillRunning.get_future().wait_for(5s), std::future_status::ready);

    Recorder onThread(&thread);
    EXPECT_THROW(onThread.executeInAioThreadSync([]() { throw std::runtime_error("to caller"); }),
                 std::runtime_error);

    // The waiter must notice the stop and run the dropped function itself, exactly once.
    struct Shared
    {
        StoppingOnPostThread stopping;
        Recorder pollable{&stopping};
        std::promise<int> ran;
    };
    auto shared = std::make_shared<Shared>();
    std::thread([shared]() {
        int calls = 0;
        shared->pollable.executeInAioThreadSync([&]() { ++calls; });
        shared->ran.set_value(calls);
    }).detach();
    auto ran = shared->ran.get_future();
    ASSERT_EQ(ran.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(ran.get(), 1);

    // The same race on a real thread: stopping while others wait on it.
    for (int i = 0; i < 20; ++i) {
        auto real = std::make_shared<AioThread>();
        auto done = std::make_shared<std::promise<void>>();
        std::thread([real, done]() {
            Recorder pollable(real.get());
            while (!real->isStopped())
                pollable.executeInAioThreadSync([]() {});
            done->set_value();
        }).detach();
        std::this_thread::sleep_for(std::chrono::microseconds(200 * (i % 5)));
        real->stop();
        ASSERT_EQ(done->get_future().wait_for(5s), std::future_status::ready) << i;
    }
}

/**
 * Returns once a timer due `delay` from now has fired on `thread`. Handlers due earlier run
 * before it, however loaded the machine: whatever was to happen by then has happened.
 */
void waitPast(AioThread& thread, std::chrono::milliseconds delay)
{
    Timer sentinel(&thread);
    std::promise<void> fired;
    sentinel.start(delay, [&]() { fired.set_value(); });
    fired.get_future().wait();
}

TEST(Timer, FiresOnceOnItsThread)
{
    AioThread thread;
    Timer timer(&thread);
    std::atomic<int> calls{0};
    std::promise<bool> fired;
    timer.start(20ms, [&]() {
        ++calls;
        fired.set_value(thread.isInSelfThread());
    });
    EXPECT_TRUE(fired.get_future().get());
    waitPast(thread, 50ms);
    EXPECT_EQ(calls, 1);
}

TEST(Timer, NoCallAfterCancelOrRestart)
{
    AioThread thread;
    Timer timer(&thread);
    Recorder onThread(&thread);
    std::atomic<int> stale{0};
    for (int i = 0; i < 200; ++i) {
        // Cancel just when the timer is due, so that some completions are already queued.
        timer.start(std::chrono::milliseconds(i % 2), [&]() { ++stale; });
        std::this_thread::sleep_for(std::chrono::microseconds(900));
        timer.cancelSync();
        const int seen = stale;
        // Anything the thread had queued by now runs before this.
        onThread.executeInAioThreadSync([]() {});
        ASSERT_EQ(stale, seen) << "handler ran after cancelSync returned";
    }

    std::atomic<int> first{0};
    std::promise<void> second;
    timer.start(10ms, [&]() { ++first; });
    timer.start(20ms, [&]() { second.set_value(); });  // replaces the first
    second.get_future().wait();
    EXPECT_EQ(first, 0) << "the first was due earlier";

    std::atomic<int> afterStop{0};
    timer.start(10ms, [&]() { ++afterStop; });
    timer.pleaseStopSync();
    waitPast(thread, 20ms);
    EXPECT_EQ(afterStop, 0);
}

TEST(Timer, DestroyedWithPendingWaitNeverCalls)
{
    AioThread thread;
    std::atomic<int> calls{0};
    for (int i = 0; i < 50; ++i) {
        Timer timer(&thread);
        timer.start(0ms, [&]() { ++calls; });
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    const int seen = calls;
    waitPast(thread, 1ms);
    EXPECT_EQ(calls, seen);
}

}  // namespace
}  // namespace kest::network::aio
