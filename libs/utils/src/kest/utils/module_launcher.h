#pragma once

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace kest::utils {

/**
 * Runs a service (a kest::utils::Service subclass constructible from argc/argv) on a thread of
 * its own, as the host would in a process: for tests that need a whole service in-process.
 * The destructor asks the service to stop and waits for it.
 */
template <typename ServiceType>
class ModuleLauncher
{
public:
    explicit ModuleLauncher(const char* programName = "module") { addArg(programName); }

    virtual ~ModuleLauncher()
    {
        stop();
        for (char* arg : m_args)
            std::free(arg);
    }

    ModuleLauncher(const ModuleLauncher&) = delete;
    ModuleLauncher& operator=(const ModuleLauncher&) = delete;

    /** Appends a copy of the argument; the launcher owns the copies. */
    void addArg(const char* arg) { m_args.push_back(strdup(arg)); }

    /** Adds the arguments and starts; with `waitUntilStarted`, says whether the start succeeded. */
    bool startService(std::vector<const char*> args, bool waitUntilStarted = true)
    {
        for (const char* arg : args)
            addArg(arg);
        if (!waitUntilStarted) {
            start();
            return true;
        }
        return startAndWaitUntilStarted();
    }

    /** Creates the service on a new thread and runs it there. */
    void start()
    {
        m_thread = std::thread([this]() { run(); });
    }

    /** Waits until the service has started or failed to: true once it is running. */
    bool startAndWaitUntilStarted()
    {
        start();
        return m_started.get_future().get();
    }

    /** Asks the service to stop and waits until its thread has ended. Safe to call twice. */
    void stop()
    {
        {
            std::lock_guard lock(m_mutex);
            m_stopRequested = true;
            if (m_service)
                m_service->pleaseStop();
        }
        if (m_thread.joinable())
            m_thread.join();
    }

    /** The running service; null before it is created and after it has finished. */
    ServiceType* moduleInstance()
    {
        std::lock_guard lock(m_mutex);
        return m_service.get();
    }

    /** The exit code of exec(), once the service has finished. */
    std::optional<int> exitCode() const
    {
        std::lock_guard lock(m_mutex);
        return m_exitCode;
    }

private:
    void run()
    {
        std::vector<char*> argv(m_args);
        argv.push_back(nullptr);
        auto service = std::make_unique<ServiceType>(static_cast<int>(m_args.size()), argv.data());
        service->setOnStartedEventHandler([this](bool started) { reportStarted(started); });
        {
            std::lock_guard lock(m_mutex);
            m_service = std::move(service);
            // A stop asked for before the service existed still has to end it.
            if (m_stopRequested)
                m_service->pleaseStop();
        }

        const int exitCode = m_service->exec();
        // exec() may end without a start report (help printed): nobody must wait forever.
        reportStarted(false);

        std::unique_ptr<ServiceType> finished;
        {
            std::lock_guard lock(m_mutex);
            m_exitCode = exitCode;
            finished = std::move(m_service);
        }
    }

    void reportStarted(bool started)
    {
        if (!m_startReported.exchange(true))
            m_started.set_value(started);
    }

    std::vector<char*> m_args;
    std::thread m_thread;
    std::promise<bool> m_started;
    std::atomic<bool> m_startReported{false};
    mutable std::mutex m_mutex;
    std::unique_ptr<ServiceType> m_service;
    bool m_stopRequested = false;
    std::optional<int> m_exitCode;
};

}  // namespace kest::utils
