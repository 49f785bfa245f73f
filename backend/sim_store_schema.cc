// The simulated backend's store: the schema, opening the data folder and
// the seed of the first start.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "backend_protocol.h"
#include "data_folder.h"
#include "demo_seed.h"
#include "sim_backend_impl.h"

namespace {

constexpr char kDatabaseFile[] = "nox.db";
// A name whose logins failed this often in a row waits kLoginLockSeconds.
const char* const kDemoUsers[][2] = {{"admin", "0"}, {"auditor", "1"}, {"apiuser", "4"}};

const char kSchema[] = R"sql(
CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS users(
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL UNIQUE,
  scopes TEXT NOT NULL,
  salt BLOB NOT NULL,
  hash BLOB NOT NULL,
  iterations INTEGER NOT NULL,
  user_state INTEGER NOT NULL DEFAULT 0,
  login_mark INTEGER NOT NULL DEFAULT 0,
  password_state INTEGER NOT NULL DEFAULT 0,
  last_login INTEGER NOT NULL DEFAULT 0,
  last_login_address TEXT NOT NULL DEFAULT '',
  last_logout INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS tasks(
  id TEXT PRIMARY KEY,
  name TEXT NOT NULL,
  type INTEGER NOT NULL,
  status INTEGER NOT NULL,
  progress INTEGER NOT NULL,
  start_time INTEGER NOT NULL,
  end_time INTEGER NOT NULL,
  resource TEXT NOT NULL,
  detail TEXT NOT NULL,
  error_info TEXT NOT NULL DEFAULT '');
-- The task list's default order: read in order, no sorting.
CREATE INDEX IF NOT EXISTS tasks_by_start ON tasks(start_time DESC, id);
CREATE TABLE IF NOT EXISTS alarms(
  id INTEGER PRIMARY KEY,
  severity INTEGER NOT NULL,
  name TEXT NOT NULL,
  source TEXT NOT NULL,
  occur_time INTEGER NOT NULL,
  clear_time INTEGER NOT NULL DEFAULT 0,
  detail TEXT NOT NULL,
  name_zh TEXT NOT NULL DEFAULT '',
  detail_zh TEXT NOT NULL DEFAULT '');
CREATE INDEX IF NOT EXISTS alarms_by_time ON alarms(occur_time);
CREATE TABLE IF NOT EXISTS changes(
  seq INTEGER PRIMARY KEY AUTOINCREMENT,
  kind INTEGER NOT NULL,
  object TEXT NOT NULL,
  time INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS storage_conf(
  id INTEGER PRIMARY KEY CHECK (id = 1),
  name TEXT NOT NULL,
  type INTEGER NOT NULL,
  path TEXT NOT NULL,
  capacity INTEGER NOT NULL,
  used INTEGER NOT NULL,
  retention_days INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS import_events(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  time INTEGER NOT NULL,
  user_name TEXT NOT NULL,
  client_address TEXT NOT NULL,
  kind INTEGER NOT NULL,
  outcome INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS ca_certificates(
  fingerprint TEXT PRIMARY KEY,
  subject TEXT NOT NULL,
  not_after INTEGER NOT NULL,
  file TEXT NOT NULL,
  imported INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS crls(
  fingerprint TEXT PRIMARY KEY,
  issuer_fingerprint TEXT NOT NULL REFERENCES ca_certificates(fingerprint),
  issuer TEXT NOT NULL,
  this_update INTEGER NOT NULL,
  next_update INTEGER NOT NULL,
  revoked INTEGER NOT NULL,
  file TEXT NOT NULL,
  imported INTEGER NOT NULL);
)sql";

}  // namespace

using simbackend::nowSeconds;

bool SimulatedBackend::Impl::openStore(const SimBackendOptions& options, std::string* error) {
  if (!makeFolders(options.dataDir, error)) return false;
  char* real = realpath(options.dataDir.c_str(), nullptr);
  if (real == nullptr) {
    *error = "cannot resolve " + options.dataDir + ": " + errnoText(errno);
    return false;
  }
  dataDir = real;
  std::free(real);
  tmpDir = dataDir + "/tmp";
  caDir = dataDir + "/ca";
  crlDir = dataDir + "/crl";
  crlIncomingDir = crlDir + "/incoming";
  for (const std::string* dir : {&tmpDir, &caDir, &crlDir, &crlIncomingDir}) {
    if (!makeFolder(*dir, error)) return false;
  }
  emptyFolder(tmpDir);
  emptyFolder(crlIncomingDir);
  emptyFolder(caDir, ".new");
  emptyFolder(crlDir, ".new");

  const std::string dbPath = dataDir + "/" + kDatabaseFile;
  if (!store.open(dbPath, error)) return false;
  chmod(dbPath.c_str(), 0600);
  try {
    decoy = hashPassword(randomBytes(16));
    SqliteStore::Lock lock(store, std::chrono::seconds(30));
    store.exec(kSchema);
    migrate();
    Statement seeded = store.statement("SELECT value FROM meta WHERE key = 'seeded'");
    firstStart = !seeded.step();
    if (firstStart) {
      const std::string password =
          options.initPassword.empty() ? randomUrlSafe(16) : options.initPassword;
      seed(password);
      demoPassword = password;
    }
  } catch (const std::exception& e) {
    *error = std::string("cannot prepare the database: ") + e.what();
    return false;
  }
  return true;
}

void SimulatedBackend::Impl::seed(const std::string& password) {
  const long long now = nowSeconds();
  SqliteStore::Transaction tx(store);
  for (const auto& user : kDemoUsers) {
    const PasswordHash h = hashPassword(password);
    store.statement("INSERT INTO users(name, scopes, salt, hash, iterations) VALUES(?,?,?,?,?)")
        .bind(1, std::string(user[0]))
        .bind(2, std::string(user[1]))
        .bindBlob(3, h.salt)
        .bindBlob(4, h.hash)
        .bind(5, h.iterations)
        .run();
  }
  for (const SeedTask& t : demoTasks(now)) insertTask(t);
  for (const SeedAlarm& a : demoAlarms(now)) insertAlarm(a);
  const StorageConfig c = demoStorage();
  store
      .statement(
          "INSERT INTO storage_conf(id, name, type, path, capacity, used, retention_days) "
          "VALUES(1,?,?,?,?,?,?)")
      .bind(1, c.name)
      .bind(2, c.type)
      .bind(3, c.path)
      .bind(4, c.capacity)
      .bind(5, c.used)
      .bind(6, c.retentionDays)
      .run();
  store.statement("INSERT INTO meta(key, value) VALUES('seeded', ?)")
      .bind(1, std::to_string(now))
      .run();
  tx.commit();
}

// Data folders made before the alarms had Chinese texts: the columns are
// added empty (such alarms answer in English), and the change log starts.
void SimulatedBackend::Impl::migrate() {
  Statement column = store.statement(
      "SELECT COUNT(*) FROM pragma_table_info('alarms') WHERE name = 'name_zh'");
  const bool hasChinese = column.step() && column.columnInt(0) > 0;
  if (!hasChinese) {
    store.exec(
        "ALTER TABLE alarms ADD COLUMN name_zh TEXT NOT NULL DEFAULT '';"
        "ALTER TABLE alarms ADD COLUMN detail_zh TEXT NOT NULL DEFAULT '';");
  }
  Statement head = store.statement("SELECT seq FROM sqlite_sequence WHERE name = 'changes'");
  headSeq = head.step() ? head.columnInt(0) : 0;
}

void SimulatedBackend::Impl::insertTask(const SeedTask& t) {
  store
      .statement(
          "INSERT OR REPLACE INTO tasks(id, name, type, status, progress, start_time, end_time, "
          "resource, detail, error_info) VALUES(?,?,?,?,?,?,?,?,?,?)")
      .bind(1, t.id)
      .bind(2, t.name)
      .bind(3, t.type)
      .bind(4, t.status)
      .bind(5, t.progress)
      .bind(6, t.startTime)
      .bind(7, t.endTime)
      .bind(8, t.resource)
      .bind(9, t.detail)
      .bind(10, t.errorInfo)
      .run();
}

void SimulatedBackend::Impl::insertAlarm(const SeedAlarm& a) {
  store
      .statement(
          "INSERT INTO alarms(severity, name, source, occur_time, clear_time, detail, name_zh, "
          "detail_zh) VALUES(?,?,?,?,?,?,?,?)")
      .bind(1, a.severity)
      .bind(2, a.name)
      .bind(3, a.source)
      .bind(4, a.occurTime)
      .bind(5, a.clearTime)
      .bind(6, a.detail)
      .bind(7, a.nameZh)
      .bind(8, a.detailZh)
      .run();
}
