// SqliteStore: the simulated backend's SQLite database: one writing
// connection, a small pool of read-only connections, their prepared
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
//   bool done = store.write([&] {                 // one commit for a whole group
//     store.statement("INSERT INTO t(a) VALUES(?)").bind(1, 7).run();
//   }, std::chrono::seconds(5));                  // false: not started in time
//   {
//     SqliteStore::Reader reader(store, std::chrono::seconds(5));
//     if (!reader.held()) ...                    // every reader busy beyond the time-out
//     Statement row = reader.statement("SELECT a FROM t");
//   }
//
// The database is in WAL mode, so a Reader sees every transaction committed
// before its statement starts and never waits for the writer: a commit that
// waits for the disk does not hold up queries. Writes from request threads go
// through write(), which commits the writes that arrive together as one
// group: one sync of the disk for all of them instead of one each.
//
// Failures of SQLite are thrown as StoreError carrying SQLite's message; the
// backend turns them into its storage error code.
//
// Thread-safety: the writing connection is used by one thread at a time, the
// one holding a Lock; statement(), exec() and lastInsertId() require the lock.
// Each Reader has a connection of its own for as long as it lives.
#ifndef NOX_BACKEND_SQLITE_STORE_H_
#define NOX_BACKEND_SQLITE_STORE_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

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
  Statement(sqlite3* db, sqlite3_stmt* stmt) : db_(db), stmt_(stmt) {}
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  Statement(Statement&& other) noexcept : db_(other.db_), stmt_(other.stmt_) {
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
  [[noreturn]] void fail(const char* what) const;

  sqlite3* db_;
  sqlite3_stmt* stmt_;
};

class SqliteStore {
  // One SQLite connection with its statement cache.
  struct Connection;

 public:
  SqliteStore();
  ~SqliteStore();
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  // Opens or creates the database at `path`, in WAL mode with a busy
  // time-out, foreign keys on. Up to `readers` read-only connections are
  // opened later, as Readers need them. Returns false and sets *error on
  // failure.
  bool open(const std::string& path, std::string* error, int readers = kDefaultReaders);
  static constexpr int kDefaultReaders = 4;

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

  // A read-only connection of the pool, waiting at most `wait` for one to
  // be free; given back when the Reader goes out of scope. Its statements
  // must not outlive it.
  class Reader {
   public:
    Reader(SqliteStore& store, std::chrono::milliseconds wait);
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    bool held() const { return connection_ != nullptr; }
    // The cached prepared statement for `sql` on this connection. Throws
    // StoreError when `sql` does not compile or writes.
    Statement statement(const std::string& sql);

   private:
    SqliteStore& store_;
    Connection* connection_ = nullptr;
  };

  // Runs `work` on the writing connection inside a transaction shared with
  // the writes of other threads that arrive meanwhile (a group commit), and
  // returns once the group's COMMIT is on disk. `work` runs inside its own
  // savepoint: when it throws, its changes alone are undone and the
  // exception is rethrown here; the rest of the group is kept. `work` uses
  // statement() and must not open a Transaction.
  // Returns false, having done nothing, when the write could not start
  // within `wait`. Throws StoreError when the group's commit fails (then
  // nothing of the group is kept).
  bool write(const std::function<void()>& work, std::chrono::milliseconds wait);

  // How the group commits went so far, and how many writes wait now.
  struct WriteStats {
    unsigned long long groups = 0;  // groups that committed
    unsigned long long writes = 0;  // writes in those groups
    size_t queued = 0;
  };
  WriteStats writeStats();

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
  struct PendingWrite;
  // Runs one group of queued writes as the group's leader; see write().
  void runGroup(std::chrono::steady_clock::time_point deadline, PendingWrite* mine);
  // runGroup's steps: takes the queued writes as the group (false, and
  // `mine` given up, when the writer could not be had); runs them in one
  // transaction, each in a savepoint of its own (the group's failure, or
  // null); tells each write how it ended.
  bool claimGroup(bool writerHeld, PendingWrite* mine, std::vector<PendingWrite*>* group);
  std::exception_ptr commitGroup(const std::vector<PendingWrite*>& group);
  void runOneWrite(PendingWrite* w);
  void finishGroup(const std::vector<PendingWrite*>& group, const std::exception_ptr& groupError);
  // Opens one more read-only connection; null when SQLite refuses (the
  // reason goes to *error).
  Connection* openReader(std::string* error);

  std::string path_;
  std::unique_ptr<Connection> writer_;
  // A flag under a plain mutex and a condition variable rather than a
  // std::timed_mutex: the same waiting with a time limit, and one that the
  // thread sanitizer understands.
  std::mutex mutex_;
  std::condition_variable released_;
  bool busy_ = false;

  // Writes waiting for a group, and whether a thread is running one.
  std::mutex groupMutex_;
  std::condition_variable groupDone_;
  std::deque<PendingWrite*> queued_;
  bool leading_ = false;
  WriteStats stats_;  // groups and writes, under groupMutex_

  // The read-only connections: all of them, and those free to lend.
  std::mutex readersMutex_;
  std::condition_variable readerFree_;
  std::vector<std::unique_ptr<Connection>> readers_;
  std::vector<Connection*> idleReaders_;
  int maxReaders_ = kDefaultReaders;
};

#endif  // NOX_BACKEND_SQLITE_STORE_H_
