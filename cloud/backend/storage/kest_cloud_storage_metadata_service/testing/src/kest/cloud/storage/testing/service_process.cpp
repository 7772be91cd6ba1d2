#include "service_process.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

extern char** environ;

namespace kest::cloud::storage::metadatadb::test {

using namespace std::chrono_literals;

pid_t spawnProcess(std::vector<std::string> args, const posix_spawn_file_actions_t* actions)
{
    std::vector<char*> argv;
    for (auto& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], actions, nullptr, argv.data(), environ) != 0)
        return -1;
    return pid;
}

std::uint16_t freeLoopbackPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

ServiceProcess::ServiceProcess(const std::string& executable, std::vector<std::string> args)
{
    int pipeFds[2];
    if (::pipe(pipeFds) != 0)
        return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
    args.insert(args.begin(), executable);
    m_pid = spawnProcess(std::move(args), &actions);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    m_output = pipeFds[0];
}

ServiceProcess::~ServiceProcess()
{
    if (m_pid > 0 && !m_exitStatus) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    if (m_output >= 0)
        ::close(m_output);
}

std::optional<std::smatch> ServiceProcess::waitForLine(const std::regex& pattern,
                                                       std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        for (std::size_t end; (end = m_text.find('\n', m_scanned)) != std::string::npos;) {
            m_line = m_text.substr(m_scanned, end - m_scanned);
            m_scanned = end + 1;
            std::smatch match;
            if (std::regex_search(m_line, match, pattern))
                return match;
        }
        if (!readSome(100ms) && m_eof)
            return std::nullopt;
    }
    return std::nullopt;
}

int ServiceProcess::wait()
{
    if (m_exitStatus || m_pid <= 0)
        return m_exitStatus.value_or(-1);
    int status = 0;
    // Keep draining the output: a child blocked on a full pipe would never exit.
    while (::waitpid(m_pid, &status, WNOHANG) == 0) {
        if (!readSome(100ms) && m_eof)
            std::this_thread::sleep_for(10ms);
    }
    m_exitStatus = status;
    while (readSome(100ms)) {
    }
    return status;
}

int ServiceProcess::terminate(std::chrono::milliseconds grace)
{
    if (m_exitStatus || m_pid <= 0)
        return m_exitStatus.value_or(-1);
    ::kill(m_pid, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + grace;
    int status = 0;
    while (::waitpid(m_pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, &status, 0);
            break;
        }
        if (!readSome(100ms) && m_eof)
            std::this_thread::sleep_for(10ms);
    }
    m_exitStatus = status;
    return status;
}

void ServiceProcess::signal(int number)
{
    if (m_pid > 0)
        ::kill(m_pid, number);
}

bool ServiceProcess::readSome(std::chrono::milliseconds timeout)
{
    if (m_output < 0) {
        m_eof = true;
        return false;
    }
    pollfd pfd{m_output, POLLIN, 0};
    if (::poll(&pfd, 1, static_cast<int>(timeout.count())) <= 0)
        return false;
    char buffer[4096];
    const ssize_t n = ::read(m_output, buffer, sizeof(buffer));
    if (n <= 0) {
        m_eof = true;
        return false;
    }
    m_text.append(buffer, static_cast<std::size_t>(n));
    return true;
}

}  // namespace kest::cloud::storage::metadatadb::test
