#pragma once

#include <memory>
#include <thread>

#include "abstract_aio_thread.h"

namespace boost::asio {
class io_context;
}  // namespace boost::asio

namespace kest::network::aio {

/**
 * An I/O thread: one io_context run by one thread, so whatever runs on it needs no strand. Pools
 * own their threads through shared pointers, so that work that may outlive a pool can hold a
 * weak one.
 */
class AioThread : public AbstractAioThread, public std::enable_shared_from_this<AioThread>
{
public:
    AioThread();
    /** Stops the thread; functions still queued are dropped without being called. */
    ~AioThread() override;

    void post(kest::utils::MoveOnlyFunc<void()> func) override;
    void dispatch(kest::utils::MoveOnlyFunc<void()> func) override;
    bool isInSelfThread() const override;
    bool isStopped() const override;

    /** Stops running and joins the thread; queued work is kept until destruction. Idempotent. */
    void stop();

    boost::asio::io_context& ioContext();

    /** The I/O thread the caller runs on, or null. */
    static AioThread* current();
    /** The same, when a shared pointer owns it; empty otherwise. */
    static std::weak_ptr<AioThread> currentWeak();

private:
    struct Private;
    std::unique_ptr<Private> d;
};

}  // namespace kest::network::aio
