#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct Fts5Tokenizer;
struct fts5_tokenizer;

namespace kest::analytics::db {

/**
 * Free-text matching of one track's attributes without the full-text index, with the very
 * tokenizer the index uses, so that both ways agree: every query word must be the start of a
 * word of some attribute name or value. Searches use it while they walk a time index, which is
 * cheaper than the index when the words are common.
 */
class TextMatcher
{
public:
    /** The tokenizer options of the index (see storage_schema.h). */
    static constexpr const char* kTokenizer = "unicode61";
    static constexpr const char* kTokenizerArgs[] = {"remove_diacritics", "2"};

    TextMatcher() = default;
    ~TextMatcher();
    TextMatcher(const TextMatcher&) = delete;
    TextMatcher& operator=(const TextMatcher&) = delete;

    /** Takes the tokenizer of the connection's FTS5 module. */
    bool open(sqlite3* db);

    /** The words of free text, as the index query and as the matcher see them. */
    static std::vector<std::string> words(const std::string& text);

    void setQuery(const std::vector<std::string>& words);
    /** `attributes` is the stored attribute blob of record_codec.h. */
    bool matches(std::string_view attributes);

    /** How many tracks were checked since the last setQuery. */
    std::int64_t checks() const { return m_checks; }

private:
    void tokenize(std::string_view text, int flags, std::vector<std::string>* tokens);

    fts5_tokenizer* m_api = nullptr;
    Fts5Tokenizer* m_tokenizer = nullptr;
    std::vector<std::string> m_query;
    std::vector<bool> m_found;
    std::size_t m_missing = 0;
    std::int64_t m_checks = 0;
};

}  // namespace kest::analytics::db
