// The store's connections: the writer under its lock, and the pool of
// read-only connections that queries borrow.
#include "sqlite_store.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

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

}  // namespace
