#include "process_info.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace kest::bench {

namespace {

struct Stat
{
    std::string name;
    pid_t parent = 0;
    double cpuSeconds = 0;
};

/** The name and CPU time in a /proc/.../stat file. */
std::optional<Stat> readStat(const std::filesystem::path& path)
{
    std::ifstream in(path);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The name is in parentheses and may hold blanks; then the state, the parent (field 4), and
    // utime and stime as fields 14 and 15.
    const auto open = text.find('('), close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos)
        return std::nullopt;
    Stat stat{text.substr(open + 1, close - open - 1)};
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 4)
            stat.parent = std::stoi(field);
        if (i >= 14)
            ticks += std::stod(field);
    }
    stat.cpuSeconds = ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
    return stat;
}

}  // namespace

ProcessInfo::ProcessInfo(pid_t pid)
    : m_dir(pid > 0 ? "/proc/" + std::to_string(pid) : std::string("/proc/self"))
{}

std::optional<double> ProcessInfo::statusMiB(const std::string& key) const
{
    std::ifstream status(m_dir + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key + ":"))
            return std::stod(line.substr(key.size() + 1)) / 1024.0;
    }
    return std::nullopt;
}

std::optional<double> ProcessInfo::residentMiB() const
{
    return statusMiB("VmRSS");
}

std::optional<ProcessInfo::ResidentParts> ProcessInfo::residentParts() const
{
    std::ifstream rollup(m_dir + "/smaps_rollup");
    std::optional<double> rss, anonymous;
    for (std::string line; std::getline(rollup, line);) {
        if (line.starts_with("Rss:"))
            rss = std::stod(line.substr(4)) / 1024.0;
        else if (line.starts_with("Anonymous:"))
            anonymous = std::stod(line.substr(10)) / 1024.0;
    }
    if (!rss || !anonymous)
        return std::nullopt;
    return ResidentParts{*anonymous, *rss - *anonymous};
}

std::optional<double> ProcessInfo::peakResidentMiB() const
{
    return statusMiB("VmHWM");
}

std::optional<double> ProcessInfo::cpuSeconds() const
{
    const auto stat = readStat(m_dir + "/stat");
    return stat ? std::optional(stat->cpuSeconds) : std::nullopt;
}

std::vector<ProcessInfo::Thread> ProcessInfo::threads() const
{
    std::vector<Thread> threads;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(m_dir + "/task", error)) {
        if (const auto stat = readStat(entry.path() / "stat"))
            threads.push_back({std::stoi(entry.path().filename()), stat->name, stat->cpuSeconds});
    }
    return threads;
}

pid_t ProcessInfo::parent() const
{
    const auto stat = readStat(m_dir + "/stat");
    return stat ? stat->parent : 0;
}

std::vector<pid_t> ProcessInfo::children(pid_t pid)
{
    std::vector<pid_t> pids;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        if (const auto stat = readStat(entry.path() / "stat"); stat && stat->parent == pid)
            pids.push_back(std::stoi(name));
    }
    return pids;
}

}  // namespace kest::bench
