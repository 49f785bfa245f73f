// The store's connections: the writer under its lock, the group commits of
// writes that arrive together, and the pool of read-only connections that
// queries borrow.
#include "sqlite_store.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "backend_fixture.h"

namespace {

using std::chrono::milliseconds;

class SqliteStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(store_.open(folder_.path() + "/t.db", &error, 2)) << error;
    SqliteStore::Lock lock(store_, milliseconds(1000));
    ASSERT_TRUE(lock.held());
    store_.exec("CREATE TABLE t(a INTEGER)");
  }

  void insert(long long value) {
    SqliteStore::Lock lock(store_, milliseconds(1000));
    ASSERT_TRUE(lock.held());
    SqliteStore::Transaction tx(store_);
    store_.statement("INSERT INTO t(a) VALUES(?)").bind(1, value).run();
    tx.commit();
  }

  long long sumThrough(SqliteStore::Reader& reader) {
    Statement sum = reader.statement("SELECT COALESCE(SUM(a), 0) FROM t");
    return sum.step() ? sum.columnInt(0) : -1;
  }

  TempFolder folder_;
  SqliteStore store_;
};

TEST_F(SqliteStoreTest, ReadersSeeWhatWasCommittedBeforeTheyStart) {
  insert(5);
  SqliteStore::Reader reader(store_, milliseconds(0));
  ASSERT_TRUE(reader.held());
  EXPECT_EQ(sumThrough(reader), 5);
  insert(7);
  EXPECT_EQ(sumThrough(reader), 12);
}

TEST_F(SqliteStoreTest, ReadersNeitherWaitForNorSeeAnOpenWrite) {
  insert(1);
  SqliteStore::Lock lock(store_, milliseconds(1000));
  ASSERT_TRUE(lock.held());
  SqliteStore::Transaction tx(store_);
  store_.statement("INSERT INTO t(a) VALUES(?)").bind(1, 100).run();
  {
    // The writer's lock is held and its transaction open: a query still
    // gets a connection at once and reads the last committed state.
    SqliteStore::Reader reader(store_, milliseconds(0));
    ASSERT_TRUE(reader.held());
    EXPECT_EQ(sumThrough(reader), 1);
  }
  tx.commit();
  SqliteStore::Reader reader(store_, milliseconds(0));
  EXPECT_EQ(sumThrough(reader), 101);
}

TEST_F(SqliteStoreTest, ThePoolIsBoundedAndConnectionsComeBack) {
  auto first = std::make_unique<SqliteStore::Reader>(store_, milliseconds(0));
  SqliteStore::Reader second(store_, milliseconds(0));
  ASSERT_TRUE(first->held());
  ASSERT_TRUE(second.held());
  {
    SqliteStore::Reader third(store_, milliseconds(20));
    EXPECT_FALSE(third.held()) << "two connections at most";
  }
  first.reset();
  SqliteStore::Reader again(store_, milliseconds(0));
  ASSERT_TRUE(again.held());
  EXPECT_EQ(sumThrough(again), 0);
}

TEST_F(SqliteStoreTest, ReadersCannotWrite) {
  SqliteStore::Reader reader(store_, milliseconds(0));
  ASSERT_TRUE(reader.held());
  Statement write = reader.statement("INSERT INTO t(a) VALUES(1)");
  EXPECT_THROW(write.run(), StoreError);
}

TEST_F(SqliteStoreTest, BadQueriesThrowWithSqlitesReason) {
  SqliteStore::Reader reader(store_, milliseconds(0));
  try {
    reader.statement("SELECT a FROM nowhere");
    FAIL() << "no exception";
  } catch (const StoreError& e) {
    EXPECT_NE(std::string(e.what()).find("no such table: nowhere"), std::string::npos) << e.what();
  }
}

TEST_F(SqliteStoreTest, TheWriterLockWaitsAtMostItsTimeOut) {
  SqliteStore::Lock held(store_, milliseconds(0));
  ASSERT_TRUE(held.held());
  SqliteStore::Lock second(store_, milliseconds(20));
  EXPECT_FALSE(second.held());
}

