#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <kest/sql/database.h>

namespace kest::analytics::db {

/**
 * Small keys for what many records repeat: devices, object types, engines, attribute names and
 * common name/value pairs. Records then carry a byte or two where the text or the 16-byte id
 * would be. Each kind numbers its entries from 1; entries are only ever added, so a reader that
 * meets a key it does not know loads the newer entries. One instance per connection.
 */
class StoreDictionary
{
public:
    enum class Kind : int
    {
        device = 1,
        type = 2,
        engine = 3,
        attributeName = 4,
        /** A name key (varint) followed by the value. */
        attribute = 5,
    };
    static constexpr int kKinds = 5;

    std::optional<std::uint32_t> find(Kind kind, std::string_view value) const;
    /** The key of `value`, added when new; additions are written by saveAdded(). */
    std::uint32_t key(Kind kind, std::string_view value);
    /** Null for a key not loaded. */
    const std::string* value(Kind kind, std::uint32_t key) const;
    std::size_t size(Kind kind) const { return table(kind).values.size(); }
    /**
     * Entries of every kind in the store, those saveAdded() wrote included: the writer keeps the
     * count in the store, and a reader behind it reloads.
     */
    std::uint64_t entries() const;

    /** Reads the entries that are not known yet. */
    sql::DBResult load(sql::Database& db);
    /** Inserts what key() added since the last save, in the caller's transaction. */
    sql::DBResult saveAdded(sql::Database& db);
    /** After the transaction of saveAdded() failed: forgets those entries again. */
    void dropUnsaved();
    /** After it committed. */
    void keepSaved();

    /** The value of an attribute pair entry. */
    static std::string pairValue(std::uint32_t nameKey, std::string_view value);
    /** The same into `out`, whose room is reused. */
    static void pairValue(std::uint32_t nameKey, std::string_view value, std::string* out);
    /** Splits a pair entry into its name key and value; false for a malformed one. */
    static bool splitPair(std::string_view entry, std::uint32_t* nameKey, std::string_view* value);

private:
    /** Lets the maps be searched with a string_view, without a copy. */
    struct TextHash
    {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const noexcept
        {
            return std::hash<std::string_view>()(text);
        }
    };
    struct Table
    {
        std::vector<std::string> values;
        std::unordered_map<std::string, std::uint32_t, TextHash, std::equal_to<>> keys;
        /** values[saved...] are not in the store yet. */
        std::size_t saved = 0;
        std::size_t committed = 0;
    };

    Table& table(Kind kind) { return m_tables[static_cast<int>(kind) - 1]; }
    const Table& table(Kind kind) const { return m_tables[static_cast<int>(kind) - 1]; }

    Table m_tables[kKinds];
};

}  // namespace kest::analytics::db
