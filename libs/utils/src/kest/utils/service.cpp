#include "service.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>

#include "log/log.h"

namespace kest::utils {

namespace {

// The service that signals stop. Only one exec() with signal handling at a time makes sense in
// a process; a plain atomic pointer is what a signal handler may touch.
std::atomic<Service*> g_signalTarget{nullptr};
struct sigaction g_previousInt;
struct sigaction g_previousTerm;
struct sigaction g_previousHup;

void onStopSignal(int /*signal*/)
{
    if (Service* service = g_signalTarget.load())
        service->pleaseStop();
}

void onReloadSignal(int /*signal*/)
{
    if (Service* service = g_signalTarget.load())
        service->pleaseReload();
}

bool isProcessMainThread()
{
    return gettid() == getpid();
}

}  // namespace

Service::Service(int argc, char** argv, const QString& applicationName)
    : m_applicationName(applicationName)
{
    for (int i = 0; i < argc; ++i)
        m_args.emplace_back(argv[i] ? argv[i] : "");
    for (const auto& arg : m_args)
        m_argv.push_back(arg.c_str());
    m_argv.push_back(nullptr);

    if (pipe2(m_wakeUpPipe, O_CLOEXEC) != 0) {
        m_wakeUpPipe[0] = m_wakeUpPipe[1] = -1;
        KEST_ERROR(this, "Cannot create the stop pipe: errno %1", errno);
    } else {
        // A signal handler must never block on a full pipe; one pending byte is enough anyway.
        fcntl(m_wakeUpPipe[1], F_SETFL, O_NONBLOCK);
    }
}

Service::~Service()
{
    restoreSignalHandlers();
    for (int fd : m_wakeUpPipe) {
        if (fd >= 0)
            close(fd);
    }
}

int Service::exec()
{
    std::unique_ptr<AbstractServiceSettings> settings;
    try {
        settings = createSettings();
        settings->load(static_cast<int>(m_args.size()), m_argv.data());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: cannot load settings: %s\n",
                     m_applicationName.toStdString().c_str(), e.what());
        reportStarted(false);
        return 1;
    }

    if (settings->isShowHelpRequested()) {
        settings->printCmdLineArgsHelp();
        reportStarted(false);
        return 0;
    }

    log::Logger::instance().configure(settings->logging());

    if (m_signalHandlingEnabled && isProcessMainThread())
        installSignalHandlers();

    int result = 1;
    try {
        result = serviceMain(*settings);
    } catch (const std::exception& e) {
        KEST_ERROR(this, "%1 failed: %2", m_applicationName, e.what());
        std::fprintf(stderr, "%s: %s\n", m_applicationName.toStdString().c_str(), e.what());
        result = 1;
    } catch (...) {
        KEST_ERROR(this, "%1 failed with an unknown exception", m_applicationName);
        std::fprintf(stderr, "%s: unknown failure\n", m_applicationName.toStdString().c_str());
        result = 1;
    }
    // A serviceMain that never reached the main loop did not start.
    reportStarted(false);
    restoreSignalHandlers();
    return result;
}

int Service::runMainLoop()
{
    reportStarted(true);
    while (!m_stopRequested.load()) {
        if (m_reloadRequested.exchange(false)) {
            std::lock_guard lock(m_reloadMutex);
            if (m_reloadHandler)
                m_reloadHandler();
            continue;
        }
        if (m_wakeUpPipe[0] < 0) {
            // No pipe: poll rather than hang forever.
            usleep(10'000);
            continue;
        }
        char buffer[16];
        const ssize_t n = read(m_wakeUpPipe[0], buffer, sizeof(buffer));
        if (n < 0 && errno != EINTR)
            usleep(10'000);
    }
    return 0;
}

void Service::pleaseStop()
{
    m_stopRequested.store(true);
    if (m_wakeUpPipe[1] >= 0) {
        const char byte = 1;
        [[maybe_unused]] const ssize_t n = write(m_wakeUpPipe[1], &byte, 1);
    }
}

void Service::pleaseReload()
{
    m_reloadRequested.store(true);
    if (m_wakeUpPipe[1] >= 0) {
        const char byte = 2;
        [[maybe_unused]] const ssize_t n = write(m_wakeUpPipe[1], &byte, 1);
    }
}

void Service::setReloadHandler(MoveOnlyFunc<void()> handler)
{
    std::lock_guard lock(m_reloadMutex);
    m_reloadHandler = std::move(handler);
}

void Service::setOnStartedEventHandler(MoveOnlyFunc<void(bool)> handler)
{
    std::lock_guard lock(m_startedMutex);
    m_onStarted = std::move(handler);
    m_startedReported = false;
}

void Service::reportStarted(bool started)
{
    MoveOnlyFunc<void(bool)> handler;
    {
        std::lock_guard lock(m_startedMutex);
        if (m_startedReported)
            return;
        m_startedReported = true;
        handler = std::move(m_onStarted);
    }
    if (handler)
        handler(started);
}

void Service::installSignalHandlers()
{
    Service* expected = nullptr;
    if (!g_signalTarget.compare_exchange_strong(expected, this))
        return;
    struct sigaction action = {};
    action.sa_handler = &onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &g_previousInt);
    sigaction(SIGTERM, &action, &g_previousTerm);
    struct sigaction reload = action;
    reload.sa_handler = &onReloadSignal;
    sigaction(SIGHUP, &reload, &g_previousHup);
    m_signalHandlersInstalled = true;
}

void Service::restoreSignalHandlers()
{
    if (!m_signalHandlersInstalled)
        return;
    sigaction(SIGINT, &g_previousInt, nullptr);
    sigaction(SIGTERM, &g_previousTerm, nullptr);
    sigaction(SIGHUP, &g_previousHup, nullptr);
    g_signalTarget.store(nullptr);
    m_signalHandlersInstalled = false;
}

}  // namespace kest::utils