// Waits (bounded) until `count` writes are queued behind the held lock.
bool waitForQueued(SqliteStore& store, size_t count) {
  for (int i = 0; i < 5000; ++i) {
    if (store.writeStats().queued == count) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

TEST_F(SqliteStoreTest, WritesArriveTogetherCommitTogether) {
  std::vector<std::thread> writers;
  std::atomic<int> done{0};
  {
    SqliteStore::Lock busy(store_, milliseconds(0));
    ASSERT_TRUE(busy.held());
    for (int i = 1; i <= 8; ++i) {
      writers.emplace_back([this, i, &done] {
        const bool ok = store_.write(
            [&] { store_.statement("INSERT INTO t(a) VALUES(?)").bind(1, i).run(); },
            milliseconds(10000));
        if (ok) ++done;
      });
    }
    ASSERT_TRUE(waitForQueued(store_, 8));
  }
  for (std::thread& t : writers) t.join();
  EXPECT_EQ(done.load(), 8);
  const SqliteStore::WriteStats stats = store_.writeStats();
  EXPECT_EQ(stats.writes, 8u);
  EXPECT_EQ(stats.groups, 1u) << "the first writer found the other seven queued";
  SqliteStore::Reader reader(store_, milliseconds(0));
  EXPECT_EQ(sumThrough(reader), 36);
}

TEST_F(SqliteStoreTest, AFailingWriteIsUndoneAloneAndRethrown) {
  std::vector<std::thread> writers;
  std::atomic<int> failed{0};
  {
    SqliteStore::Lock busy(store_, milliseconds(0));
    for (int i = 1; i <= 4; ++i) {
      writers.emplace_back([this, i, &failed] {
        try {
          store_.write(
              [&] {
                store_.statement("INSERT INTO t(a) VALUES(?)").bind(1, i * 10).run();
                if (i == 2) throw std::runtime_error("refused");
              },
              milliseconds(10000));
        } catch (const std::runtime_error& e) {
          if (std::string(e.what()) == "refused") ++failed;
        }
      });
    }
    ASSERT_TRUE(waitForQueued(store_, 4));
  }
  for (std::thread& t : writers) t.join();
  EXPECT_EQ(failed.load(), 1);
  EXPECT_EQ(store_.writeStats().groups, 1u);
  SqliteStore::Reader reader(store_, milliseconds(0));
  EXPECT_EQ(sumThrough(reader), 10 + 30 + 40) << "the others' rows are kept";
}

TEST_F(SqliteStoreTest, AFailedCommitFailsTheWholeGroup) {
  {
    SqliteStore::Lock lock(store_, milliseconds(0));
    store_.exec(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY);"
        "CREATE TABLE child(p INTEGER REFERENCES parent(id) DEFERRABLE INITIALLY DEFERRED);"
        "PRAGMA foreign_keys=ON;");
  }
  std::vector<std::thread> writers;
  std::atomic<int> storeErrors{0};
  {
    SqliteStore::Lock busy(store_, milliseconds(0));
    for (int i = 0; i < 2; ++i) {
      writers.emplace_back([this, i, &storeErrors] {
        try {
          store_.write(
              [&] {
                // The dangling reference is only found at COMMIT.
                store_.statement(i == 0 ? "INSERT INTO t(a) VALUES(5)"
                                        : "INSERT INTO child(p) VALUES(99)")
                    .run();
              },
              milliseconds(10000));
        } catch (const StoreError& e) {
          if (std::string(e.what()).find("FOREIGN KEY") != std::string::npos) ++storeErrors;
        }
      });
    }
    ASSERT_TRUE(waitForQueued(store_, 2));
  }
  for (std::thread& t : writers) t.join();
  EXPECT_EQ(storeErrors.load(), 2) << "both writes learn the group failed";
  EXPECT_EQ(store_.writeStats().groups, 0u);
  SqliteStore::Reader reader(store_, milliseconds(0));
  EXPECT_EQ(sumThrough(reader), 0) << "nothing of the group is kept";
  // The connection is usable again.
  EXPECT_TRUE(store_.write([&] { store_.statement("INSERT INTO t(a) VALUES(1)").run(); },
                           milliseconds(1000)));
  EXPECT_EQ(sumThrough(reader), 1);
}

TEST_F(SqliteStoreTest, AWriteThatCannotStartInTimeDoesNothing) {
  SqliteStore::Lock busy(store_, milliseconds(0));
  bool ran = false;
  EXPECT_FALSE(store_.write([&] { ran = true; }, milliseconds(20)));
  EXPECT_FALSE(ran);
  EXPECT_EQ(store_.writeStats().queued, 0u);
}

}  // namespace
