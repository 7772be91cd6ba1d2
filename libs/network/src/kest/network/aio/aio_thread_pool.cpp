#include "aio_thread_pool.h"

#include <openssl/ssl.h>

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
    // OpenSSL frees what each thread of it holds (its error queue, its random generators) when
    // the thread ends, but no longer once its own clean-up at exit has run. Initialised before
    // the pool, it cleans up after the pool's threads have ended.
    static const bool openSsl = OPENSSL_init_ssl(0, nullptr) == 1;
    static AioThreadPool pool;
    (void)openSsl;
    return pool;
}

}  // namespace kest::network::aio
