#include "sim_backend.h"

#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <vector>

#include "backend_protocol.h"
#include "data_folder.h"
#include "demo_seed.h"
#include "password_hash.h"
#include "pki_checks.h"
#include "qpn_debug_kit.h"
#include "request_cells.h"
#include "sqlite_store.h"

namespace {

constexpr int kTraceModule = 30;
constexpr char kDatabaseFile[] = "nox.db";
// A name whose logins failed this often in a row waits kLoginLockSeconds.
constexpr int kMaxFailedLogins = 5;
constexpr long long kLoginLockSeconds = 60;
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
CREATE TABLE IF NOT EXISTS alarms(
  id INTEGER PRIMARY KEY,
  severity INTEGER NOT NULL,
  name TEXT NOT NULL,
  source TEXT NOT NULL,
  occur_time INTEGER NOT NULL,
  clear_time INTEGER NOT NULL DEFAULT 0,
  detail TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS alarms_by_time ON alarms(occur_time);
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

long long nowSeconds() { return static_cast<long long>(time(nullptr)); }

// The task fields a list may be sorted and filtered by, and their columns.
struct TaskField {
  const char* name;
  const char* column;
  bool numeric;
  bool filter;
};
const TaskField kTaskFields[] = {
    {"id", "id", false, true},
    {"name", "name", false, true},
    {"type", "type", true, true},
    {"status", "status", true, true},
    {"resource", "resource", false, true},
    {"progress", "progress", true, false},
    {"startTime", "start_time", true, false},
    {"endTime", "end_time", true, false},
};

const TaskField* taskField(const std::string& name) {
  for (const TaskField& f : kTaskFields) {
    if (name == f.name) return &f;
  }
  return nullptr;
}

// A parsed task filter: WHERE text with ? parameters and their values.
struct TaskQuery {
  std::string where;
  std::vector<std::string> textValues;  // bound in order, numbers as text too
  std::vector<bool> numeric;
};

TaskQuery parseTaskFilter(const std::string& text) {
  TaskQuery q;
  if (text.empty()) return q;
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  builder["rejectDupKeys"] = true;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors) || !root.isObject()) {
    throw BadRequest("filter is not a JSON object");
  }
  // Members are visited in sorted order, so equal filters make equal SQL and
  // share one prepared statement.
  for (const std::string& key : root.getMemberNames()) {
    const TaskField* field = taskField(key);
    if (field == nullptr || !field->filter) throw BadRequest("cannot filter by " + key);
    const Json::Value& v = root[key];
    std::string value;
    if (field->numeric) {
      // Blanks around digits are forgiven: a JSON writer may have added a
      // line feed when it turned a number into text.
      std::string digits = v.isString() ? v.asString() : std::string();
      const size_t first = digits.find_first_not_of(" \t\r\n");
      const size_t last = digits.find_last_not_of(" \t\r\n");
      digits = first == std::string::npos ? std::string() : digits.substr(first, last - first + 1);
      if (v.isIntegral()) {
        value = std::to_string(v.asLargestInt());
      } else if (!digits.empty() && digits.find_first_not_of("0123456789") == std::string::npos &&
                 digits.size() < 10) {
        value = digits;
      } else {
        throw BadRequest("filter value of " + key + " is not a number");
      }
    } else {
      if (!v.isString()) throw BadRequest("filter value of " + key + " is not a text");
      value = v.asString();
    }
    q.where += q.where.empty() ? " WHERE " : " AND ";
    q.where += std::string(field->column) + " = ?";
    q.textValues.push_back(value);
    q.numeric.push_back(field->numeric);
  }
  return q;
}

void bindTaskQuery(Statement& stmt, const TaskQuery& q) {
  for (size_t i = 0; i < q.textValues.size(); ++i) {
    const int index = static_cast<int>(i) + 1;
    if (q.numeric[i]) {
      stmt.bind(index, std::atoll(q.textValues[i].c_str()));
    } else {
      stmt.bind(index, q.textValues[i]);
    }
  }
}

