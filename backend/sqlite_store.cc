#include "sqlite_store.h"

#include <sqlite3.h>

#include <algorithm>
#include <map>

namespace {

// How long a statement waits for a lock held by another connection (a second
// process opening the same folder, an external reader) before failing.
constexpr int kBusyTimeoutMs = 3000;

}  // namespace

Statement::~Statement() {
  if (stmt_ != nullptr) {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }
}

Statement& Statement::bind(int index, long long value) {
  if (sqlite3_bind_int64(stmt_, index, value) != SQLITE_OK) fail("bind");
  return *this;
}

Statement& Statement::bind(int index, const std::string& value) {
  if (sqlite3_bind_text(stmt_, index, value.data(), static_cast<int>(value.size()),
                        SQLITE_TRANSIENT) != SQLITE_OK) {
    fail("bind");
  }
  return *this;
}

Statement& Statement::bindBlob(int index, const std::string& bytes) {
  if (sqlite3_bind_blob(stmt_, index, bytes.data(), static_cast<int>(bytes.size()),
                        SQLITE_TRANSIENT) != SQLITE_OK) {
    fail("bind");
  }
  return *this;
}

Statement& Statement::bindNull(int index) {
  if (sqlite3_bind_null(stmt_, index) != SQLITE_OK) fail("bind");
  return *this;
}

bool Statement::step() {
  const int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc != SQLITE_DONE) fail("step");  // throws
  return false;
}

void Statement::run() {
  while (step()) {
  }
}

long long Statement::columnInt(int column) const { return sqlite3_column_int64(stmt_, column); }

