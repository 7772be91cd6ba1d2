#include "path_matcher.h"

#include <regex.h>

#include <regex>

#include <kest/network/http/request.h>
#include <kest/utils/log/log.h>

namespace kest::network::http::server::rest {

namespace {

constexpr std::size_t kMaxGroups = 16;

/** A compiled POSIX basic regular expression. */
class PosixRegex
{
public:
    explicit PosixRegex(const std::string& pattern)
    {
        m_valid = regcomp(&m_regex, pattern.c_str(), 0) == 0;
    }
    ~PosixRegex()
    {
        if (m_valid)
            regfree(&m_regex);
    }
    PosixRegex(const PosixRegex&) = delete;
    PosixRegex& operator=(const PosixRegex&) = delete;

    bool isValid() const { return m_valid; }
    std::size_t groupCount() const { return m_valid ? m_regex.re_nsub : 0; }

    bool execute(const char* text, regmatch_t* groups, std::size_t groupCount) const
    {
        return regexec(&m_regex, text, groupCount, groups, 0) == 0;
    }

private:
    regex_t m_regex{};
    bool m_valid = false;
};

}  // namespace

struct PathMatcher::Entry
{
    explicit Entry(const std::string& pattern) : regex(pattern) {}

    PosixRegex regex;
    std::vector<std::string> parameterNames;
    RequestHandlerFactory factory;
};

PathMatcher::PathMatcher() = default;
PathMatcher::~PathMatcher() = default;
PathMatcher::PathMatcher(PathMatcher&&) noexcept = default;
PathMatcher& PathMatcher::operator=(PathMatcher&&) noexcept = default;

std::string PathMatcher::templateToPattern(const std::string& pathTemplate)
{
    static const std::regex kPlaceholder("\\{[0-9a-zA-Z_-]*\\}", std::regex::ECMAScript);
    std::string pattern = "^";
    pattern += std::regex_replace(pathTemplate, kPlaceholder, "\\([^/]*\\)");
    pattern += '$';
    return pattern;
}

std::vector<std::string> PathMatcher::parameterNames(const std::string& pathTemplate)
{
    static const PosixRegex kName("{\\([0-9a-zA-Z_-]*\\)}");
    std::vector<std::string> names;
    const char* cursor = pathTemplate.c_str();
    regmatch_t groups[2];
    while (*cursor && kName.execute(cursor, groups, 2)) {
        names.emplace_back(cursor + groups[1].rm_so, groups[1].rm_eo - groups[1].rm_so);
        cursor += groups[0].rm_eo;
    }
    return names;
}

bool PathMatcher::add(const std::string& pathTemplate, RequestHandlerFactory factory)
{
    const std::string pattern = templateToPattern(pathTemplate);
    if (m_entries.contains(pattern))
        return false;
    auto entry = std::make_unique<Entry>(pattern);
    if (!entry->regex.isValid() || entry->regex.groupCount() + 1 > kMaxGroups) {
        KEST_ERROR(this, "Invalid path template '%1'", pathTemplate);
        return false;
    }
    entry->parameterNames = parameterNames(pathTemplate);
    entry->factory = std::move(factory);
    m_entries.emplace(pattern, std::move(entry));
    return true;
}

std::optional<PathMatcher::Match> PathMatcher::match(const std::string& path) const
{
    // regexec stops at a NUL, so the rest of such a path would go unchecked. (A path as received
    // has none; "%00" is three characters until a parameter is decoded.)
    if (path.find('\0') != std::string::npos)
        return std::nullopt;
    regmatch_t groups[kMaxGroups];
    for (const auto& [pattern, entry] : m_entries) {
        const std::size_t groupCount = entry->regex.groupCount() + 1;
        if (!entry->regex.execute(path.c_str(), groups, groupCount))
            continue;
        Match result;
        result.factory = &entry->factory;
        for (std::size_t i = 0; i < entry->parameterNames.size() && i + 1 < groupCount; ++i) {
            const regmatch_t& group = groups[i + 1];
            // Matched still encoded and decoded only now, so that "%2F" stays inside its segment.
            std::string value;
            if (group.rm_so >= 0) {
                value = Request::percentDecode(
                    std::string_view(path).substr(group.rm_so, group.rm_eo - group.rm_so));
            }
            result.pathParams.add(entry->parameterNames[i], std::move(value));
        }
        return result;
    }
    return std::nullopt;
}

}  // namespace kest::network::http::server::rest
