#include "timer.h"

#include <boost/asio/steady_timer.hpp>

#include <kest/utils/assert.h>

#include "aio_thread.h"

namespace kest::network::aio {

struct Timer::Private
{
    std::unique_ptr<boost::asio::steady_timer> timer;
    // Only touched on the I/O thread; a wait whose generation is stale was cancelled. Shared
    // with the waits so that a completion already queued when the timer dies can still check it.
    std::shared_ptr<std::uint64_t> generation = std::make_shared<std::uint64_t>(0);
};

namespace {

std::unique_ptr<boost::asio::steady_timer> makeTimer(AbstractAioThread* thread)
{
    auto* aioThread = dynamic_cast<AioThread*>(thread);
    if (!KEST_ASSERT(aioThread, "A timer needs an AioThread"))
        return nullptr;
    return std::make_unique<boost::asio::steady_timer>(aioThread->ioContext());
}

}  // namespace

Timer::Timer(AbstractAioThread* aioThread)
    : BasicPollable(aioThread), d(std::make_unique<Private>())
{
    d->timer = makeTimer(getAioThread());
}

Timer::~Timer()
{
    cancelSync();
}

void Timer::start(std::chrono::milliseconds timeout, kest::utils::MoveOnlyFunc<void()> handler)
{
    dispatch([this, timeout, handler = std::move(handler)]() mutable {
        if (!d->timer)
            return;
        const std::uint64_t generation = ++*d->generation;
        d->timer->expires_after(timeout);
        d->timer->async_wait([current = d->generation, generation, handler = std::move(handler)](
                                 const boost::system::error_code& error) mutable {
            if (error || generation != *current)
                return;
            ++*current;
            handler();
        });
    });
}

void Timer::cancelSync()
{
    executeInAioThreadSync([this]() { cancelInAioThread(); });
}

void Timer::cancelInAioThread()
{
    ++*d->generation;
    if (d->timer)
        d->timer->cancel();
}

void Timer::stopWhileInAioThread()
{
    cancelInAioThread();
}

void Timer::bindToAioThread(AbstractAioThread* aioThread)
{
    cancelSync();
    BasicPollable::bindToAioThread(aioThread);
    d->timer = makeTimer(aioThread);
}

}  // namespace kest::network::aio
