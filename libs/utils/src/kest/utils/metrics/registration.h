#pragma once

#include <cstdint>

namespace kest::utils::metrics {

class Registry;

/**
 * Keeps a source that a registry reads at scrape time (a function of another object) in that
 * registry; destroying or resetting it takes the source out, after which the source is never
 * called again. The registry must outlive it.
 */
class [[nodiscard]] Registration
{
public:
    Registration() = default;
    ~Registration();
    Registration(Registration&& other) noexcept;
    Registration& operator=(Registration&& other) noexcept;
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    /** Takes the source out now; waits for a scrape that is reading it. */
    void reset();

private:
    friend class Registry;
    Registration(Registry* registry, std::uint64_t id) : m_registry(registry), m_id(id) {}

    Registry* m_registry = nullptr;
    std::uint64_t m_id = 0;
};

}  // namespace kest::utils::metrics
