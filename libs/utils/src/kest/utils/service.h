#pragma once

#include <QString>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "abstract_service_settings.h"
#include "move_only_func.h"

namespace kest::utils {

/**
 * The host of a service process: creates and loads the settings, configures logging, runs
 * serviceMain() and offers it a main loop that ends on pleaseStop() or, when enabled, on SIGINT
 * or SIGTERM. The loop also runs the reload handler on pleaseReload() or, when enabled, SIGHUP.
 */
class Service
{
public:
    Service(int argc, char** argv, const QString& applicationName);
    virtual ~Service();

    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /** Returns the process exit code. Never throws. */
    int exec();

    /**
     * Reports a successful start, then blocks until pleaseStop(). A stop requested earlier
     * makes it return at once.
     */
    int runMainLoop();

    /** Thread-safe and async-signal-safe. */
    void pleaseStop();

    /**
     * Asks the main loop to run the reload handler (once for several requests that come
     * together). Thread-safe and async-signal-safe.
     */
    void pleaseReload();
    /** Runs on the thread of runMainLoop(); replaces the handler set before. */
    void setReloadHandler(MoveOnlyFunc<void()> handler);

    /** Called exactly once per exec(): true from runMainLoop(), false when starting failed. */
    void setOnStartedEventHandler(MoveOnlyFunc<void(bool)> handler);

    /**
     * Makes SIGINT and SIGTERM ask for a stop, and SIGHUP for a reload, while exec() runs in the
     * process main thread. Opt-in so that services hosted on other threads (tests) leave signals
     * alone.
     */
    void enableSignalHandling() { m_signalHandlingEnabled = true; }

    const QString& applicationName() const { return m_applicationName; }

protected:
    virtual std::unique_ptr<AbstractServiceSettings> createSettings() = 0;
    virtual int serviceMain(const AbstractServiceSettings& settings) = 0;

private:
    void reportStarted(bool started);
    void installSignalHandlers();
    void restoreSignalHandlers();

    QString m_applicationName;
    std::vector<std::string> m_args;
    std::vector<const char*> m_argv;
    std::atomic<bool> m_stopRequested{false};
    std::atomic<bool> m_reloadRequested{false};
    std::mutex m_reloadMutex;
    MoveOnlyFunc<void()> m_reloadHandler;
    int m_wakeUpPipe[2] = {-1, -1};
    bool m_signalHandlingEnabled = false;
    bool m_signalHandlersInstalled = false;
    std::mutex m_startedMutex;
    MoveOnlyFunc<void(bool)> m_onStarted;
    bool m_startedReported = false;
};

}  // namespace kest::utils
