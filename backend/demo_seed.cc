#include "demo_seed.h"

#include <json/json.h>

#include <ctime>
#include <sstream>
#include <random>
#include <stdexcept>

namespace {

// The catalogue messages the demo data uses. One row per message; the enum
// names the rows so that the builders below read like the progress they make.
enum Msg {
  kBackupStarted,
  kBackupScanning,
  kBackupScanned,
  kBackupVolume,
  kBackupTransferred,
  kBackupSpeed,
  kBackupRetry,
  kBackupSkipped,
  kBackupFinished,
  kBackupWarnings,
  kBackupCancelled,
  kBackupWaiting,
  kStatusChanged,
  kRestoreStarted,
  kRestoreTarget,
  kRestoreFiles,
  kRestoreTransferred,
  kRestoreSkipped,
  kRestoreFinished,
  kRestoreCancelled,
  kCopyStarted,
  kCopyCounted,
  kCopyTransferred,
  kCopyRetry,
  kCopyExists,
  kCopyFinished,
  kCopyCancelled,
  kDbStarted,
  kDbConnected,
  kDbFound,
  kDbTransferred,
  kDbBackedUp,
  kDbFinished,
  kFailStorageUnreachable,
  kFailStorageFull,
  kFailAgent,
  kFailNetwork,
  kFailDbLogin,
  kFailTargetRefused,
  kFailRestoreSpace,
  kStorageNotConfigured,
  kStorageWrongType,
  kStorageLowSpace,
  kStorageRetention,
  kMsgCount
};

const SeedMessage kMessages[] = {
    {"1600000001", 3},  // backup started: name, policy, backup_level
    {"1600000002", 1},  // scanning client
    {"1600000003", 4},  // scan finished: volumes, files, size, data_unit
    {"1600000006", 3},  // backing up volume i of n
    {"1600000008", 5},  // transferred x unit of y unit (pct)
    {"1600000009", 2},  // average speed, speed_unit
    {"1600000011", 4},  // connection to client lost, retry i of n in s
    {"1600000012", 1},  // files skipped
    {"1600000015", 5},  // backup finished: name, files, size, unit, seconds
    {"1600000016", 2},  // backup finished with warnings
    {"1600000018", 2},  // backup cancelled by user
    {"1600000019", 2},  // backup waiting for storage
    {"1600000020", 2},  // task changed status, task_status
    {"1600000101", 3},  // restore started
    {"1600000102", 2},  // restoring to target, overwrite_policy
    {"1600000104", 2},  // restored i of n files
    {"1600000105", 4},  // transferred x unit of y unit
    {"1600000107", 2},  // file skipped: reason
    {"1600000110", 5},  // restore finished
    {"1600000112", 2},  // restore cancelled by user
    {"1600000201", 4},  // copy started
    {"1600000203", 3},  // copies to replicate, size, unit
    {"1600000205", 6},  // transferred x of y at speed
    {"1600000206", 4},  // link interrupted, retry
    {"1600000207", 1},  // copy exists on target, skipped
    {"1600000209", 5},  // copy finished
    {"1600000211", 2},  // copy cancelled by user
    {"1600000301", 4},  // database backup started
    {"1600000302", 2},  // connected to instance as user
    {"1600000303", 4},  // databases found
    {"1600000306", 4},  // transferred x of y
    {"1600000308", 3},  // database backed up
    {"1600000311", 5},  // database backup finished
    {"1610000001", 1},  // storage cannot be reached
    {"1610000002", 5},  // storage full
    {"1610000003", 1},  // client agent does not respond
    {"1610000007", 1},  // network lost, all retries failed
    {"1610000009", 2},  // database refused the login
    {"1610000011", 2},  // target site refused the replication
    {"1610000013", 1},  // restore target without free space
    {"1620000001", 0},  // no storage configured
    {"1620000003", 2},  // storage type cannot hold database backups
    {"1620000005", 5},  // not enough free space
    {"1620000009", 3},  // retention outside the allowed range
};
static_assert(sizeof(kMessages) / sizeof(kMessages[0]) == kMsgCount,
              "one catalogue row per message");

// Unit codes of the catalogue's enumerations data_unit and speed_unit.
constexpr const char* kGB = "3";
// Codes of the catalogue's skip_reason and refusal_reason enumerations.
constexpr const char* kSkipInUse = "1";
constexpr const char* kRefusedReadOnly = "1";
constexpr const char* kMBs = "2";

constexpr long long kGiB = 1024LL * 1024 * 1024;
constexpr long long kDay = 86400;

std::string compact(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

// Builds a task's progress entries, each a given number of seconds after the
// one before.
class Progress {
 public:
  explicit Progress(long long start) : time_(start) {}
  // Goes on with the entries of `json` (an array; anything else starts
  // afresh), the next entry at `time`.
  Progress(const std::string& json, long long time) : time_(time) {
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream in(json);
    Json::Value parsed;
    if (Json::parseFromStream(builder, in, &parsed, &errors) && parsed.isArray()) root_ = parsed;
  }

  Progress& add(Msg msg, const std::vector<std::string>& params, long long after = 45) {
    const SeedMessage& m = kMessages[msg];
    if (static_cast<int>(params.size()) != m.params) {
      throw std::logic_error(std::string("wrong parameter count for message ") + m.id);
    }
    Json::Value entry(Json::objectValue);
    entry["id"] = m.id;
    Json::Value list(Json::arrayValue);
    Json::Value stamp(Json::objectValue);
    stamp["param"] = std::to_string(time_);
    list.append(stamp);
    for (const std::string& p : params) {
      Json::Value param(Json::objectValue);
      param["param"] = p;
      list.append(param);
    }
    entry["params"] = list;
    root_.append(entry);
    time_ += after;
    return *this;
  }

  long long time() const { return time_; }
  std::string json() const { return compact(root_); }

 private:
  Json::Value root_{Json::arrayValue};
  long long time_;
};

std::string errorInfo(Msg reason, const std::string& node) {
  Json::Value v(Json::objectValue);
  v["code"] = kMessages[reason].id;
  v["node"] = node;
  return compact(v);
}

// The error information of a task that did not fail: the backend sends an
// object with the code "0".
std::string noErrorInfo(const std::string& node) {
  Json::Value v(Json::objectValue);
  v["code"] = "0";
  v["node"] = node;
  return compact(v);
}

std::string str(long long v) { return std::to_string(v); }

// "2026-11-18 02:00 UTC": how a progress entry names a point in time.
std::string utcText(long long t) {
  const time_t seconds = static_cast<time_t>(t);
  struct tm tm = {};
  gmtime_r(&seconds, &tm);
  char buffer[32] = {0};
  strftime(buffer, sizeof(buffer), "%Y-%m-%d %H:%M UTC", &tm);
  return buffer;
}

// One task of each type in each state, then a few more failures so that the
// list shows different reasons.
struct TaskPlan {
  int type;
  int status;
  const char* name;
  const char* resource;
};

const TaskPlan kPlans[] = {
    {task_type::kBackup, task_status::kSucceeded, "daily-fileserver-01", "fileserver-01"},
    {task_type::kBackup, task_status::kRunning, "daily-mailserver", "mail-01"},
    {task_type::kBackup, task_status::kFailed, "nightly-web-02", "vm-web-02"},
    {task_type::kBackup, task_status::kPartiallySucceeded, "weekly-home-dirs", "nas-home"},
    {task_type::kBackup, task_status::kQueued, "hourly-erp-app", "erp-app-01"},
    {task_type::kBackup, task_status::kCancelled, "adhoc-build-server", "build-01"},
    {task_type::kRestore, task_status::kSucceeded, "restore-fileserver-01", "fileserver-01"},
    {task_type::kRestore, task_status::kRunning, "restore-mail-archive", "mail-01"},
    {task_type::kRestore, task_status::kFailed, "restore-web-02", "vm-web-02"},
    {task_type::kRestore, task_status::kPartiallySucceeded, "restore-home-alice", "nas-home"},
    {task_type::kRestore, task_status::kQueued, "restore-erp-config", "erp-app-01"},
    {task_type::kRestore, task_status::kCancelled, "restore-build-cache", "build-01"},
    {task_type::kCopy, task_status::kSucceeded, "copy-to-dr-site", "fileserver-01"},
    {task_type::kCopy, task_status::kRunning, "copy-mail-offsite", "mail-01"},
    {task_type::kCopy, task_status::kFailed, "copy-web-to-cloud", "vm-web-02"},
    {task_type::kCopy, task_status::kPartiallySucceeded, "copy-home-to-dr", "nas-home"},
    {task_type::kCopy, task_status::kQueued, "copy-erp-offsite", "erp-app-01"},
    {task_type::kCopy, task_status::kCancelled, "copy-build-archive", "build-01"},
    {task_type::kDatabaseBackup, task_status::kSucceeded, "db-orders-full", "pg-orders"},
    {task_type::kDatabaseBackup, task_status::kRunning, "db-billing-incr", "pg-billing"},
    {task_type::kDatabaseBackup, task_status::kFailed, "db-crm-full", "mysql-crm"},
    {task_type::kDatabaseBackup, task_status::kPartiallySucceeded, "db-reports-full", "pg-reports"},
    {task_type::kDatabaseBackup, task_status::kQueued, "db-hr-full", "mysql-hr"},
    {task_type::kDatabaseBackup, task_status::kCancelled, "db-analytics-full", "pg-analytics"},
    {task_type::kBackup, task_status::kFailed, "nightly-fileserver-02", "fileserver-02"},
    {task_type::kBackup, task_status::kFailed, "daily-print-server", "print-01"},
};

void backupTask(SeedTask& t, Progress& p, int index) {
  const std::string& n = t.name;
  const std::string client = t.resource;
  if (t.status == task_status::kQueued) {
    p.add(kBackupWaiting, {n, "pool-a"});
    t.progress = 0;
    return;
  }
  p.add(kBackupStarted, {n, "policy-" + client, index % 2 == 0 ? "0" : "1"})
      .add(kBackupScanning, {client})
      .add(kBackupScanned, {"2", str(12000 + index * 731), str(40 + index), kGB}, 120)
      .add(kBackupVolume, {"/data", "1", "2"}, 600);
  switch (t.status) {
    case task_status::kRunning:
      p.add(kBackupTransferred, {"18", kGB, str(40 + index), kGB, "41"});
      t.progress = 41;
      break;
    case task_status::kSucceeded:
      p.add(kBackupTransferred, {str(40 + index), kGB, str(40 + index), kGB, "100"})
          .add(kBackupSpeed, {"112", kMBs})
          .add(kBackupFinished, {n, str(12000 + index * 731), str(40 + index), kGB, "1380"});
      t.progress = 100;
      break;
    case task_status::kPartiallySucceeded:
      p.add(kBackupSkipped, {"17"}).add(kBackupWarnings, {n, "17"});
      t.progress = 100;
      break;
    case task_status::kCancelled:
      p.add(kBackupCancelled, {n, "admin"});
      t.progress = 23;
      break;
    case task_status::kFailed:
      if (index % 3 == 0) {
        p.add(kBackupRetry, {client, "3", "3", "30"}).add(kFailNetwork, {"3"});
        t.errorInfo = errorInfo(kFailNetwork, "node-02");
      } else if (index % 3 == 1) {
        p.add(kFailStorageFull, {"pool-a", "2", kGB, str(40 + index), kGB});
        t.errorInfo = errorInfo(kFailStorageFull, "node-01");
      } else {
        p.add(kFailAgent, {client});
        t.errorInfo = errorInfo(kFailAgent, "node-03");
      }
      t.progress = 37;
      break;
  }
}

void restoreTask(SeedTask& t, Progress& p, long long now) {
  const std::string& n = t.name;
  if (t.status == task_status::kQueued) {
    p.add(kStatusChanged, {n, str(task_status::kQueued)});
    return;
  }
  p.add(kRestoreStarted, {n, t.resource, utcText(now - 3 * kDay)})
      .add(kRestoreTarget, {"/restore/" + t.resource, "2"})
      .add(kRestoreFiles, {"800", "3200"}, 300);
  switch (t.status) {
    case task_status::kRunning:
      p.add(kRestoreTransferred, {"6", kGB, "24", kGB});
      t.progress = 25;
      break;
    case task_status::kSucceeded:
      p.add(kRestoreTransferred, {"24", kGB, "24", kGB})
          .add(kRestoreFinished, {n, "3200", "24", kGB, "960"});
      t.progress = 100;
      break;
    case task_status::kPartiallySucceeded:
      p.add(kRestoreSkipped, {"/home/alice/.cache/lock", kSkipInUse})
          .add(kRestoreFinished, {n, "3199", "24", kGB, "1010"});
      t.progress = 100;
      break;
    case task_status::kCancelled:
      p.add(kRestoreCancelled, {n, "auditor"});
      t.progress = 12;
      break;
    case task_status::kFailed:
      p.add(kFailRestoreSpace, {"/restore/" + t.resource});
      t.errorInfo = errorInfo(kFailRestoreSpace, "node-01");
      t.progress = 25;
      break;
  }
}

void copyTask(SeedTask& t, Progress& p) {
  const std::string& n = t.name;
  if (t.status == task_status::kQueued) {
    p.add(kStatusChanged, {n, str(task_status::kQueued)});
    return;
  }
  p.add(kCopyStarted, {n, t.resource, "pool-a", "dr-pool"}).add(kCopyCounted, {"6", "180", kGB});
  switch (t.status) {
    case task_status::kRunning:
      p.add(kCopyTransferred, {"60", kGB, "180", kGB, "95", kMBs});
      t.progress = 33;
      break;
    case task_status::kSucceeded:
      p.add(kCopyTransferred, {"180", kGB, "180", kGB, "101", kMBs}, 1800)
          .add(kCopyFinished, {n, "6", "180", kGB, "1850"});
      t.progress = 100;
      break;
    case task_status::kPartiallySucceeded:
      p.add(kCopyExists, {"copy-0042"}).add(kCopyFinished, {n, "5", "150", kGB, "1600"});
      t.progress = 100;
      break;
    case task_status::kCancelled:
      p.add(kCopyCancelled, {n, "admin"});
      t.progress = 8;
      break;
    case task_status::kFailed:
      p.add(kCopyRetry, {"dr-site", "5", "5", "60"})
          .add(kFailTargetRefused, {"dr-site", kRefusedReadOnly});
      t.errorInfo = errorInfo(kFailTargetRefused, "node-02");
      t.progress = 50;
      break;
  }
}

void databaseTask(SeedTask& t, Progress& p) {
  const std::string& n = t.name;
  const std::string& instance = t.resource;
  if (t.status == task_status::kQueued) {
    p.add(kStatusChanged, {n, str(task_status::kQueued)});
    return;
  }
  p.add(kDbStarted, {n, t.resource.compare(0, 5, "mysql") == 0 ? "1" : "2", instance, "0"})
      .add(kDbConnected, {instance, "backup_operator"});
  switch (t.status) {
    case task_status::kRunning:
      p.add(kDbFound, {"3", instance, "54", kGB}).add(kDbTransferred, {"20", kGB, "54", kGB});
      t.progress = 37;
      break;
    case task_status::kSucceeded:
      p.add(kDbFound, {"3", instance, "54", kGB})
          .add(kDbBackedUp, {"orders", "40", kGB}, 900)
          .add(kDbBackedUp, {"customers", "12", kGB}, 300)
          .add(kDbBackedUp, {"audit", "2", kGB})
          .add(kDbFinished, {n, "3", "54", kGB, "1245"});
      t.progress = 100;
      break;
    case task_status::kPartiallySucceeded:
      p.add(kDbFound, {"2", instance, "8", kGB})
          .add(kDbBackedUp, {"reports", "7", kGB}, 400)
          .add(kStatusChanged, {n, str(task_status::kPartiallySucceeded)});
      t.progress = 100;
      break;
    case task_status::kCancelled:
      p.add(kStatusChanged, {n, str(task_status::kCancelled)});
      t.progress = 5;
      break;
    case task_status::kFailed:
      p.add(kFailDbLogin, {instance, "backup_operator"});
      t.errorInfo = errorInfo(kFailDbLogin, "node-04");
      t.progress = 3;
      break;
  }
}

// The kinds of alarm, in English and Chinese, and where they come from.
struct AlarmKind {
  int severity;
  const char* name;
  const char* detail;
  const char* nameZh;
  const char* detailZh;
};
const AlarmKind kAlarmKinds[] = {
    {1, "Backup storage unreachable", "The storage pool stopped answering the media server.",
     "备份存储不可达", "存储池不再响应介质服务器。"},
    {1, "Node offline", "The node missed five heartbeats in a row.", "节点离线",
     "节点连续五次未发送心跳。"},
    {2, "Backup task failed", "A scheduled backup task ended with an error.", "备份任务失败",
     "一个计划备份任务以错误结束。"},
    {2, "Storage pool usage high", "The storage pool is more than 85% full.", "存储池使用率高",
     "存储池已使用超过 85%。"},
    {2, "Replication delayed", "Backup copies are more than 24 hours behind the plan.",
     "复制延迟", "备份副本落后计划超过 24 小时。"},
    {3, "Certificate expires soon", "A CA certificate expires within 30 days.", "证书即将过期",
     "一个 CA 证书将在 30 天内过期。"},
    {3, "Database log backup late", "No transaction log backup in the last 4 hours.",
     "数据库日志备份延迟", "最近 4 小时内没有事务日志备份。"},
    {3, "Client agent outdated", "The client agent is older than the server.", "客户端代理版本过旧",
     "客户端代理的版本低于服务器。"},
    {4, "License capacity above 80%", "80% of the licensed capacity is in use.",
     "许可容量超过 80%", "已使用许可容量的 80%。"},
    {4, "Task ran longer than usual", "The task took twice its usual duration.",
     "任务运行时间超出平常", "任务耗时达到平常的两倍。"},
};
constexpr size_t kAlarmKindCount = sizeof(kAlarmKinds) / sizeof(kAlarmKinds[0]);
const char* const kSources[] = {"node-01",   "node-02",       "node-03",
                                "pool-a",    "dr-pool",       "media-server-1",
                                "pg-orders", "fileserver-01", "license-manager"};
constexpr size_t kSourceCount = sizeof(kSources) / sizeof(kSources[0]);

SeedAlarm alarmOfKind(unsigned roll) {
  const AlarmKind& kind = kAlarmKinds[roll % kAlarmKindCount];
  SeedAlarm a;
  a.severity = kind.severity;
  a.name = kind.name;
  a.detail = kind.detail;
  a.nameZh = kind.nameZh;
  a.detailZh = kind.detailZh;
  return a;
}

}  // namespace

const std::vector<SeedMessage>& seedMessages() {
  static const std::vector<SeedMessage> all(std::begin(kMessages), std::end(kMessages));
  return all;
}

std::vector<SeedTask> demoTasks(long long now) {
  std::vector<SeedTask> tasks;
  int index = 0;
  for (const TaskPlan& plan : kPlans) {
    SeedTask t;
    t.id = std::to_string(1001 + index);
    t.name = plan.name;
    t.type = plan.type;
    t.status = plan.status;
    t.resource = plan.resource;
    // Finished tasks lie in the last ten days; running ones started within
    // the hour; queued ones were queued a few minutes ago.
    if (t.status == task_status::kRunning) {
      t.startTime = now - 1200 - index * 60LL;
    } else if (t.status == task_status::kQueued) {
      t.startTime = now - 300 - index * 10LL;
    } else {
      t.startTime = now - (index % 10 + 1) * static_cast<long long>(kDay) + index * 1800LL;
    }
    Progress progress(t.startTime);
    switch (t.type) {
      case task_type::kBackup:
        backupTask(t, progress, index);
        break;
      case task_type::kRestore:
        restoreTask(t, progress, now);
        break;
      case task_type::kCopy:
        copyTask(t, progress);
        break;
      default:
        databaseTask(t, progress);
        break;
    }
    if (t.status != task_status::kRunning && t.status != task_status::kQueued) {
      t.endTime = progress.time();
    }
    t.detail = progress.json();
    if (t.errorInfo.empty()) t.errorInfo = noErrorInfo("node-0" + str(index % 4 + 1));
    tasks.push_back(t);
    ++index;
  }
  return tasks;
}

std::vector<SeedAlarm> demoAlarms(long long now) {
  // A fixed seed: the same folder always shows the same alarms.
  std::mt19937 random(20261121u);
  std::vector<SeedAlarm> alarms;
  const int count = 120;
  const long long span = 30 * kDay;
  for (int i = 0; i < count; ++i) {
    SeedAlarm a = alarmOfKind(static_cast<unsigned>(random()));
    a.source = kSources[random() % kSourceCount];
    a.occurTime = now - span + (span / count) * i + static_cast<long long>(random() % 3000);
    if (a.occurTime > now) a.occurTime = now;
    if (random() % 3 == 0) {
      a.clearTime = a.occurTime + 600 + static_cast<long long>(random() % 36000);
      if (a.clearTime > now) a.clearTime = now;
    }
    alarms.push_back(a);
  }
  return alarms;
}

StorageConfig demoStorage() {
  StorageConfig c;
  c.name = "dbbackup-nfs-01";
  c.type = 2;  // NAS (NFS)
  c.path = "/mnt/nox/dbbackup";
  c.capacity = 4096 * kGiB;
  c.used = 1536 * kGiB;
  c.retentionDays = 30;
  return c;
}

StorageResult checkStorage(const StorageConfig& config) {
  constexpr long long kRequiredGB = 100;
  constexpr int kTapeLibrary = 5;
  constexpr int kMinRetention = 1;
  constexpr int kMaxRetention = 3650;
  StorageResult r;
  if (config.name.empty() || config.path.empty() || config.capacity <= 0) {
    r.code = kMessages[kStorageNotConfigured].id;
  } else if (config.type == kTapeLibrary) {
    r.code = kMessages[kStorageWrongType].id;
    r.params = {config.name, str(config.type)};
  } else if (config.retentionDays < kMinRetention || config.retentionDays > kMaxRetention) {
    r.code = kMessages[kStorageRetention].id;
    r.params = {str(config.retentionDays), str(kMinRetention), str(kMaxRetention)};
  } else if ((config.capacity - config.used) / kGiB < kRequiredGB) {
    const long long freeGB = (config.capacity - config.used) / kGiB;
    r.code = kMessages[kStorageLowSpace].id;
    r.params = {config.name, str(freeGB < 0 ? 0 : freeGB), kGB, str(kRequiredGB), kGB};
  } else {
    r.code = "0";
  }
  return r;
}

std::string joinParams(const std::vector<std::string>& params) {
  std::string out;
  for (size_t i = 0; i < params.size(); ++i) {
    if (i > 0) out += "#@#";
    out += params[i];
  }
  return out;
}

namespace {

// What a task of each type moves, in GB, and the node that reports it.
long long totalGB(int type) {
  switch (type) {
    case task_type::kBackup:
      return 60;
    case task_type::kRestore:
      return 24;
    case task_type::kCopy:
      return 180;
    default:
      return 54;
  }
}

// The entry that says how far a running task got.
void addTransferred(const SeedTask& t, Progress& p, int percent) {
  const long long total = totalGB(t.type);
  const std::string done = str(total * percent / 100);
  switch (t.type) {
    case task_type::kBackup:
      p.add(kBackupTransferred, {done, kGB, str(total), kGB, str(percent)});
      break;
    case task_type::kRestore:
      p.add(kRestoreTransferred, {done, kGB, str(total), kGB});
      break;
    case task_type::kCopy:
      p.add(kCopyTransferred, {done, kGB, str(total), kGB, "95", kMBs});
      break;
    default:
      p.add(kDbTransferred, {done, kGB, str(total), kGB});
      break;
  }
}

void finishSucceeded(SeedTask& t, Progress& p) {
  const std::string total = str(totalGB(t.type));
  switch (t.type) {
    case task_type::kBackup:
      p.add(kBackupSpeed, {"112", kMBs}).add(kBackupFinished, {t.name, "12731", total, kGB, "1380"});
      break;
    case task_type::kRestore:
      p.add(kRestoreFinished, {t.name, "3200", total, kGB, "960"});
      break;
    case task_type::kCopy:
      p.add(kCopyFinished, {t.name, "6", total, kGB, "1850"});
      break;
    default:
      p.add(kDbFinished, {t.name, "3", total, kGB, "1245"});
      break;
  }
}

void finishPartially(SeedTask& t, Progress& p) {
  const std::string total = str(totalGB(t.type));
  switch (t.type) {
    case task_type::kBackup:
      p.add(kBackupSkipped, {"17"}).add(kBackupWarnings, {t.name, "17"});
      break;
    case task_type::kRestore:
      p.add(kRestoreSkipped, {"/restore/" + t.resource + "/lock", kSkipInUse})
          .add(kRestoreFinished, {t.name, "3199", total, kGB, "1010"});
      break;
    case task_type::kCopy:
      p.add(kCopyExists, {"copy-0042"}).add(kCopyFinished, {t.name, "5", total, kGB, "1600"});
      break;
    default:
      p.add(kStatusChanged, {t.name, str(task_status::kPartiallySucceeded)});
      break;
  }
}

// The failure's entry; returns the message it ended with.
Msg finishFailed(SeedTask& t, Progress& p, unsigned roll) {
  switch (t.type) {
    case task_type::kBackup:
      if (roll % 2 == 0) {
        p.add(kFailStorageFull, {"pool-a", "2", kGB, str(totalGB(t.type)), kGB});
        return kFailStorageFull;
      }
      p.add(kFailAgent, {t.resource});
      return kFailAgent;
    case task_type::kRestore:
      p.add(kFailRestoreSpace, {"/restore/" + t.resource});
      return kFailRestoreSpace;
    case task_type::kCopy:
      p.add(kCopyRetry, {"dr-site", "5", "5", "60"})
          .add(kFailTargetRefused, {"dr-site", kRefusedReadOnly});
      return kFailTargetRefused;
    default:
      p.add(kFailDbLogin, {t.resource, "backup_operator"});
      return kFailDbLogin;
  }
}

void finishTask(SeedTask& t, Progress& p, unsigned roll, long long now) {
  const unsigned outcome = roll % 20;
  t.progress = 100;
  if (outcome < 14) {
    t.status = task_status::kSucceeded;
    finishSucceeded(t, p);
  } else if (outcome < 17) {
    t.status = task_status::kPartiallySucceeded;
    finishPartially(t, p);
  } else {
    t.status = task_status::kFailed;
    t.errorInfo = errorInfo(finishFailed(t, p, roll / 20), "node-0" + str(roll % 4 + 1));
  }
  t.endTime = now;
}

}  // namespace

void startTask(SeedTask& t, long long now) {
  Progress p(t.detail, now);
  switch (t.type) {
    case task_type::kBackup:
      p.add(kBackupStarted, {t.name, "policy-" + t.resource, "1"}, 0)
          .add(kBackupScanning, {t.resource}, 0);
      break;
    case task_type::kRestore:
      p.add(kRestoreStarted, {t.name, t.resource, utcText(now - kDay)}, 0)
          .add(kRestoreTarget, {"/restore/" + t.resource, "2"}, 0);
      break;
    case task_type::kCopy:
      p.add(kCopyStarted, {t.name, t.resource, "pool-a", "dr-pool"}, 0)
          .add(kCopyCounted, {"6", str(totalGB(t.type)), kGB}, 0);
      break;
    default:
      p.add(kDbStarted, {t.name, t.resource.compare(0, 5, "mysql") == 0 ? "1" : "2", t.resource,
                         "0"}, 0)
          .add(kDbConnected, {t.resource, "backup_operator"}, 0);
      break;
  }
  t.status = task_status::kRunning;
  t.progress = 0;
  t.startTime = now;
  t.endTime = 0;
  t.detail = p.json();
}

void advanceTask(SeedTask& t, unsigned roll, long long now) {
  Progress p(t.detail, now);
  const int percent = t.progress + 5 + static_cast<int>(roll % 20);
  if (percent >= 100) {
    addTransferred(t, p, 100);
    finishTask(t, p, roll / 20, now);
  } else {
    addTransferred(t, p, percent);
    t.progress = percent;
  }
  t.detail = p.json();
}

SeedTask scheduledTask(const std::string& id, unsigned index, long long now) {
  const TaskPlan& plan = kPlans[index % (sizeof(kPlans) / sizeof(kPlans[0]))];
  SeedTask t;
  t.id = id;
  t.name = plan.name;
  t.type = plan.type;
  t.status = task_status::kQueued;
  t.resource = plan.resource;
  t.startTime = now;
  Progress p(now);
  if (t.type == task_type::kBackup) {
    p.add(kBackupWaiting, {t.name, "pool-a"}, 0);
  } else {
    p.add(kStatusChanged, {t.name, str(task_status::kQueued)}, 0);
  }
  t.detail = p.json();
  t.errorInfo = noErrorInfo("node-0" + str(index % 4 + 1));
  return t;
}

SeedAlarm raisedAlarm(unsigned roll, long long now) {
  SeedAlarm a = alarmOfKind(roll);
  a.source = kSources[(roll / kAlarmKindCount) % kSourceCount];
  a.occurTime = now;
  return a;
}
