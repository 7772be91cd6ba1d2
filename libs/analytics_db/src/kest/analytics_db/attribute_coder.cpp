#include "attribute_coder.h"

#include <functional>
#include <limits>
#include <string_view>

namespace kest::analytics::db {

using common::metadata::Attribute;
using Kind = StoreDictionary::Kind;

namespace {
constexpr std::size_t kMaxCandidates = 1 << 18;
}  // namespace

AttributeCode AttributeCoder::encode(const Attribute& attribute)
{
    AttributeCode code;
    code.name = m_dictionary.key(Kind::attributeName, attribute.name);
    if (attribute.value.size() <= kMaxPairValue) {
        StoreDictionary::pairValue(code.name, attribute.value, &m_pair);
        if (const auto pair = m_dictionary.find(Kind::attribute, m_pair)) {
            code.pair = *pair;
            code.name = 0;
            return code;
        }
    }
    code.value = attribute.value;
    return code;
}

void AttributeCoder::noteStored(const Attribute& attribute)
{
    if (attribute.value.size() > kMaxPairValue || m_dictionary.size(Kind::attribute) >= kMaxPairs) {
        return;
    }
    const std::uint32_t name = m_dictionary.key(Kind::attributeName, attribute.name);
    StoreDictionary::pairValue(name, attribute.value, &m_pair);
    if (m_dictionary.find(Kind::attribute, m_pair))
        return;
    const std::uint64_t hash = std::hash<std::string_view>()(m_pair);
    if (m_seenOnce.erase(hash) > 0) {
        m_dictionary.key(Kind::attribute, m_pair);
        return;
    }
    if (m_seenOnce.size() >= kMaxCandidates)
        m_seenOnce.clear();
    m_seenOnce.insert(hash);
}

std::optional<Attribute> AttributeCoder::decode(const AttributeCode& code,
                                                const StoreDictionary& dictionary)
{
    if (code.pair == 0) {
        const std::string* name = dictionary.value(Kind::attributeName, code.name);
        if (!name)
            return std::nullopt;
        return Attribute{*name, code.value};
    }
    const std::string* entry = dictionary.value(Kind::attribute, code.pair);
    std::uint32_t nameKey = 0;
    std::string_view value;
    if (!entry || !StoreDictionary::splitPair(*entry, &nameKey, &value))
        return std::nullopt;
    const std::string* name = dictionary.value(Kind::attributeName, nameKey);
    if (!name)
        return std::nullopt;
    return Attribute{*name, std::string(value)};
}

bool AttributeCoder::read(ByteReader& in, const StoreDictionary& dictionary, Attribute* out)
{
    std::uint64_t code = 0;
    if (!in.getVarint(&code) || (code >> 1) > std::numeric_limits<std::uint32_t>::max())
        return false;
    const auto key = static_cast<std::uint32_t>(code >> 1);
    std::uint32_t nameKey = key;
    std::string_view value;
    if (code & 1) {
        if (!in.getBytes(&value))
            return false;
    } else {
        const std::string* entry = dictionary.value(Kind::attribute, key);
        if (!entry || !StoreDictionary::splitPair(*entry, &nameKey, &value))
            return false;
    }
    const std::string* name = dictionary.value(Kind::attributeName, nameKey);
    if (!name)
        return false;
    out->name = *name;
    out->value = value;
    return true;
}

}  // namespace kest::analytics::db
