#pragma once

#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <variant>
#include <vector>

namespace kest::bench {

/**
 * The options of a benchmark, each bound to a variable that holds its default: `--name value` or
 * `--name=value`, or `--name` alone for a flag. `--help` prints them.
 */
class CommandLine
{
public:
    /** `usage` is the program's synopsis line, printed above the options. */
    explicit CommandLine(std::string usage) : m_usage(std::move(usage)) {}

    CommandLine& option(std::string name, int* value, std::string help,
                        std::int64_t minimum = std::numeric_limits<int>::min());
    CommandLine& option(std::string name, std::int64_t* value, std::string help,
                        std::int64_t minimum = std::numeric_limits<std::int64_t>::min());
    CommandLine& option(std::string name, double* value, std::string help);
    CommandLine& option(std::string name, std::string* value, std::string help);
    CommandLine& option(std::string name, std::filesystem::path* value, std::string help);
    CommandLine& flag(std::string name, bool* value, std::string help);

    /**
     * Reads the arguments into the variables. False after printing what is wrong and the usage
     * (to stderr), or the usage alone for --help (to stdout, with `helpShown` set).
     */
    bool parse(int argc, char** argv, bool* helpShown = nullptr);
    /** Whether the option was on the command line. */
    bool given(const std::string& name) const;

    void printUsage(std::FILE* file) const;

private:
    using Target =
        std::variant<int*, std::int64_t*, double*, std::string*, std::filesystem::path*, bool*>;
    struct Option
    {
        std::string name;
        Target target;
        std::string help;
        std::int64_t minimum;
        bool given = false;
    };

    CommandLine& add(std::string name, Target target, std::string help, std::int64_t minimum);
    std::string read(Option& option, const std::string& text);

    std::string m_usage;
    std::vector<Option> m_options;
};

}  // namespace kest::bench
