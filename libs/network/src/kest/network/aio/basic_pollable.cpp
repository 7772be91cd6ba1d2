#include "basic_pollable.h"

#include <future>

#include "aio_thread_pool.h"

namespace kest::network::aio {

BasicPollable::BasicPollable(AbstractAioThread* aioThread)
    : m_aioThread(aioThread ? aioThread : AioThreadPool::instance().next())
{}

void BasicPollable::pleaseStop(kest::utils::MoveOnlyFunc<void()> handler)
{
    post([this, handler = std::move(handler)]() mutable {
        stopWhileInAioThread();
        if (handler)
            handler();
    });
}

void BasicPollable::pleaseStopSync()
{
    executeInAioThreadSync([this]() { stopWhileInAioThread(); });
}

AbstractAioThread* BasicPollable::getAioThread() const
{
    return m_aioThread;
}

void BasicPollable::bindToAioThread(AbstractAioThread* aioThread)
{
    m_aioThread = aioThread;
}

void BasicPollable::post(kest::utils::MoveOnlyFunc<void()> func)
{
    m_aioThread->post(std::move(func));
}

void BasicPollable::dispatch(kest::utils::MoveOnlyFunc<void()> func)
{
    m_aioThread->dispatch(std::move(func));
}

void BasicPollable::executeInAioThreadSync(kest::utils::MoveOnlyFunc<void()> func)
{
    if (m_aioThread->isInSelfThread() || m_aioThread->isStopped()) {
        func();
        return;
    }
    std::promise<void> done;
    auto future = done.get_future();
    m_aioThread->post([&func, &done]() {
        func();
        done.set_value();
    });
    future.wait();
}

}  // namespace kest::network::aio
