#include "text_matcher.h"

#include <sqlite3.h>

#include <QString>
#include <cstring>
#include <memory>

namespace kest::analytics::db {

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

/** Reads the stored attribute blob in place: count, then length-prefixed name and value. */
template <typename Visit>
void forEachAttributeText(std::string_view bytes, Visit&& visit)
{
    const auto u32 = [&](std::uint32_t* v) {
        if (bytes.size() < 4)
            return false;
        std::memcpy(v, bytes.data(), 4);
        bytes.remove_prefix(4);
        return true;
    };
    std::uint32_t count = 0;
    if (!u32(&count))
        return;
    for (std::uint32_t i = 0; i < 2 * count; ++i) {
        std::uint32_t size = 0;
        if (!u32(&size) || bytes.size() < size)
            return;
        if (visit(bytes.substr(0, size)))
            return;
        bytes.remove_prefix(size);
    }
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

void TextMatcher::tokenize(std::string_view text, int flags, std::vector<std::string>* tokens)
{
    if (!m_tokenizer || text.empty())
        return;
    m_api->xTokenize(m_tokenizer, tokens, flags, text.data(), static_cast<int>(text.size()),
                     [](void* context, int, const char* token, int size, int, int) {
                         static_cast<std::vector<std::string>*>(context)->emplace_back(token, size);
                         return SQLITE_OK;
                     });
}

void TextMatcher::setQuery(const std::vector<std::string>& words)
{
    m_query.clear();
    for (const std::string& word : words)
        tokenize(word, FTS5_TOKENIZE_QUERY, &m_query);
    m_found.assign(m_query.size(), false);
    m_checks = 0;
}

bool TextMatcher::matches(std::string_view attributes)
{
    ++m_checks;
    if (m_query.empty())
        return true;
    m_found.assign(m_query.size(), false);
    m_missing = m_query.size();
    struct Context
    {
        TextMatcher* self;
    } context{this};
    forEachAttributeText(attributes, [&](std::string_view text) {
        m_api->xTokenize(
            m_tokenizer, &context, FTS5_TOKENIZE_DOCUMENT, text.data(),
            static_cast<int>(text.size()),
            [](void* ctx, int, const char* token, int size, int, int) {
                TextMatcher& m = *static_cast<Context*>(ctx)->self;
                const std::string_view t(token, size);
                for (std::size_t i = 0; i < m.m_query.size(); ++i) {
                    if (!m.m_found[i] && t.starts_with(m.m_query[i])) {
                        m.m_found[i] = true;
                        if (--m.m_missing == 0)
                            return SQLITE_DONE;  //< Stops the tokenizer: all words found.
                    }
                }
                return SQLITE_OK;
            });
        return m_missing == 0;
    });
    return m_missing == 0;
}

}  // namespace kest::analytics::db
