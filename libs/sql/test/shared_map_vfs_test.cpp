#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <QTemporaryDir>
#include <atomic>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <kest/sql/database.h>

namespace kest::sql::test {

namespace {

/** Where the process maps `path`, from /proc/self/maps. */
std::set<std::string> mapsOf(const std::string& path)
{
    std::set<std::string> starts;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.size() > path.size() &&
            line.compare(line.size() - path.size(), path.size(), path) == 0)
            starts.insert(line.substr(0, line.find('-')));
    }
    return starts;
}

std::int64_t single(Database& db, const std::string& sql)
{
    auto statement = db.prepare(sql);
    return statement && statement->step() ? statement->int64(0) : -1;
}

}  // namespace

class SharedMapVfsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        ConnectionOptions writerOptions;
        writerOptions.mmapSizeMb = 0;
        ASSERT_EQ(m_writer.open(file(), writerOptions), DBResult::ok) << m_writer.lastError();
        ASSERT_EQ(m_writer.exec("CREATE TABLE t(k INTEGER PRIMARY KEY, v TEXT NOT NULL)"),
                  DBResult::ok);
        addRows(2000);
    }

    std::string file() const { return m_dir.filePath("test.sqlite").toStdString(); }

    /** Rows of 400 characters that tell their key, copied into the file itself. */
    void addRows(int count)
    {
        const std::string sql =
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
            std::to_string(count) +
            ") INSERT INTO t(v) SELECT printf('%0400d', (SELECT count(*) FROM t) + i) FROM n;"
            "PRAGMA wal_checkpoint(TRUNCATE);";
        ASSERT_EQ(m_writer.exec(sql), DBResult::ok) << m_writer.lastError();
    }

    void expectRows(Database& reader, int count)
    {
        EXPECT_EQ(single(reader, "SELECT count(*) FROM t"), count);
        EXPECT_EQ(single(reader, "SELECT sum(k = CAST(v AS INTEGER)) FROM t"), count);
    }

    QTemporaryDir m_dir;
    Database m_writer;
};

TEST_F(SharedMapVfsTest, ReadersShareOneMapThatStaysAsTheFileGrows)
{
    // The first to read makes the map, here of 1 MiB: the other, which may map more, reads
    // past it through SQLite's calls.
    ConnectionOptions small;
    small.mmapSizeMb = 1;
    Database readers[2];
    for (Database& reader : readers) {
        ASSERT_EQ(reader.open(file(), &reader == readers ? small : ConnectionOptions{}),
                  DBResult::ok);
        expectRows(reader, 2000);
    }
    const auto maps = mapsOf(file());
    ASSERT_EQ(maps.size(), 1u);

    // Committed and checkpointed pages past the end the readers have seen are read, through
    // the same map.
    for (int round = 1; round <= 3; ++round) {
        addRows(2000);
        for (Database& reader : readers)
            expectRows(reader, 2000 * (round + 1));
        EXPECT_EQ(mapsOf(file()), maps);
    }

    for (Database& reader : readers)
        reader.close();
    m_writer.close();
    EXPECT_TRUE(mapsOf(file()).empty());
}

TEST_F(SharedMapVfsTest, ConnectionsComeAndGoOnThreadsWhileTheWriterCommits)
{
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&] {
            std::int64_t seen = 0;
            while (!stop) {
                Database reader;
                if (reader.open(file(), ConnectionOptions{}) != DBResult::ok) {
                    ++wrong;
                    return;
                }
                // The rows, or -1 when one does not tell its key: one statement, one snapshot.
                const std::int64_t rows = single(reader,
                                                 "SELECT CASE WHEN sum(k = CAST(v AS INTEGER)) = "
                                                 "count(*) THEN count(*) ELSE -1 END FROM t");
                wrong += rows < seen;
                seen = rows;
            }
        });
    }
    for (int round = 0; round < 20; ++round)
        addRows(200);
    stop = true;
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(wrong, 0);
    m_writer.close();
    EXPECT_TRUE(mapsOf(file()).empty());
}

TEST_F(SharedMapVfsTest, AConnectionClosingLeavesTheOthersLocks)
{
    Database reader;
    ASSERT_EQ(reader.open(file(), ConnectionOptions{}), DBResult::ok);
    ASSERT_EQ(reader.exec("BEGIN"), DBResult::ok);
    expectRows(reader, 2000);  // the reader holds its shared lock until the end

    for (int i = 0; i < 3; ++i) {
        Database other;
        ASSERT_EQ(other.open(file(), ConnectionOptions{}), DBResult::ok);
        expectRows(other, 2000);
    }

    // A lock of an open file description conflicts with the process's own record locks, so
    // this sees whether the process still holds the reader's.
    const int fd = ::open(file().c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    struct flock lock
    {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0x40000002;  // SQLite's shared-lock bytes
    lock.l_len = 510;
    ASSERT_EQ(::fcntl(fd, F_OFD_GETLK, &lock), 0);
    ::close(fd);  // which drops the process's record locks: the test's last look at them
    EXPECT_EQ(lock.l_type, F_RDLCK);
    EXPECT_EQ(reader.exec("COMMIT"), DBResult::ok);
}

}  // namespace kest::sql::test
