#include "sqlite_store.h"

#include <sqlite3.h>

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
  if (sqlite3_bind_int64(stmt_, index, value) != SQLITE_OK) store_.fail("bind");
  return *this;
}

Statement& Statement::bind(int index, const std::string& value) {
  if (sqlite3_bind_text(stmt_, index, value.data(), static_cast<int>(value.size()),
                        SQLITE_TRANSIENT) != SQLITE_OK) {
    store_.fail("bind");
  }
  return *this;
}

Statement& Statement::bindBlob(int index, const std::string& bytes) {
  if (sqlite3_bind_blob(stmt_, index, bytes.data(), static_cast<int>(bytes.size()),
                        SQLITE_TRANSIENT) != SQLITE_OK) {
    store_.fail("bind");
  }
  return *this;
}

Statement& Statement::bindNull(int index) {
  if (sqlite3_bind_null(stmt_, index) != SQLITE_OK) store_.fail("bind");
  return *this;
}

bool Statement::step() {
  const int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc != SQLITE_DONE) store_.fail("step");  // throws
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

SqliteStore::~SqliteStore() {
  for (auto& entry : cache_) sqlite3_finalize(entry.second);
  cache_.clear();
  if (db_ != nullptr) sqlite3_close(db_);
}

bool SqliteStore::open(const std::string& path, std::string* error) {
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
    if (error != nullptr) {
      *error =
          "cannot open " + path + ": " + (db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory");
    }
    if (db_ != nullptr) sqlite3_close(db_);
    db_ = nullptr;
    return false;
  }
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);
  try {
    // WAL keeps readers off the writer's back; FULL synchronous puts every
    // commit on disk before the answer goes out, so an acknowledged import
    // survives even a power cut.
    exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON;");
  } catch (const StoreError& e) {
    if (error != nullptr) *error = e.what();
    sqlite3_close(db_);
    db_ = nullptr;
    return false;
  }
  return true;
}

void SqliteStore::exec(const std::string& sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    const std::string text = message != nullptr ? message : sqlite3_errmsg(db_);
    sqlite3_free(message);
    throw StoreError(text);
  }
}

Statement SqliteStore::statement(const std::string& sql) {
  auto it = cache_.find(sql);
  if (it == cache_.end()) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(db_, sql.c_str(), static_cast<int>(sql.size()),
                           SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) {
      fail("prepare");
    }
    it = cache_.emplace(sql, stmt).first;
  }
  return Statement(*this, it->second);
}

long long SqliteStore::lastInsertId() const { return sqlite3_last_insert_rowid(db_); }

std::string SqliteStore::lastError() const {
  return db_ != nullptr ? sqlite3_errmsg(db_) : "no database";
}

void SqliteStore::fail(const std::string& what) const {
  throw StoreError(what + ": " + lastError());
}

SqliteStore::Lock::Lock(SqliteStore& store, std::chrono::milliseconds wait) : store_(store) {
  std::unique_lock<std::mutex> lock(store_.mutex_);
  held_ = store_.released_.wait_for(lock, wait, [this] { return !store_.busy_; });
  if (!held_) return;
  store_.busy_ = true;
  // Another process holding the database makes SQLite wait too; never longer
  // than this call is willing to.
  const long long ms = wait.count() < kBusyTimeoutMs ? wait.count() : kBusyTimeoutMs;
  if (store_.db_ != nullptr) sqlite3_busy_timeout(store_.db_, static_cast<int>(ms));
}

SqliteStore::Lock::~Lock() {
  if (!held_) return;
  {
    std::lock_guard<std::mutex> lock(store_.mutex_);
    store_.busy_ = false;
  }
  store_.released_.notify_one();
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
