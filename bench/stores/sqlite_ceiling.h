#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace kest::bench {

/**
 * The raw SQLite ceiling of our storage: the rows our storage ended up with, inserted into a new
 * database of the same schema by a minimal loop of prepared statements in large transactions,
 * with the same connection settings. No aggregation, no reading back, no updates: how fast
 * SQLite alone can store this data in this layout.
 */
class SqliteCeiling
{
public:
    /** Reads every row of our storage's database file (not timed). */
    bool read(const std::filesystem::path& file);

    /** Inserts the rows into a new database in `dir`; the seconds it took, empty on failure. */
    std::optional<double> insertInto(const std::filesystem::path& dir);

    std::size_t rows() const;
    const std::string& lastError() const { return m_error; }

    using Value =
        std::variant<std::monostate, std::int64_t, double, std::string, std::vector<std::uint8_t>>;
    struct Table
    {
        std::string name;
        std::string insert;
        std::vector<std::vector<Value>> rows;
    };

private:
    std::vector<Table> m_tables;
    std::string m_error;
};

}  // namespace kest::bench
