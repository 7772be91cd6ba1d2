#include <gtest/gtest.h>

#include <sqlite3.h>

#include <QTemporaryDir>
#include <fstream>

#include <kest/sql/database.h>
#include <kest/sql/transaction.h>

namespace kest::sql::test {

TEST(DBResult, SqliteCodesMapToResults)
{
    const std::vector<std::pair<int, DBResult>> cases = {
        {SQLITE_OK, DBResult::ok},
        {SQLITE_DONE, DBResult::ok},
        {SQLITE_FULL, DBResult::full},
        {SQLITE_IOERR, DBResult::ioError},
        {SQLITE_IOERR_WRITE, DBResult::ioError},
        {SQLITE_IOERR_FSYNC, DBResult::ioError},
        {SQLITE_CORRUPT, DBResult::ioError},
        {SQLITE_READONLY, DBResult::readOnly},
        {SQLITE_READONLY_DBMOVED, DBResult::readOnly},
        {SQLITE_BUSY, DBResult::retryLater},
        {SQLITE_BUSY_SNAPSHOT, DBResult::retryLater},
        {SQLITE_LOCKED, DBResult::retryLater},
        {SQLITE_CANTOPEN, DBResult::connectionError},
        {SQLITE_CONSTRAINT_UNIQUE, DBResult::uniqueConstraintViolation},
        {SQLITE_CONSTRAINT_PRIMARYKEY, DBResult::uniqueConstraintViolation},
        {SQLITE_CONSTRAINT_NOTNULL, DBResult::statementError},
        {SQLITE_INTERRUPT, DBResult::cancelled},
        {SQLITE_ERROR, DBResult::statementError},
    };
    for (const auto& [code, result] : cases)
        EXPECT_EQ(fromSqliteCode(code), result) << code;
}

class DatabaseTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        ASSERT_EQ(m_db.open(file(), m_options), DBResult::ok) << m_db.lastError();
        ASSERT_EQ(m_db.exec("CREATE TABLE t(k INTEGER PRIMARY KEY, v TEXT NOT NULL UNIQUE)"),
                  DBResult::ok);
    }

    std::string file() const { return m_dir.filePath("test.sqlite").toStdString(); }

    int rows()
    {
        auto s = m_db.prepare("SELECT count(*) FROM t");
        return s && s->step() ? static_cast<int>(s->int64(0)) : -1;
    }

    DBResult insert(std::string_view value)
    {
        Statement* s = m_db.cached("INSERT INTO t(v) VALUES(?)");
        if (!s)
            return m_db.lastResult();
        s->bindText(1, value);
        return s->exec();
    }

    QTemporaryDir m_dir;
    ConnectionOptions m_options;
    Database m_db;
};

