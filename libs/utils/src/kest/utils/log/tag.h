#pragma once

#include <string>
#include <typeinfo>

namespace kest::utils::log {

/** Names the object that writes a log line: its type and address, or a fixed text. */
class Tag
{
public:
    explicit Tag(std::string text) : m_text(std::move(text)) {}
    Tag(const char* text) : m_text(text) {}

    template <typename T>
    Tag(const T* object) : m_text(fromObject(typeid(*object), object))
    {}

    const std::string& text() const { return m_text; }

private:
    static std::string fromObject(const std::type_info& type, const void* object);

    std::string m_text;
};

}  // namespace kest::utils::log
