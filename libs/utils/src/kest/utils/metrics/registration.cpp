#include "registration.h"

#include <utility>

#include "registry.h"

namespace kest::utils::metrics {

Registration::~Registration()
{
    reset();
}

Registration::Registration(Registration&& other) noexcept
    : m_registry(std::exchange(other.m_registry, nullptr)), m_id(std::exchange(other.m_id, 0))
{}

Registration& Registration::operator=(Registration&& other) noexcept
{
    if (this != &other) {
        reset();
        m_registry = std::exchange(other.m_registry, nullptr);
        m_id = std::exchange(other.m_id, 0);
    }
    return *this;
}

void Registration::reset()
{
    if (auto* registry = std::exchange(m_registry, nullptr))
        registry->remove(m_id);
}

}  // namespace kest::utils::metrics
