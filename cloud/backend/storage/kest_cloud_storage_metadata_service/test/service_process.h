#pragma once

// A program run as a child process for tests and benchmarks, its standard output and error read
// through one pipe: wait for a line, signal it, collect its exit status.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace kest::cloud::storage::metadatadb::test {

using namespace std::chrono_literals;

/** Starts `args[0]` with the arguments `args`; its PID, or -1. */
inline pid_t spawnProcess(std::vector<std::string> args,
                          const posix_spawn_file_actions_t* actions = nullptr)
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

/** A loopback port that was free a moment ago: for a child that must be told its port. */
inline std::uint16_t freeLoopbackPort()
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

/** The service executable run as a child process, its standard error read through a pipe. */
class ServiceProcess
{
public:
    ServiceProcess(const std::string& executable, std::vector<std::string> args)
    {
        int pipeFds[2];
        ::pipe(pipeFds);
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

    ~ServiceProcess()
    {
        if (m_pid > 0 && !m_exitStatus) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        ::close(m_output);
    }

    bool started() const { return m_pid > 0; }

    /** Reads output until `pattern` matches a line; the match, or nothing on timeout or exit. */
    std::optional<std::smatch> waitForLine(const std::regex& pattern)
    {
        const auto deadline = std::chrono::steady_clock::now() + 20s;
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

    /** Waits for the process to end; its wait status. */
    int wait()
    {
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

    void signal(int number) { ::kill(m_pid, number); }
    pid_t pid() const { return m_pid; }
    const std::string& output() const { return m_text; }

private:
    bool readSome(std::chrono::milliseconds timeout)
    {
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

    pid_t m_pid = -1;
    int m_output = -1;
    std::string m_text;
    std::size_t m_scanned = 0;
    std::string m_line;  // The match refers into it.
    bool m_eof = false;
    std::optional<int> m_exitStatus;
};

}  // namespace kest::cloud::storage::metadatadb::test