const char kTaskColumns[] =
    "SELECT id, name, type, status, progress, start_time, end_time, resource, detail, error_info "
    "FROM tasks";

void taskRecord(const Statement& row, CR3MRecordV3& r) {
  r[proto::kTagTaskId].setString(proto::kTagTaskId, row.columnText(0));
  r[proto::kTagTaskName].setString(proto::kTagTaskName, row.columnText(1));
  r[proto::kTagTaskType].setUInt32(proto::kTagTaskType, static_cast<uint32_t>(row.columnInt(2)));
  r[proto::kTagTaskStatus].setUInt32(proto::kTagTaskStatus,
                                     static_cast<uint32_t>(row.columnInt(3)));
  r[proto::kTagTaskProgress].setUInt32(proto::kTagTaskProgress,
                                       static_cast<uint32_t>(row.columnInt(4)));
  r[proto::kTagTaskStartTime].setUInt64(proto::kTagTaskStartTime,
                                        static_cast<uint64_t>(row.columnInt(5)));
  r[proto::kTagTaskEndTime].setUInt64(proto::kTagTaskEndTime,
                                      static_cast<uint64_t>(row.columnInt(6)));
  r[proto::kTagTaskResource].setString(proto::kTagTaskResource, row.columnText(7));
  r[proto::kTagTaskDetail].setString(proto::kTagTaskDetail, row.columnText(8));
  std::string error = row.columnText(9);
  if (!error.empty()) {
    // JSON cells count no terminating zero.
    r[proto::kTagTaskErrorInfo].set_i(CTLVCell::TLV_JSON, proto::kTagTaskErrorInfo, &error[0],
                                      error.size());
  }
}

}  // namespace

// The backend's state. Folders, first-start facts and the decoy hash are set
// by open() and only read afterwards; the store is used under its Lock, the
// login failure counts under loginMutex.
struct SimulatedBackend::Impl {
  std::string dataDir;
  std::string tmpDir;
  std::string caDir;
  std::string crlDir;
  std::string crlIncomingDir;
  SqliteStore store;
  bool firstStart = false;
  std::string demoPassword;
  // A hash that no password gives, checked for unknown names so that their
  // answer takes as long as a wrong password.
  PasswordHash decoy;

  struct LoginFailures {
    int count = 0;
    long long lockedUntil = 0;
  };
  std::mutex loginMutex;
  std::map<std::string, LoginFailures> failures;

  bool openStore(const SimBackendOptions& options, std::string* error);
  void seed(const std::string& password);

  long long dispatch(const TlvCall& call, const CR3MRecordV3& request, CR3MPackageV3& reply,
                     CQPNDebugKitGuard& guard);
  long long newUploadPath(const CR3MRecordV3& request, const std::string& dir, const char* prefix,
                          CR3MPackageV3& reply);
  long long checkCertificate(const TlvCall& call, const CR3MRecordV3& request,
                             CQPNDebugKitGuard& guard);
  long long saveCrl(const TlvCall& call, const CR3MRecordV3& request, CQPNDebugKitGuard& guard);
  long long importEvent(const TlvCall& call, const CR3MRecordV3& request);
  long long alarms(const TlvCall& call, const CR3MRecordV3& request, bool list,
                   CR3MPackageV3& reply);
  long long tasks(const TlvCall& call, const CR3MRecordV3& request, CR3MPackageV3& reply);
  long long storageConf(const TlvCall& call, const CR3MRecordV3& request, CR3MPackageV3& reply);
  long long login(const TlvCall& call, const CR3MRecordV3& request, CR3MPackageV3& reply,
                  CQPNDebugKitGuard& guard);
  long long logout(const TlvCall& call, const CR3MRecordV3& request);

  bool loginLocked(const std::string& name);
  void loginFailed(const std::string& name);
  void loginSucceeded(const std::string& name);
};