TEST_F(DatabaseTest, RealFailuresGiveTheirResults)
{
    EXPECT_EQ(insert("a"), DBResult::ok);
    EXPECT_EQ(insert("a"), DBResult::uniqueConstraintViolation);

    // The file may not grow: a large row does not fit.
    ASSERT_EQ(m_db.exec("PRAGMA max_page_count = 1"), DBResult::ok);
    EXPECT_EQ(insert(std::string(100'000, 'x')), DBResult::full);
    ASSERT_EQ(m_db.exec("PRAGMA max_page_count = 100000"), DBResult::ok);

    ASSERT_EQ(m_db.exec("PRAGMA query_only = 1"), DBResult::ok);
    EXPECT_EQ(insert("b"), DBResult::readOnly);
    ASSERT_EQ(m_db.exec("PRAGMA query_only = 0"), DBResult::ok);

    // Another connection holds the write lock and this one does not wait.
    Database other;
    ConnectionOptions noWait;
    noWait.busyTimeout = std::chrono::milliseconds(0);
    ASSERT_EQ(other.open(file(), noWait), DBResult::ok);
    Transaction held(m_db);
    ASSERT_EQ(held.beginResult(), DBResult::ok);
    Transaction blocked(other);
    EXPECT_EQ(blocked.beginResult(), DBResult::retryLater);
    EXPECT_EQ(blocked.commit(), DBResult::retryLater);
    EXPECT_FALSE(other.lastError().empty());
}

TEST_F(DatabaseTest, MappedReaderSeesWhatTheWriterCheckpoints)
{
    // The fixture's connection maps nothing, as the storage's writer; this one maps the file.
    ConnectionOptions mapped;
    mapped.mmapSizeMb = 1;
    Database reader;
    ASSERT_EQ(reader.open(file(), mapped), DBResult::ok);
    auto* size = reader.cached("PRAGMA mmap_size");
    ASSERT_TRUE(size && size->step());
    EXPECT_EQ(size->int64(0), 1 << 20);
    size->reset();
    m_db.close();
    m_options.mmapSizeMb = 0;
    ASSERT_EQ(m_db.open(file(), m_options), DBResult::ok);

    // The file grows past the map and checkpoints move the rows into it, under the reader's map.
    for (int round = 1; round <= 3; ++round) {
        Transaction t(m_db);
        for (int i = 0; i < 2000; ++i)
            ASSERT_EQ(insert(std::to_string(round) + std::string(200, 'x') + std::to_string(i)),
                      DBResult::ok);
        ASSERT_EQ(t.commit(), DBResult::ok);
        ASSERT_EQ(m_db.exec("PRAGMA wal_checkpoint(TRUNCATE)"), DBResult::ok);
        auto* count = reader.cached("SELECT count(*), sum(length(v)) FROM t");
        ASSERT_TRUE(count && count->step());
        EXPECT_EQ(count->int64(0), round * 2000);
        EXPECT_GT(count->int64(1), round * 2000 * 200);
        count->reset();
    }
    ASSERT_EQ(m_db.exec("DELETE FROM t WHERE k % 2 = 0"), DBResult::ok);
    ASSERT_EQ(m_db.exec("PRAGMA wal_checkpoint(TRUNCATE)"), DBResult::ok);
    auto* count = reader.cached("SELECT count(*) FROM t");
    ASSERT_TRUE(count && count->step());
    EXPECT_EQ(count->int64(0), 3000);
}

TEST_F(DatabaseTest, OpenFailures)
{
    Database db;
    EXPECT_EQ(db.open(m_dir.filePath("missing.sqlite").toStdString(), m_options, false),
              DBResult::connectionError);
    EXPECT_FALSE(db.isOpen());
    EXPECT_EQ(db.open(m_dir.filePath("no/such/dir/x.sqlite").toStdString(), m_options),
              DBResult::connectionError);

    const std::string junk = m_dir.filePath("junk.sqlite").toStdString();
    std::ofstream(junk) << std::string(4096, 'j');
    EXPECT_EQ(db.open(junk, m_options), DBResult::ioError);
    EXPECT_FALSE(db.isOpen());
    EXPECT_EQ(db.exec("SELECT 1"), DBResult::logicError);
}

TEST_F(DatabaseTest, TransactionRollsBackUnlessCommitted)
{
    {
        Transaction t(m_db);
        ASSERT_EQ(insert("dropped"), DBResult::ok);
    }
    EXPECT_EQ(rows(), 0);
    {
        Transaction t(m_db);
        ASSERT_EQ(insert("kept"), DBResult::ok);
        EXPECT_EQ(t.commit(), DBResult::ok);
    }
    EXPECT_EQ(rows(), 1);

    // SQLITE_FULL may end the transaction by itself; the rollback after it must not fail.
    {
        Transaction t(m_db);
        ASSERT_EQ(m_db.exec("PRAGMA max_page_count = 1"), DBResult::ok);
        EXPECT_EQ(insert(std::string(100'000, 'y')), DBResult::full);
    }
    ASSERT_EQ(m_db.exec("PRAGMA max_page_count = 100000"), DBResult::ok);
    EXPECT_EQ(insert("after"), DBResult::ok);
    EXPECT_EQ(rows(), 2);
}

TEST_F(DatabaseTest, CachedStatementsAreReusedWithFreshBindings)
{
    ASSERT_EQ(insert("x"), DBResult::ok);
    Statement* first = m_db.cached("SELECT v FROM t WHERE v = ?");
    first->bindText(1, "x");
    ASSERT_TRUE(first->step());
    EXPECT_EQ(first->text(0), "x");

    Statement* again = m_db.cached("SELECT v FROM t WHERE v = ?");
    EXPECT_EQ(again, first);
    // The earlier binding is gone: NULL matches nothing.
    EXPECT_FALSE(again->step());
    EXPECT_EQ(again->result(), DBResult::ok);

    EXPECT_EQ(m_db.cached("SELECT nonsense FROM"), nullptr);
    EXPECT_EQ(m_db.lastResult(), DBResult::statementError);
}

}  // namespace kest::sql::test
