#pragma once

#include <spawn.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace kest::cloud::storage::metadatadb::test {

/** Starts `args[0]` with the arguments `args`, in this process's environment; its PID, or -1. */
pid_t spawnProcess(std::vector<std::string> args,
                   const posix_spawn_file_actions_t* actions = nullptr);

/** A loopback port that was free a moment ago: for a child that must be told its port. */
std::uint16_t freeLoopbackPort();

/**
 * A program (the service, its command-line client) run as a child process, its standard output
 * and error read through one pipe: wait for a line, signal it, collect its exit status. Killed
 * when destroyed unless it has been waited for.
 */
class ServiceProcess
{
public:
    ServiceProcess(const std::string& executable, std::vector<std::string> args);
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    bool started() const { return m_pid > 0; }

    /** Reads output until `pattern` matches a line; the match, or nothing on timeout or exit. */
    std::optional<std::smatch> waitForLine(
        const std::regex& pattern, std::chrono::milliseconds timeout = std::chrono::seconds(30));

    /** Waits for the process to end; its wait status. */
    int wait();
    /** SIGTERM, then SIGKILL when it has not ended within `grace`; its wait status. */
    int terminate(std::chrono::milliseconds grace);

    void signal(int number);
    pid_t pid() const { return m_pid; }
    const std::string& output() const { return m_text; }

private:
    bool readSome(std::chrono::milliseconds timeout);

    pid_t m_pid = -1;
    int m_output = -1;
    std::string m_text;
    std::size_t m_scanned = 0;
    std::string m_line;  //< The last match refers into it.
    bool m_eof = false;
    std::optional<int> m_exitStatus;
};

}  // namespace kest::cloud::storage::metadatadb::test
