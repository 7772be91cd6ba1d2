#include "command_line.h"

#include <cstdio>
#include <optional>

namespace kest::bench {

namespace {

template <typename T>
bool defaultShown(T* value, std::string* text)
{
    if constexpr (std::is_same_v<T, bool>) {
        return false;
    } else if constexpr (std::is_arithmetic_v<T>) {
        *text = std::to_string(*value);
        if constexpr (std::is_floating_point_v<T>)
            text->erase(text->find_last_not_of('0') + 1);
        if (!text->empty() && text->back() == '.')
            text->pop_back();
        return true;
    } else {
        *text = std::string(*value);
        return !text->empty();
    }
}

}  // namespace

CommandLine& CommandLine::option(std::string name, int* value, std::string help,
                                 std::int64_t minimum)
{
    return add(std::move(name), value, std::move(help), minimum);
}

CommandLine& CommandLine::option(std::string name, std::int64_t* value, std::string help,
                                 std::int64_t minimum)
{
    return add(std::move(name), value, std::move(help), minimum);
}

CommandLine& CommandLine::option(std::string name, double* value, std::string help)
{
    return add(std::move(name), value, std::move(help), 0);
}

CommandLine& CommandLine::option(std::string name, std::string* value, std::string help)
{
    return add(std::move(name), value, std::move(help), 0);
}

CommandLine& CommandLine::option(std::string name, std::filesystem::path* value, std::string help)
{
    return add(std::move(name), value, std::move(help), 0);
}

CommandLine& CommandLine::flag(std::string name, bool* value, std::string help)
{
    return add(std::move(name), value, std::move(help), 0);
}

CommandLine& CommandLine::add(std::string name, Target target, std::string help,
                              std::int64_t minimum)
{
    m_options.push_back({std::move(name), target, std::move(help), minimum});
    return *this;
}

std::string CommandLine::read(Option& option, const std::string& text)
{
    try {
        std::size_t used = 0;
        std::int64_t number = 0;
        const bool whole = std::visit(
            [&](auto* target) {
                using T = std::remove_pointer_t<decltype(target)>;
                if constexpr (std::is_same_v<T, bool>) {
                    *target = true;  // Flags take no value; parse() sets them.
                    used = text.size();
                } else if constexpr (std::is_same_v<T, double>) {
                    *target = std::stod(text, &used);
                } else if constexpr (std::is_integral_v<T>) {
                    number = std::stoll(text, &used);
                    if (number < option.minimum || number > std::numeric_limits<T>::max())
                        return false;
                    *target = static_cast<T>(number);
                } else {
                    *target = T(text);
                    used = text.size();
                }
                return true;
            },
            option.target);
        if (!whole)
            return option.name + ": at least " + std::to_string(option.minimum);
        if (used != text.size())
            return option.name + ": '" + text + "' is not a number";
    } catch (const std::exception&) {
        return option.name + ": '" + text + "' is not a number";
    }
    return {};
}

bool CommandLine::parse(int argc, char** argv, bool* helpShown)
{
    std::string error;
    for (int i = 1; i < argc && error.empty(); ++i) {
        std::string arg = argv[i];
        std::optional<std::string> inlineValue;  //< Of "--name=value".
        if (const auto equals = arg.find('=');
            arg.starts_with("--") && equals != std::string::npos) {
            inlineValue = arg.substr(equals + 1);
            arg.resize(equals);
        }
        if (arg == "-h" || arg == "--help") {
            printUsage(stdout);
            if (helpShown)
                *helpShown = true;
            return false;
        }
        Option* option = nullptr;
        for (auto& candidate : m_options) {
            if (candidate.name == arg)
                option = &candidate;
        }
        if (!option) {
            error = "unknown option " + arg;
        } else if (auto** flag = std::get_if<bool*>(&option->target)) {
            if (inlineValue)
                error = arg + " takes no value";
            **flag = true;
        } else if (inlineValue) {
            error = read(*option, *inlineValue);
        } else if (i + 1 >= argc) {
            error = arg + " needs a value";
        } else {
            error = read(*option, argv[++i]);
        }
        if (option)
            option->given = true;
    }
    if (error.empty())
        return true;
    std::fprintf(stderr, "%s\n\n", error.c_str());
    printUsage(stderr);
    return false;
}

bool CommandLine::given(const std::string& name) const
{
    for (const auto& option : m_options) {
        if (option.name == name)
            return option.given;
    }
    return false;
}

void CommandLine::printUsage(std::FILE* file) const
{
    std::fprintf(file, "%s\n", m_usage.c_str());
    for (const auto& option : m_options) {
        std::string shownDefault;
        const bool hasDefault = std::visit(
            [&](auto* target) { return defaultShown(target, &shownDefault); }, option.target);
        const bool isFlag = std::holds_alternative<bool*>(option.target);
        std::fprintf(file, "  %-24s %s%s%s\n", (option.name + (isFlag ? "" : " X")).c_str(),
                     option.help.c_str(), hasDefault ? "; default " : "",
                     hasDefault ? shownDefault.c_str() : "");
    }
}

}  // namespace kest::bench
