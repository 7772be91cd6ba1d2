#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace kest::bench {

/** What the kernel tells of a process under /proc: memory and CPU time. Nothing once it is gone. */
class ProcessInfo
{
public:
    /** This process by default. */
    explicit ProcessInfo(pid_t pid = 0);

    std::optional<double> residentMiB() const;
    /** Resident anonymous memory (heap, stacks) and file-backed pages (mapped files, code), from
     * smaps_rollup; they add up to the resident set. */
    struct ResidentParts
    {
        double anonymousMiB = 0;
        double fileMiB = 0;
    };
    std::optional<ResidentParts> residentParts() const;
    /** The highest resident set so far. */
    std::optional<double> peakResidentMiB() const;
    /** User and system CPU time of every thread. */
    std::optional<double> cpuSeconds() const;

    struct Thread
    {
        int id = 0;
        std::string name;
        double cpuSeconds = 0;
    };
    std::vector<Thread> threads() const;

    /** The parent's PID; 0 when the process is gone. */
    pid_t parent() const;
    /** The processes whose parent is `pid`. */
    static std::vector<pid_t> children(pid_t pid);

private:
    std::optional<double> statusMiB(const std::string& key) const;

    std::string m_dir;
};

}  // namespace kest::bench
