#pragma once

#include <string>

namespace kest::reflect::json {

/**
 * A RapidJSON output stream that appends to a string: the text is written once, where it is
 * sent from, with no buffer to copy it out of.
 */
class StringOutput
{
public:
    using Ch = char;

    explicit StringOutput(std::string* out) : m_out(out) {}

    void Put(char c) { m_out->push_back(c); }
    void Flush() {}

private:
    std::string* m_out;
};

}  // namespace kest::reflect::json
