#include "store_dictionary.h"

#include "byte_reader.h"
#include "byte_writer.h"

namespace kest::analytics::db {

std::optional<std::uint32_t> StoreDictionary::find(Kind kind, std::string_view value) const
{
    const Table& t = table(kind);
    const auto it = t.keys.find(value);
    if (it == t.keys.end())
        return std::nullopt;
    return it->second;
}

std::uint32_t StoreDictionary::key(Kind kind, std::string_view value)
{
    Table& t = table(kind);
    if (const auto it = t.keys.find(value); it != t.keys.end())
        return it->second;
    const auto key = static_cast<std::uint32_t>(t.values.size() + 1);
    t.keys.emplace(std::string(value), key);
    t.values.emplace_back(value);
    return key;
}

const std::string* StoreDictionary::value(Kind kind, std::uint32_t key) const
{
    const Table& t = table(kind);
    if (key == 0 || key > t.values.size())
        return nullptr;
    return &t.values[key - 1];
}

std::uint64_t StoreDictionary::entries() const
{
    std::uint64_t count = 0;
    for (const Table& t : m_tables)
        count += t.saved;
    return count;
}

sql::DBResult StoreDictionary::load(sql::Database& db)
{
    auto* s =
        db.cached("SELECT kind, id, value FROM dictionary WHERE kind = ? AND id > ? ORDER BY id");
    if (!s)
        return db.lastResult();
    for (int k = 1; k <= kKinds; ++k) {
        Table& t = m_tables[k - 1];
        s->reset();
        s->bind(1, k);
        s->bind(2, static_cast<std::int64_t>(t.values.size()));
        while (s->step()) {
            const auto id = static_cast<std::size_t>(s->int64(1));
            if (id != t.values.size() + 1)
                break;  //< A gap cannot be: the writer numbers them in order.
            const std::string_view value = s->blob(2);
            t.keys.emplace(std::string(value), static_cast<std::uint32_t>(id));
            t.values.emplace_back(value);
        }
        if (s->result() != sql::DBResult::ok)
            return s->result();
        t.saved = t.committed = t.values.size();
    }
    return sql::DBResult::ok;
}

sql::DBResult StoreDictionary::saveAdded(sql::Database& db)
{
    for (int k = 1; k <= kKinds; ++k) {
        Table& t = m_tables[k - 1];
        for (; t.saved < t.values.size(); ++t.saved) {
            auto* s = db.cached("INSERT INTO dictionary(kind, id, value) VALUES(?, ?, ?)");
            if (!s)
                return db.lastResult();
            s->bind(1, k);
            s->bind(2, static_cast<std::int64_t>(t.saved + 1));
            s->bindBlob(3, t.values[t.saved]);
            if (auto r = s->exec(); r != sql::DBResult::ok)
                return r;
        }
    }
    return sql::DBResult::ok;
}

void StoreDictionary::dropUnsaved()
{
    for (Table& t : m_tables) {
        while (t.values.size() > t.committed) {
            t.keys.erase(t.values.back());
            t.values.pop_back();
        }
        t.saved = t.committed;
    }
}

void StoreDictionary::keepSaved()
{
    for (Table& t : m_tables)
        t.committed = t.saved;
}

std::string StoreDictionary::pairValue(std::uint32_t nameKey, std::string_view value)
{
    std::string out;
    pairValue(nameKey, value, &out);
    return out;
}

void StoreDictionary::pairValue(std::uint32_t nameKey, std::string_view value, std::string* out)
{
    out->clear();
    ByteWriter w(out);
    w.putVarint(nameKey);
    out->append(value);
}

bool StoreDictionary::splitPair(std::string_view entry, std::uint32_t* nameKey,
                                std::string_view* value)
{
    ByteReader r(entry);
    if (!r.getVarint(nameKey))
        return false;
    *value = r.rest();
    return true;
}

}  // namespace kest::analytics::db
