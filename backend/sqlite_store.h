// SqliteStore: the simulated backend's one SQLite connection, its prepared
// statements and transactions.
//
//   SqliteStore store;
//   if (!store.open(dir + "/nox.db", &error)) ...
//   {
//     SqliteStore::Lock lock(store, std::chrono::seconds(5));
//     if (!lock.held()) ...                      // busy beyond the time-out
//     SqliteStore::Transaction tx(store);        // BEGIN IMMEDIATE
//     store.statement("INSERT INTO t(a) VALUES(?)").bind(1, 7).run();
//     tx.commit();                               // rolled back unless reached
//   }
//
// Failures of SQLite are thrown as StoreError carrying SQLite's message; the
// backend turns them into its storage error code.
//
// Thread-safety: one thread at a time, the one holding a Lock. Every member
// except open() and the Lock itself requires the lock to be held.
#ifndef NOX_BACKEND_SQLITE_STORE_H_
#define NOX_BACKEND_SQLITE_STORE_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

class StoreError : public std::runtime_error {
 public:
  explicit StoreError(const std::string& what) : std::runtime_error(what) {}
};

class SqliteStore;

// A prepared statement borrowed from the store's cache. Its bindings are
// cleared and the statement reset when the handle goes out of scope, so the
// next user finds it fresh.
class Statement {
 public:
  Statement(SqliteStore& store, sqlite3_stmt* stmt) : store_(store), stmt_(stmt) {}
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  Statement(Statement&& other) noexcept : store_(other.store_), stmt_(other.stmt_) {
    other.stmt_ = nullptr;
  }

  // Parameter indexes are 1-based, as in SQLite.
  Statement& bind(int index, long long value);
  Statement& bind(int index, const std::string& value);
  Statement& bindBlob(int index, const std::string& bytes);
  Statement& bindNull(int index);

  // Steps once: true when a row is available, false when done. Throws
  // StoreError on failure.
  bool step();
  // Steps to the end, for statements that return no rows.
  void run();

  long long columnInt(int column) const;
  std::string columnText(int column) const;  // empty for NULL
  std::string columnBlob(int column) const;
  bool columnIsNull(int column) const;

 private:
  SqliteStore& store_;
  sqlite3_stmt* stmt_;
};

class SqliteStore {
 public:
  SqliteStore() = default;
  ~SqliteStore();
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  // Opens or creates the database at `path`, in WAL mode with a busy
  // time-out, foreign keys on. Returns false and sets *error on failure.
  bool open(const std::string& path, std::string* error);

  // Runs one or more statements without results. Throws StoreError.
  void exec(const std::string& sql);
  // The cached prepared statement for `sql` (prepared on first use). Throws
  // StoreError when `sql` does not compile.
  Statement statement(const std::string& sql);
  long long lastInsertId() const;
  // SQLite's text for the connection's last error.
  std::string lastError() const;

  // Exclusive use of the connection, waiting at most `wait`; released when
  // the Lock goes out of scope.
  class Lock {
   public:
    Lock(SqliteStore& store, std::chrono::milliseconds wait);
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    bool held() const { return held_; }

   private:
    SqliteStore& store_;
    bool held_ = false;
  };

  // BEGIN IMMEDIATE on construction; ROLLBACK on destruction unless commit()
  // was called. Throws StoreError when the transaction cannot start or commit.
  class Transaction {
   public:
    explicit Transaction(SqliteStore& store);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

   private:
    SqliteStore& store_;
    bool done_ = false;
  };

 private:
  friend class Statement;
  [[noreturn]] void fail(const std::string& what) const;

  sqlite3* db_ = nullptr;
  // A flag under a plain mutex and a condition variable rather than a
  // std::timed_mutex: the same waiting with a time limit, and one that the
  // thread sanitizer understands.
  std::mutex mutex_;
  std::condition_variable released_;
  bool busy_ = false;
  std::map<std::string, sqlite3_stmt*> cache_;
};

#endif  // NOX_BACKEND_SQLITE_STORE_H_
