#include "text_matcher.h"

#include <sqlite3.h>

#include <QString>
#include <cstring>
#include <memory>

#include "attribute_code.h"

namespace kest::analytics::db {

using Kind = StoreDictionary::Kind;

namespace {

fts5_api* fts5Api(sqlite3* db)
{
    fts5_api* api = nullptr;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT fts5(?1)", -1, &statement, nullptr) != SQLITE_OK)
        return nullptr;
    sqlite3_bind_pointer(statement, 1, &api, "fts5_api_ptr", nullptr);
    sqlite3_step(statement);
    sqlite3_finalize(statement);
    return api;
}

}  // namespace

TextMatcher::~TextMatcher()
{
    if (m_tokenizer)
        m_api->xDelete(m_tokenizer);
    delete m_api;
}

bool TextMatcher::open(sqlite3* db)
{
    fts5_api* api = fts5Api(db);
    if (!api)
        return false;
    void* userData = nullptr;
    auto tokenizer = std::make_unique<fts5_tokenizer>();
    if (api->xFindTokenizer(api, kTokenizer, &userData, tokenizer.get()) != SQLITE_OK)
        return false;
    if (tokenizer->xCreate(userData, const_cast<const char**>(kTokenizerArgs),
                           std::size(kTokenizerArgs), &m_tokenizer) != SQLITE_OK) {
        return false;
    }
    m_api = tokenizer.release();
    return true;
}

std::vector<std::string> TextMatcher::words(const std::string& text)
{
    std::vector<std::string> out;
    QString word;
    const auto flush = [&] {
        if (!word.isEmpty())
            out.push_back(word.toStdString());
        word.clear();
    };
    for (const QChar c : QString::fromStdString(text)) {
        if (c.isLetterOrNumber() || c.isMark())
            word += c;
        else
            flush();
    }
    flush();
    return out;
}

void TextMatcher::documentTokens(std::string_view text, std::vector<std::string>* tokens)
{
    if (!m_tokenizer || text.empty())
        return;
    m_api->xTokenize(m_tokenizer, tokens, FTS5_TOKENIZE_DOCUMENT, text.data(),
                     static_cast<int>(text.size()),
                     [](void* context, int, const char* token, int size, int, int) {
                         static_cast<std::vector<std::string>*>(context)->emplace_back(token, size);
                         return SQLITE_OK;
                     });
}

void TextMatcher::setQuery(const std::vector<std::string>& words)
{
    m_query.clear();
    for (const std::string& word : words) {
        if (!m_tokenizer || word.empty())
            continue;
        m_api->xTokenize(
            m_tokenizer, &m_query, FTS5_TOKENIZE_QUERY, word.data(), static_cast<int>(word.size()),
            [](void* context, int, const char* token, int size, int, int) {
                static_cast<std::vector<std::string>*>(context)->emplace_back(token, size);
                return SQLITE_OK;
            });
    }
    if (m_query.size() > kMaxQueryWords)
        m_query.resize(kMaxQueryWords);
    m_all = m_query.size() == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << m_query.size()) - 1;
    m_checks = 0;
    m_pairMasks.clear();
    m_nameMasks.clear();
}

std::uint64_t TextMatcher::maskOfToken(std::string_view token) const
{
    std::uint64_t mask = 0;
    for (std::size_t i = 0; i < m_query.size(); ++i) {
        if (token.starts_with(m_query[i]))
            mask |= std::uint64_t{1} << i;
    }
    return mask;
}

std::uint64_t TextMatcher::maskOf(std::string_view text)
{
    struct Context
    {
        const TextMatcher* self;
        std::uint64_t mask;
    } context{this, 0};
    if (!m_tokenizer || text.empty())
        return 0;
    m_api->xTokenize(m_tokenizer, &context, FTS5_TOKENIZE_DOCUMENT, text.data(),
                     static_cast<int>(text.size()),
                     [](void* c, int, const char* token, int size, int, int) {
                         auto& ctx = *static_cast<Context*>(c);
                         ctx.mask |= ctx.self->maskOfToken(std::string_view(token, size));
                         return ctx.mask == ctx.self->m_all ? SQLITE_DONE : SQLITE_OK;
                     });
    return context.mask;
}

bool TextMatcher::matches(std::string_view attributes, const StoreDictionary& dictionary)
{
    ++m_checks;
    if (m_query.empty())
        return true;
    ByteReader in(attributes);
    std::uint64_t count = 0;
    if (!in.getVarint(&count))
        return false;
    std::uint64_t found = 0;
    AttributeCode code;
    for (std::uint64_t i = 0; i < count && found != m_all; ++i) {
        if (!code.read(in))
            return false;
        if (code.pair != 0) {
            auto [it, inserted] = m_pairMasks.try_emplace(code.pair, 0);
            if (inserted) {
                std::uint32_t nameKey = 0;
                std::string_view value;
                const std::string* entry = dictionary.value(Kind::attribute, code.pair);
                if (entry && StoreDictionary::splitPair(*entry, &nameKey, &value)) {
                    const std::string* name = dictionary.value(Kind::attributeName, nameKey);
                    it->second = (name ? maskOf(*name) : 0) | maskOf(value);
                }
            }
            found |= it->second;
            continue;
        }
        auto [it, inserted] = m_nameMasks.try_emplace(code.name, 0);
        if (inserted) {
            const std::string* name = dictionary.value(Kind::attributeName, code.name);
            it->second = name ? maskOf(*name) : 0;
        }
        found |= it->second;
        if (found != m_all)
            found |= maskOf(code.value);
    }
    return found == m_all;
}

bool TextMatcher::matchesTokens(const std::vector<std::string>& tokens) const
{
    if (m_query.empty())
        return true;
    std::uint64_t found = 0;
    for (const auto& token : tokens) {
        found |= maskOfToken(token);
        if (found == m_all)
            return true;
    }
    return false;
}

}  // namespace kest::analytics::db
