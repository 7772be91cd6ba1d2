#include "basic_pollable.h"

#include "aio_thread_pool.h"
#include "run_sync.h"

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
    runInThreadSync(m_aioThread, std::move(func));
}

}  // namespace kest::network::aio
