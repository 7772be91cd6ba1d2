#include "aio_thread_pool.h"

#include <thread>

namespace kest::network::aio {

AioThreadPool::AioThreadPool(unsigned threadCount)
{
    if (threadCount == 0)
        threadCount = std::max(1u, std::thread::hardware_concurrency());
    m_threads.reserve(threadCount);
    for (unsigned i = 0; i < threadCount; ++i)
        m_threads.push_back(std::make_shared<AioThread>());
}

AioThreadPool::~AioThreadPool()
{
    stop();
}

void AioThreadPool::stop()
{
    for (const auto& thread : m_threads)
        thread->stop();
}

AioThread* AioThreadPool::next()
{
    const std::size_t index = m_next.fetch_add(1, std::memory_order_relaxed);
    return m_threads[index % m_threads.size()].get();
}

std::weak_ptr<AioThread> AioThreadPool::nextWeak()
{
    const std::size_t index = m_next.fetch_add(1, std::memory_order_relaxed);
    return m_threads[index % m_threads.size()];
}

AioThreadPool& AioThreadPool::instance()
{
    static AioThreadPool pool;
    return pool;
}

}  // namespace kest::network::aio
