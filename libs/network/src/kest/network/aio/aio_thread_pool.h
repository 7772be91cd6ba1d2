#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "aio_thread.h"

namespace kest::network::aio {

/**
 * A fixed set of I/O threads handed out round-robin. The pool alone owns them: when it is
 * destroyed, each thread is joined and its io_context destroyed together with whatever is still
 * queued there, so nothing queued can keep a thread alive.
 */
class AioThreadPool
{
public:
    /** 0 threads means one per core. */
    explicit AioThreadPool(unsigned threadCount = 0);
    /** Stops and joins every thread. */
    ~AioThreadPool();

    AioThreadPool(const AioThreadPool&) = delete;
    AioThreadPool& operator=(const AioThreadPool&) = delete;

    std::size_t size() const { return m_threads.size(); }
    AioThread* thread(std::size_t index) const { return m_threads[index].get(); }
    /** The next thread in turn. */
    AioThread* next();
    /** The same, for objects that may outlive the pool: they find the thread gone. */
    std::weak_ptr<AioThread> nextWeak();

    /** Stops every thread; what is queued on them is destroyed with the pool. */
    void stop();

    /** The process-wide pool, one thread per core, made on first use. */
    static AioThreadPool& instance();

private:
    std::vector<std::shared_ptr<AioThread>> m_threads;
    std::atomic<std::size_t> m_next{0};
};

}  // namespace kest::network::aio