namespace {

// How long a call may wait for the store: its own time-out, loosely.
std::chrono::milliseconds storeWait(const TlvCall& call) {
  const int seconds = call.timeout > 0 ? (call.timeout < 60 ? call.timeout : 60) : 30;
  return std::chrono::milliseconds(seconds * 1000LL);
}

}  // namespace

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
  for (const SeedTask& t : demoTasks(now)) {
    store
        .statement(
            "INSERT INTO tasks(id, name, type, status, progress, start_time, end_time, resource, "
            "detail, error_info) VALUES(?,?,?,?,?,?,?,?,?,?)")
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
  for (const SeedAlarm& a : demoAlarms(now)) {
    store
        .statement(
            "INSERT INTO alarms(severity, name, source, occur_time, clear_time, detail) "
            "VALUES(?,?,?,?,?,?)")
        .bind(1, a.severity)
        .bind(2, a.name)
        .bind(3, a.source)
        .bind(4, a.occurTime)
        .bind(5, a.clearTime)
        .bind(6, a.detail)
        .run();
  }
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

long long SimulatedBackend::Impl::dispatch(const TlvCall& call, const CR3MRecordV3& request,
                                           CR3MPackageV3& reply, CQPNDebugKitGuard& guard) {
  const uint32_t command = request.command();
  switch (command) {
    case proto::kCertTempPath:
      return newUploadPath(request, tmpDir, "cert-", reply);
    case proto::kCertCheck:
      return checkCertificate(call, request, guard);
    case proto::kCrlImportPath:
      return newUploadPath(request, crlIncomingDir, "crl-", reply);
    case proto::kCrlSave:
      return saveCrl(call, request, guard);
    case proto::kImportEvent:
      return importEvent(call, request);
    case static_cast<uint32_t>(proto::kAlarmList):
      return alarms(call, request, true, reply);
    case static_cast<uint32_t>(proto::kAlarmCount):
      return alarms(call, request, false, reply);
    case proto::kLogin:
      return login(call, request, reply, guard);
    case proto::kLogout:
      return logout(call, request);
    default:
      break;
  }
  if ((command >> 16) == proto::kTaskObjType) return tasks(call, request, reply);
  if (command == proto::moCommand(proto::kStorageConfObjType, proto::kStorageConfOpCode))
    return storageConf(call, request, reply);
  guard.warn(0, "handle", __LINE__, "unknown command 0x%08X", command);
  return proto::kErrUnknownCommand;
}

long long SimulatedBackend::Impl::newUploadPath(const CR3MRecordV3& request, const std::string& dir,
                                                const char* prefix, CR3MPackageV3& reply) {
  requireImportTarget(request);
  // 128 random bits: unique without a lock, and nothing of the client's in it.
  const std::string path = dir + "/" + prefix + toHex(randomBytes(16)) + ".upload";
  CR3MRecordV3& r = reply.addRecord(request.command(), proto::kWord);
  r[proto::kTagPath].setString(proto::kTagPath, path);
  return 0;
}

long long SimulatedBackend::Impl::checkCertificate(const TlvCall& call, const CR3MRecordV3& request,
                                                   CQPNDebugKitGuard& guard) {
  requireImportTarget(request);
  const std::string path = requireText(request, proto::kTagPath);
  if (!directChild(tmpDir, path)) {
    guard.warn(0, "checkCertificate", __LINE__, "refused a path outside %s", tmpDir.c_str());
    return proto::kErrInvalidArgument;
  }
  std::string bytes;
  const ReadResult read = readUpload(path, &bytes);
  // The upload has served its purpose whatever the verdict.
  unlink(path.c_str());
  if (read == ReadResult::kMissing) return proto::kErrNotFound;
  if (read == ReadResult::kRefused) return proto::kErrCertUnreadable;

  CaCertificate ca;
  std::string reason;
  const long long verdict = checkCaCertificate(bytes, time(nullptr), &ca, &reason);
  if (verdict != 0) {
    guard.info(0, "checkCertificate", __LINE__, "certificate refused (0x%08llX): %s", verdict,
               reason.c_str());
    return verdict;
  }
  // The file is named by its fingerprint and written under a name of its
  // own before the rename, so concurrent imports need no lock for it; only
  // the database row does. A CA imported again finds its file already
  // there, byte for byte, and is not written (nor synced) again.
  const std::string file = caDir + "/" + ca.fingerprint + ".pem";
  if (!sameContent(file, ca.pem) && !writeWhole(file, ca.pem)) {
    guard.error(0, "checkCertificate", __LINE__, "cannot write %s: %s", file.c_str(),
                errnoText(errno).c_str());
    return proto::kErrStorage;
  }
  const bool written = store.write(
      [&] {
        store
            .statement(
                "INSERT INTO ca_certificates(fingerprint, subject, not_after, file, imported) "
                "VALUES(?,?,?,?,?) "
                "ON CONFLICT(fingerprint) DO UPDATE SET imported = excluded.imported")
            .bind(1, ca.fingerprint)
            .bind(2, ca.subject)
            .bind(3, ca.notAfter)
            .bind(4, file)
            .bind(5, nowSeconds())
            .run();
      },
      storeWait(call));
  if (!written) return kErrBackendTimeout;
  guard.info(0, "checkCertificate", __LINE__, "CA %s accepted", ca.subject.c_str());
  return 0;
}

long long SimulatedBackend::Impl::saveCrl(const TlvCall& call, const CR3MRecordV3& request,
                                          CQPNDebugKitGuard& guard) {
  requireImportTarget(request);
  const std::string path = requireText(request, proto::kTagPath);
  if (!directChild(crlIncomingDir, path)) {
    guard.warn(0, "saveCrl", __LINE__, "refused a path outside %s", crlIncomingDir.c_str());
    return proto::kErrInvalidArgument;
  }
  std::string bytes;
  const ReadResult read = readUpload(path, &bytes);
  unlink(path.c_str());
  if (read == ReadResult::kMissing) return proto::kErrNotFound;
  if (read == ReadResult::kRefused) return proto::kErrCrlUnreadable;

  std::vector<std::string> caPems;
  {
    SqliteStore::Reader reader(store, storeWait(call));
    if (!reader.held()) return kErrBackendTimeout;
    Statement cas = reader.statement("SELECT file FROM ca_certificates ORDER BY imported");
    while (cas.step()) {
      std::string pem;
      if (readUpload(cas.columnText(0), &pem) == ReadResult::kOk) caPems.push_back(pem);
    }
  }
  CrlInfo crl;
  std::string reason;
  const long long verdict = checkCrl(bytes, caPems, time(nullptr), &crl, &reason);
  if (verdict != 0) {
    guard.info(0, "saveCrl", __LINE__, "CRL refused (0x%08llX): %s", verdict, reason.c_str());
    return verdict;
  }
  const std::string file = crlDir + "/" + crl.fingerprint + ".crl";
  if (!sameContent(file, crl.pem) && !writeWhole(file, crl.pem)) {
    guard.error(0, "saveCrl", __LINE__, "cannot write %s: %s", file.c_str(), errnoText(errno).c_str());
    return proto::kErrStorage;
  }
  const bool written = store.write(
      [&] {
        store
            .statement(
                "INSERT INTO crls(fingerprint, issuer_fingerprint, issuer, this_update, "
                "next_update, revoked, file, imported) VALUES(?,?,?,?,?,?,?,?) "
                "ON CONFLICT(fingerprint) DO UPDATE SET imported = excluded.imported")
            .bind(1, crl.fingerprint)
            .bind(2, crl.issuerFingerprint)
            .bind(3, crl.issuer)
            .bind(4, crl.thisUpdate)
            .bind(5, crl.nextUpdate)
            .bind(6, crl.revoked)
            .bind(7, file)
            .bind(8, nowSeconds())
            .run();
      },
      storeWait(call));
  if (!written) return kErrBackendTimeout;
  guard.info(0, "saveCrl", __LINE__, "CRL of %s accepted (%lld revoked)", crl.issuer.c_str(),
             crl.revoked);
  return 0;
}

long long SimulatedBackend::Impl::importEvent(const TlvCall& call, const CR3MRecordV3& request) {
  long long source = 0;
  if (readInt(request, 0, &source) && source != 2) throw BadRequest("unknown event source");
  const long long kind = requireInt(request, proto::kTagEventKind);
  const long long outcome = requireInt(request, proto::kTagEventOutcome);
  if ((kind != 100 && kind != 101) || (outcome != 0 && outcome != 1)) {
    throw BadRequest("unknown event kind or outcome");
  }
  const bool written = store.write(
      [&] {
        store
            .statement(
                "INSERT INTO import_events(time, user_name, client_address, kind, outcome) "
                "VALUES(?,?,?,?,?)")
            .bind(1, nowSeconds())
            .bind(2, call.user.userName_)
            .bind(3, call.user.clientAddress_)
            .bind(4, kind)
            .bind(5, outcome)
            .run();
      },
      storeWait(call));
  return written ? 0 : kErrBackendTimeout;
}

long long SimulatedBackend::Impl::alarms(const TlvCall& call, const CR3MRecordV3& request,
                                         bool list, CR3MPackageV3& reply) {
  const long long start = optionalCount(request, proto::kTagStart, 0);
  const long long limit = optionalCount(request, proto::kTagLimit, -1);
  long long severity = 0;
  const bool bySeverity = readInt(request, proto::kTagSeverity, &severity);
  if (bySeverity && (severity < 1 || severity > 4)) throw BadRequest("severity out of range");
  const long long begin = optionalTime(request, proto::kTagBeginTime, 0);
  const long long end = optionalTime(request, proto::kTagEndTime, LLONG_MAX);
  long long history = 0;
  readInt(request, proto::kTagHistory, &history);  // validated; every alarm is history

  const char* where = " WHERE (?1 = 0 OR severity = ?1) AND occur_time >= ?2 AND occur_time <= ?3";
  SqliteStore::Reader reader(store, storeWait(call));
  if (!reader.held()) return kErrBackendTimeout;
  long long total = 0;
  {
    Statement count = reader.statement(std::string("SELECT COUNT(*) FROM alarms") + where);
    count.bind(1, bySeverity ? severity : 0).bind(2, begin).bind(3, end);
    if (count.step()) total = count.columnInt(0);
  }
  CR3MRecordV3& summary = reply.addRecord(request.command(), proto::kWord);
  summary[proto::kTagTotal].setUInt32(proto::kTagTotal, static_cast<uint32_t>(total));
  if (!list) return 0;
  Statement rows = reader.statement(
      std::string("SELECT id, severity, name, source, occur_time, clear_time, detail FROM alarms") +
      where + " ORDER BY occur_time DESC, id DESC LIMIT ?4 OFFSET ?5");
  rows.bind(1, bySeverity ? severity : 0).bind(2, begin).bind(3, end).bind(4, limit).bind(5, start);
  while (rows.step()) {
    CR3MRecordV3& r = reply.addRecord(request.command(), proto::kWord);
    r[proto::kTagAlarmId].setUInt64(proto::kTagAlarmId, static_cast<uint64_t>(rows.columnInt(0)));
    r[proto::kTagAlarmSeverity].setUInt32(proto::kTagAlarmSeverity,
                                          static_cast<uint32_t>(rows.columnInt(1)));
    r[proto::kTagAlarmName].setString(proto::kTagAlarmName, rows.columnText(2));
    r[proto::kTagAlarmSource].setString(proto::kTagAlarmSource, rows.columnText(3));
    r[proto::kTagAlarmOccurTime].setUInt64(proto::kTagAlarmOccurTime,
                                           static_cast<uint64_t>(rows.columnInt(4)));
    r[proto::kTagAlarmClearTime].setUInt64(proto::kTagAlarmClearTime,
                                           static_cast<uint64_t>(rows.columnInt(5)));
    r[proto::kTagAlarmDetail].setString(proto::kTagAlarmDetail, rows.columnText(6));
  }
  return 0;
}

long long SimulatedBackend::Impl::tasks(const TlvCall& call, const CR3MRecordV3& request,
                                        CR3MPackageV3& reply) {
  const uint32_t operation = request.command() & 0xFFFF;
  if (operation == proto::kMoGetById) {
    // The identifier is text; a numeric cell names the same task.
    const CTLVCell* cell = request.find(proto::kTagObjectId);
    bool numeric = cell != nullptr;
    try {
      if (cell != nullptr) cell->checkNumerical();
    } catch (const QPNException&) {
      numeric = false;
    }
    const std::string id = numeric ? std::to_string(requireInt(request, proto::kTagObjectId))
                                   : requireText(request, proto::kTagObjectId);
    SqliteStore::Reader reader(store, storeWait(call));
    if (!reader.held()) return kErrBackendTimeout;
    Statement row = reader.statement(std::string(kTaskColumns) + " WHERE id = ?");
    row.bind(1, id);
    if (!row.step()) return proto::kErrNotFound;
    taskRecord(row, reply.addRecord(request.command(), proto::kWord));
    return 0;
  }
  if (operation != proto::kMoList && operation != proto::kMoCount) {
    return proto::kErrUnknownCommand;
  }
  std::string filter;
  readText(request, proto::kTagFilter, &filter);
  const TaskQuery query = parseTaskFilter(filter);
  if (operation == proto::kMoCount) {
    SqliteStore::Reader reader(store, storeWait(call));
    if (!reader.held()) return kErrBackendTimeout;
    Statement count = reader.statement("SELECT COUNT(*) FROM tasks" + query.where);
    bindTaskQuery(count, query);
    const long long n = count.step() ? count.columnInt(0) : 0;
    reply.addRecord(request.command(), proto::kWord)[proto::kTagTotal].setUInt32(
        proto::kTagTotal, static_cast<uint32_t>(n));
    return 0;
  }
  const long long start = optionalCount(request, proto::kTagStart, 0);
  const long long limit = optionalCount(request, proto::kTagLimit, -1);
  std::string sort;
  std::string order = "start_time DESC, id";
  if (readText(request, proto::kTagSort, &sort) && !sort.empty()) {
    const bool descending = sort[0] == '-';
    const TaskField* field = taskField(descending ? sort.substr(1) : sort);
    if (field == nullptr) throw BadRequest("cannot sort by " + sort);
    // Column names come from the fixed table, never from the request.
    order = std::string(field->column) + (descending ? " DESC" : " ASC") + ", id";
  }
  SqliteStore::Reader reader(store, storeWait(call));
  if (!reader.held()) return kErrBackendTimeout;
  Statement rows = reader.statement(std::string(kTaskColumns) + query.where + " ORDER BY " + order +
                                   " LIMIT ? OFFSET ?");
  bindTaskQuery(rows, query);
  const int next = static_cast<int>(query.textValues.size()) + 1;
  rows.bind(next, limit).bind(next + 1, start);
  while (rows.step()) taskRecord(rows, reply.addRecord(request.command(), proto::kWord));
  return 0;
}

long long SimulatedBackend::Impl::storageConf(const TlvCall& call, const CR3MRecordV3& request,
                                              CR3MPackageV3& reply) {
  SqliteStore::Reader reader(store, storeWait(call));
  if (!reader.held()) return kErrBackendTimeout;
  Statement row = reader.statement(
      "SELECT name, type, path, capacity, used, retention_days FROM storage_conf WHERE id = 1");
  StorageConfig c;
  const bool present = row.step();
  if (present) {
    c.name = row.columnText(0);
    c.type = static_cast<int>(row.columnInt(1));
    c.path = row.columnText(2);
    c.capacity = row.columnInt(3);
    c.used = row.columnInt(4);
    c.retentionDays = static_cast<int>(row.columnInt(5));
  }
  const StorageResult result = checkStorage(c);
  CR3MRecordV3& r = reply.addRecord(request.command(), proto::kWord);
  r[proto::kTagResultCode].setString(proto::kTagResultCode, result.code);
  r[proto::kTagResultParams].setString(proto::kTagResultParams, joinParams(result.params));
  if (present) {
    r[proto::kTagStorageType].setUInt32(proto::kTagStorageType, static_cast<uint32_t>(c.type));
    r[proto::kTagStoragePath].setString(proto::kTagStoragePath, c.path);
    r[proto::kTagStorageCapacity].setUInt64(proto::kTagStorageCapacity,
                                            static_cast<uint64_t>(c.capacity));
    r[proto::kTagStorageUsed].setUInt64(proto::kTagStorageUsed, static_cast<uint64_t>(c.used));
    r[proto::kTagStorageRetention].setUInt32(proto::kTagStorageRetention,
                                             static_cast<uint32_t>(c.retentionDays));
    r[proto::kTagStorageName].setString(proto::kTagStorageName, c.name);
  }
  return 0;
}

bool SimulatedBackend::Impl::loginLocked(const std::string& name) {
  std::lock_guard<std::mutex> lock(loginMutex);
  auto it = failures.find(name);
  return it != failures.end() && it->second.lockedUntil > nowSeconds();
}

void SimulatedBackend::Impl::loginFailed(const std::string& name) {
  std::lock_guard<std::mutex> lock(loginMutex);
  // Bounded: a flood of made-up names cannot grow the table without end.
  if (failures.size() > 10000) failures.clear();
  LoginFailures& f = failures[name];
  if (++f.count >= kMaxFailedLogins) {
    f.count = 0;
    f.lockedUntil = nowSeconds() + kLoginLockSeconds;
  }
}

void SimulatedBackend::Impl::loginSucceeded(const std::string& name) {
  std::lock_guard<std::mutex> lock(loginMutex);
  failures.erase(name);
}

long long SimulatedBackend::Impl::login(const TlvCall& call, const CR3MRecordV3& request,
                                        CR3MPackageV3& reply, CQPNDebugKitGuard& guard) {
  const std::string name = requireText(request, proto::kTagUserName);
  const std::string password = requireText(request, proto::kTagPassword);
  const std::string scope = requireText(request, proto::kTagScope);
  std::string address;
  readText(request, proto::kTagClientAddress, &address);
  // Throttling applies to every name, known or not, so it tells nothing.
  if (loginLocked(name)) return proto::kErrLoginThrottled;

  bool known = false;
  long long userId = 0;
  std::string scopes;
  PasswordHash stored;
  long long userState = 0;
  long long loginMark = 0;
  long long passwordState = 0;
  {
    SqliteStore::Reader reader(store, storeWait(call));
    if (!reader.held()) return kErrBackendTimeout;
    Statement row = reader.statement(
        "SELECT id, scopes, salt, hash, iterations, user_state, login_mark, password_state "
        "FROM users WHERE name = ?");
    row.bind(1, name);
    if (row.step()) {
      known = true;
      userId = row.columnInt(0);
      scopes = row.columnText(1);
      stored.salt = row.columnBlob(2);
      stored.hash = row.columnBlob(3);
      stored.iterations = static_cast<int>(row.columnInt(4));
      userState = row.columnInt(5);
      loginMark = row.columnInt(6);
      passwordState = row.columnInt(7);
    }
  }
  // The hash is computed outside the store's lock: it is the slow part.
  const bool passwordOk = verifyPassword(password, known ? stored : decoy) && known;
  if (!passwordOk) {
    loginFailed(name);
    guard.info(0, "login", __LINE__, "login refused from %s", address.c_str());
    return proto::kErrLoginFailed;
  }
  loginSucceeded(name);
  bool scopeOk = false;
  size_t begin = 0;
  while (begin <= scopes.size()) {
    const size_t comma = scopes.find(',', begin);
    const size_t stop = comma == std::string::npos ? scopes.size() : comma;
    if (scopes.compare(begin, stop - begin, scope) == 0 && stop - begin == scope.size()) {
      scopeOk = true;
    }
    if (comma == std::string::npos) break;
    begin = comma + 1;
  }
  if (!scopeOk) return proto::kErrScopeDenied;
  const bool written = store.write(
      [&] {
        store.statement("UPDATE users SET last_login = ?, last_login_address = ? WHERE id = ?")
            .bind(1, nowSeconds())
            .bind(2, address)
            .bind(3, userId)
            .run();
      },
      storeWait(call));
  if (!written) return kErrBackendTimeout;
  CR3MRecordV3& r = reply.addRecord(request.command(), proto::kWord);
  r[proto::kTagUserId].setString(proto::kTagUserId, std::to_string(userId));
  r[proto::kTagUserState].setUInt32(proto::kTagUserState, static_cast<uint32_t>(userState));
  r[proto::kTagLoginMark].setUInt32(proto::kTagLoginMark, static_cast<uint32_t>(loginMark));
  r[proto::kTagPasswordState].setUInt32(proto::kTagPasswordState,
                                        static_cast<uint32_t>(passwordState));
  return 0;
}

long long SimulatedBackend::Impl::logout(const TlvCall& call, const CR3MRecordV3& request) {
  std::string name;
  if (!readText(request, proto::kTagUserName, &name)) name = call.user.userName_;
  if (name.empty()) return proto::kErrNotLoggedIn;
  bool found = false;
  const bool written = store.write(
      [&] {
        store.statement("UPDATE users SET last_logout = ? WHERE name = ?")
            .bind(1, nowSeconds())
            .bind(2, name)
            .run();
        Statement changed = store.statement("SELECT changes()");
        found = changed.step() && changed.columnInt(0) > 0;
      },
      storeWait(call));
  if (!written) return kErrBackendTimeout;
  return found ? 0 : proto::kErrNotLoggedIn;
}

SimulatedBackend::SimulatedBackend() : impl_(new Impl) {}

SimulatedBackend::~SimulatedBackend() = default;

std::shared_ptr<SimulatedBackend> SimulatedBackend::open(const SimBackendOptions& options,
                                                         std::string* error) {
  std::string ignored;
  std::string* message = error != nullptr ? error : &ignored;
  std::shared_ptr<SimulatedBackend> backend(new SimulatedBackend());
  try {
    if (!backend->impl_->openStore(options, message)) return nullptr;
  } catch (const std::exception& e) {
    *message = e.what();
    return nullptr;
  }
  return backend;
}

long long SimulatedBackend::handle(const TlvCall& call, const CR3MPackageV3& request,
                                   CR3MPackageV3& reply) {
  CQPNDebugKitGuard guard(kTraceModule, "handle");
  if (request.size() == 0) {
    guard.warn(0, "handle", __LINE__, "empty request package");
    return proto::kErrInvalidArgument;
  }
  const CR3MRecordV3& record = request.recordAt(0);
  if (record.word() != proto::kWord) {
    guard.warn(0, "handle", __LINE__, "unknown command 0x%08X word %u", record.command(),
               record.word());
    return proto::kErrUnknownCommand;
  }
  guard.debug(0, "handle", __LINE__, "command 0x%08X", record.command());
  try {
    return impl_->dispatch(call, record, reply, guard);
  } catch (const BadRequest& e) {
    reply.clear();
    guard.warn(0, "handle", __LINE__, "command 0x%08X: %s", record.command(), e.what());
    return proto::kErrInvalidArgument;
  } catch (const StoreError& e) {
    reply.clear();
    guard.error(0, "handle", __LINE__, "command 0x%08X: database failure: %s", record.command(),
                e.what());
    return proto::kErrStorage;
  } catch (const std::exception& e) {
    reply.clear();
    guard.error(0, "handle", __LINE__, "command 0x%08X failed: %s", record.command(), e.what());
    return proto::kErrStorage;
  }
}

bool SimulatedBackend::firstStart() const { return impl_->firstStart; }

std::string SimulatedBackend::demoPassword() const { return impl_->demoPassword; }
