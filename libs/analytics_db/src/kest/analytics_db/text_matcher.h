#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "store_dictionary.h"

struct sqlite3;
struct Fts5Tokenizer;
struct fts5_tokenizer;

namespace kest::analytics::db {

/**
 * Free-text matching of one track's attributes without the full-text index, with the very
 * tokenizer the index uses, so that both ways agree: every query word must be the start of a
 * word of some attribute name or value. Searches use it while they walk a time index, which is
 * cheaper than the index when the words are common. What a dictionary pair or name matches is
 * worked out once per query.
 */
class TextMatcher
{
public:
    /** The tokenizer options of the index (see storage_schema.h). */
    static constexpr const char* kTokenizer = "unicode61";
    static constexpr const char* kTokenizerArgs[] = {"remove_diacritics", "2"};
    /** Query words beyond this many are left out of the row by row test (the index has them). */
    static constexpr std::size_t kMaxQueryWords = 64;

    TextMatcher() = default;
    ~TextMatcher();
    TextMatcher(const TextMatcher&) = delete;
    TextMatcher& operator=(const TextMatcher&) = delete;

    /** Takes the tokenizer of the connection's FTS5 module. */
    bool open(sqlite3* db);

    /** The words of free text, as the index query and as the matcher see them. */
    static std::vector<std::string> words(const std::string& text);

    /** Appends the tokens that the index makes of `text`. */
    void documentTokens(std::string_view text, std::vector<std::string>* tokens);

    void setQuery(const std::vector<std::string>& words);
    /** `attributes`: a stored attribute set (TrackRow), its keys in `dictionary`. */
    bool matches(std::string_view attributes, const StoreDictionary& dictionary);
    /** `tokens`: what documentTokens() made of a track's attributes. */
    bool matchesTokens(const std::vector<std::string>& tokens) const;

    /** The words of the query as the tokenizer made them (folded, without diacritics). */
    const std::vector<std::string>& queryTokens() const { return m_query; }

    /** How many tracks were checked since the last setQuery. */
    std::int64_t checks() const { return m_checks; }

private:
    std::uint64_t maskOf(std::string_view text);
    std::uint64_t maskOfToken(std::string_view token) const;

    fts5_tokenizer* m_api = nullptr;
    Fts5Tokenizer* m_tokenizer = nullptr;
    std::vector<std::string> m_query;
    std::uint64_t m_all = 0;
    std::int64_t m_checks = 0;
    /** Query words that a dictionary pair (or name) matches, by key. */
    std::unordered_map<std::uint32_t, std::uint64_t> m_pairMasks;
    std::unordered_map<std::uint32_t, std::uint64_t> m_nameMasks;
};

}  // namespace kest::analytics::db
