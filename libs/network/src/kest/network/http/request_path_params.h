#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kest::network::http {

/** The named path parameters that a route template extracted, in template order. */
class RequestPathParams
{
public:
    void add(std::string name, std::string value)
    {
        m_params.emplace_back(std::move(name), std::move(value));
    }

    /** The value of the parameter, or nothing when the template had no such name. */
    std::optional<std::string> getByName(std::string_view name) const
    {
        for (const auto& [key, value] : m_params) {
            if (key == name)
                return value;
        }
        return std::nullopt;
    }

    bool empty() const { return m_params.empty(); }
    std::size_t size() const { return m_params.size(); }
    const std::vector<std::pair<std::string, std::string>>& items() const { return m_params; }

private:
    std::vector<std::pair<std::string, std::string>> m_params;
};

}  // namespace kest::network::http