std::string Statement::columnText(int column) const {
  const unsigned char* text = sqlite3_column_text(stmt_, column);
  if (text == nullptr) return std::string();
  return std::string(reinterpret_cast<const char*>(text),
                     static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
}

std::string Statement::columnBlob(int column) const {
  const void* blob = sqlite3_column_blob(stmt_, column);
  if (blob == nullptr) return std::string();
  return std::string(static_cast<const char*>(blob),
                     static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
}

bool Statement::columnIsNull(int column) const {
  return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

void Statement::fail(const char* what) const {
  throw StoreError(std::string(what) + ": " + sqlite3_errmsg(db_));
}

struct SqliteStore::Connection {
  sqlite3* db = nullptr;
  std::map<std::string, sqlite3_stmt*> cache;

  ~Connection() {
    for (auto& entry : cache) sqlite3_finalize(entry.second);
    if (db != nullptr) sqlite3_close(db);
  }

  // Opens `path` with `flags`; false with SQLite's reason in *error.
  bool open(const std::string& path, int flags, std::string* error) {
    if (sqlite3_open_v2(path.c_str(), &db, flags | SQLITE_OPEN_NOMUTEX, nullptr) == SQLITE_OK) {
      sqlite3_busy_timeout(db, kBusyTimeoutMs);
      return true;
    }
    if (error != nullptr) {
      *error = "cannot open " + path + ": " + (db != nullptr ? sqlite3_errmsg(db) : "out of memory");
    }
    if (db != nullptr) sqlite3_close(db);
    db = nullptr;
    return false;
  }

  void exec(const std::string& sql) {
    char* message = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
      const std::string text = message != nullptr ? message : sqlite3_errmsg(db);
      sqlite3_free(message);
      throw StoreError(text);
    }
  }

  Statement statement(const std::string& sql) {
    auto it = cache.find(sql);
    if (it == cache.end()) {
      sqlite3_stmt* stmt = nullptr;
      if (sqlite3_prepare_v3(db, sql.c_str(), static_cast<int>(sql.size()),
                             SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) {
        throw StoreError(std::string("prepare: ") + sqlite3_errmsg(db));
      }
      it = cache.emplace(sql, stmt).first;
    }
    return Statement(db, it->second);
  }
};

SqliteStore::SqliteStore() = default;

SqliteStore::~SqliteStore() = default;

bool SqliteStore::open(const std::string& path, std::string* error, int readers) {
  std::unique_ptr<Connection> writer(new Connection);
  if (!writer->open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, error)) return false;
  try {
    // WAL keeps readers off the writer's back; FULL synchronous puts every
    // commit on disk before the answer goes out, so an acknowledged import
    // survives even a power cut.
    writer->exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON;");
  } catch (const StoreError& e) {
    if (error != nullptr) *error = e.what();
    return false;
  }
  path_ = path;
  writer_ = std::move(writer);
  maxReaders_ = readers > 0 ? readers : 1;
  return true;
}

void SqliteStore::exec(const std::string& sql) { writer_->exec(sql); }

Statement SqliteStore::statement(const std::string& sql) { return writer_->statement(sql); }

long long SqliteStore::lastInsertId() const { return sqlite3_last_insert_rowid(writer_->db); }

std::string SqliteStore::lastError() const {
  return writer_ != nullptr ? sqlite3_errmsg(writer_->db) : "no database";
}

SqliteStore::Connection* SqliteStore::openReader(std::string* error) {
  std::unique_ptr<Connection> reader(new Connection);
  if (!reader->open(path_, SQLITE_OPEN_READONLY, error)) return nullptr;
  readers_.push_back(std::move(reader));
  return readers_.back().get();
}

SqliteStore::Lock::Lock(SqliteStore& store, std::chrono::milliseconds wait) : store_(store) {
  std::unique_lock<std::mutex> lock(store_.mutex_);
  held_ = store_.released_.wait_for(lock, wait, [this] { return !store_.busy_; });
  if (!held_) return;
  store_.busy_ = true;
  // Another process holding the database makes SQLite wait too; never longer
  // than this call is willing to.
  const long long ms = wait.count() < kBusyTimeoutMs ? wait.count() : kBusyTimeoutMs;
  if (store_.writer_ != nullptr) sqlite3_busy_timeout(store_.writer_->db, static_cast<int>(ms));
}

SqliteStore::Lock::~Lock() {
  if (!held_) return;
  {
    std::lock_guard<std::mutex> lock(store_.mutex_);
    store_.busy_ = false;
  }
  store_.released_.notify_one();
}

SqliteStore::Reader::Reader(SqliteStore& store, std::chrono::milliseconds wait) : store_(store) {
  std::unique_lock<std::mutex> lock(store_.readersMutex_);
  const bool ready = store_.readerFree_.wait_for(lock, wait, [this] {
    return !store_.idleReaders_.empty() ||
           static_cast<int>(store_.readers_.size()) < store_.maxReaders_;
  });
  if (!ready) return;
  if (!store_.idleReaders_.empty()) {
    connection_ = store_.idleReaders_.back();
    store_.idleReaders_.pop_back();
    return;
  }
  std::string error;
  connection_ = store_.openReader(&error);
  if (connection_ == nullptr) throw StoreError(error);
}

SqliteStore::Reader::~Reader() {
  if (connection_ == nullptr) return;
  {
    std::lock_guard<std::mutex> lock(store_.readersMutex_);
    store_.idleReaders_.push_back(connection_);
  }
  store_.readerFree_.notify_one();
}

Statement SqliteStore::Reader::statement(const std::string& sql) {
  return connection_->statement(sql);
}

struct SqliteStore::PendingWrite {
  enum class State { kQueued, kRunning, kDone };
  explicit PendingWrite(const std::function<void()>* w) : work(w) {}
  const std::function<void()>* work;
  State state = State::kQueued;
  bool started = false;  // false when it gave up before running
  std::exception_ptr error;
};

bool SqliteStore::write(const std::function<void()>& work, std::chrono::milliseconds wait) {
  const auto deadline = std::chrono::steady_clock::now() + wait;
  PendingWrite mine(&work);
  std::unique_lock<std::mutex> lock(groupMutex_);
  queued_.push_back(&mine);
  while (mine.state != PendingWrite::State::kDone) {
    if (mine.state == PendingWrite::State::kQueued && !leading_) {
      // No group is running: this thread runs the next one, which takes
      // every write queued so far, its own included.
      leading_ = true;
      lock.unlock();
      runGroup(deadline, &mine);
      lock.lock();
      leading_ = false;
      groupDone_.notify_all();
      continue;
    }
    if (mine.state == PendingWrite::State::kRunning) {
      // In a group already: it ends without waiting for anything else.
      groupDone_.wait(lock);
      continue;
    }
    if (groupDone_.wait_until(lock, deadline) == std::cv_status::timeout &&
        mine.state == PendingWrite::State::kQueued) {
      queued_.erase(std::find(queued_.begin(), queued_.end(), &mine));
      return false;
    }
  }
  if (mine.error) std::rethrow_exception(mine.error);
  return mine.started;
}

SqliteStore::WriteStats SqliteStore::writeStats() {
  std::lock_guard<std::mutex> lock(groupMutex_);
  WriteStats stats = stats_;
  stats.queued = queued_.size();
  return stats;
}

void SqliteStore::runGroup(std::chrono::steady_clock::time_point deadline, PendingWrite* mine) {
  const auto now = std::chrono::steady_clock::now();
  Lock writer(*this, std::chrono::duration_cast<std::chrono::milliseconds>(
                         deadline > now ? deadline - now : std::chrono::steady_clock::duration()));
  std::vector<PendingWrite*> group;
  if (!claimGroup(writer.held(), mine, &group)) return;
  finishGroup(group, commitGroup(group));
}

bool SqliteStore::claimGroup(bool writerHeld, PendingWrite* mine,
                             std::vector<PendingWrite*>* group) {
  std::lock_guard<std::mutex> lock(groupMutex_);
  if (!writerHeld) {
    // The connection stayed busy (a start-up task holding it): this write
    // gives up; the others wait on and one of them leads next.
    queued_.erase(std::find(queued_.begin(), queued_.end(), mine));
    mine->state = PendingWrite::State::kDone;
    return false;
  }
  group->assign(queued_.begin(), queued_.end());
  queued_.clear();
  for (PendingWrite* w : *group) {
    w->state = PendingWrite::State::kRunning;
    w->started = true;
  }
  return true;
}

std::exception_ptr SqliteStore::commitGroup(const std::vector<PendingWrite*>& group) {
  try {
    writer_->exec("BEGIN IMMEDIATE");
    for (PendingWrite* w : group) {
      // A failure SQLite cannot undo partly (a full disk, say) ends the whole
      // transaction; later writes must not then run outside one.
      if (sqlite3_get_autocommit(writer_->db) != 0) {
        throw StoreError("the group's transaction was rolled back: " + lastError());
      }
      runOneWrite(w);
    }
    if (sqlite3_get_autocommit(writer_->db) != 0) {
      throw StoreError("the group's transaction was rolled back: " + lastError());
    }
    writer_->exec("COMMIT");
    return nullptr;
  } catch (...) {
    std::exception_ptr groupError = std::current_exception();
    if (sqlite3_get_autocommit(writer_->db) == 0) {
      try {
        writer_->exec("ROLLBACK");
      } catch (const StoreError&) {
        // The transaction is gone either way.
      }
    }
    return groupError;
  }
}

void SqliteStore::runOneWrite(PendingWrite* w) {
  writer_->exec("SAVEPOINT one_write");
  try {
    (*w->work)();
    writer_->exec("RELEASE one_write");
  } catch (...) {
    w->error = std::current_exception();
    if (sqlite3_get_autocommit(writer_->db) == 0) {
      writer_->exec("ROLLBACK TO one_write");
      writer_->exec("RELEASE one_write");
    }
  }
}

void SqliteStore::finishGroup(const std::vector<PendingWrite*>& group,
                              const std::exception_ptr& groupError) {
  std::lock_guard<std::mutex> lock(groupMutex_);
  if (!groupError) {
    ++stats_.groups;
    stats_.writes += group.size();
  }
  for (PendingWrite* w : group) {
    // Nothing of the group was kept: every write whose own work went well
    // learns why.
    if (groupError && !w->error) w->error = groupError;
    w->state = PendingWrite::State::kDone;
  }
}

SqliteStore::Transaction::Transaction(SqliteStore& store) : store_(store) {
  store_.exec("BEGIN IMMEDIATE");
}

SqliteStore::Transaction::~Transaction() {
  if (!done_) {
    try {
      store_.exec("ROLLBACK");
    } catch (const StoreError&) {
      // Nothing more can be done: SQLite rolls back itself when the statement
      // that failed ended the transaction.
    }
  }
}

void SqliteStore::Transaction::commit() {
  store_.exec("COMMIT");
  done_ = true;
}
