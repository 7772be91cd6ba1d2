#include "urlencoded.h"

#include <array>
#include <charconv>

#include <boost/url/encode.hpp>
#include <boost/url/params_view.hpp>
#include <boost/url/parse_query.hpp>
#include <boost/url/rfc/unreserved_chars.hpp>

namespace kest::reflect::urlencoded::detail {

std::string percentEncode(std::string_view text)
{
    return boost::urls::encode(text, boost::urls::unreserved_chars);
}

std::string doubleToText(double value)
{
    // The shortest text that reads back as the same double.
    std::array<char, 32> buffer{};
    const auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
    return std::string(buffer.data(), end);
}

bool parseQuery(std::string_view text, std::unordered_map<std::string, std::string>* params)
{
    if (text.starts_with('?'))
        text.remove_prefix(1);
    if (text.empty())
        return true;
    if (!boost::urls::parse_query(text))
        return false;
    boost::urls::encoding_opts options;
    options.space_as_plus = true;
    // Validated above, so this constructor does not throw.
    for (const boost::urls::param& param : boost::urls::params_view(text, options))
        (*params)[param.key] = param.value;
    return true;
}

}  // namespace kest::reflect::urlencoded::detail
