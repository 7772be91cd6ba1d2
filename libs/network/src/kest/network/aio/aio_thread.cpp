#include "aio_thread.h"

#include <atomic>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <kest/utils/assert.h>
#include <kest/utils/log/log.h>

namespace kest::network::aio {

namespace {
thread_local AioThread* t_currentThread = nullptr;
}  // namespace

struct AioThread::Private
{
    boost::asio::io_context ioContext{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> workGuard{
        ioContext.get_executor()};
    std::thread thread;
    std::atomic<bool> stopped{false};
};

AioThread::AioThread() : d(std::make_unique<Private>())
{
    d->thread = std::thread([this]() {
        t_currentThread = this;
        // One failing handler must not take the process down with every other connection.
        for (;;) {
            try {
                d->ioContext.run();
                break;
            } catch (const std::exception& e) {
                KEST_ERROR(this, "A handler on the I/O thread has thrown: %1", e.what());
            } catch (...) {
                KEST_ERROR(this, "A handler on the I/O thread has thrown a non-exception");
            }
        }
        t_currentThread = nullptr;
    });
}

AioThread::~AioThread()
{
    const bool inSelfThread = isInSelfThread();
    stop();
    // The thread is still inside run() of this context: it must outlive that call, and so does
    // whatever is queued there. Whoever let the last owner go on this thread has a bug.
    if (KEST_ASSERT(!inSelfThread, "An I/O thread is destroyed on itself; its queue is leaked"))
        return;
    (void)d.release();
}

void AioThread::stop()
{
    d->stopped = true;
    d->workGuard.reset();
    d->ioContext.stop();
    if (d->thread.joinable()) {
        if (isInSelfThread())
            d->thread.detach();
        else
            d->thread.join();
    }
}

void AioThread::post(kest::utils::MoveOnlyFunc<void()> func)
{
    boost::asio::post(d->ioContext, std::move(func));
}

void AioThread::dispatch(kest::utils::MoveOnlyFunc<void()> func)
{
    if (isInSelfThread())
        func();
    else
        post(std::move(func));
}

bool AioThread::isInSelfThread() const
{
    return t_currentThread == this;
}

boost::asio::io_context& AioThread::ioContext()
{
    return d->ioContext;
}

bool AioThread::isStopped() const
{
    return d->stopped.load();
}

AioThread* AioThread::current()
{
    return t_currentThread;
}

std::weak_ptr<AioThread> AioThread::currentWeak()
{
    return t_currentThread ? t_currentThread->weak_from_this() : std::weak_ptr<AioThread>();
}

}  // namespace kest::network::aio
