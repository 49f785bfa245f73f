// The demo data a fresh data folder is seeded with: tasks with progress
// entries and error information, alarms, and the database-backup storage
// configuration, plus the rule that turns a storage configuration into its
// result code.
//
// Every message identifier the data uses is listed once, with its number of
// parameters, in seedMessages(); the identifiers come from the message
// catalogue in conf/ and a test keeps the two in step.
//
// Thread-safety: plain functions of their arguments.
#ifndef NOX_BACKEND_DEMO_SEED_H_
#define NOX_BACKEND_DEMO_SEED_H_

#include <string>
#include <vector>

// Codes of the catalogue's enumerations task_status and task_type.
namespace task_status {
constexpr int kQueued = 1;
constexpr int kRunning = 2;
constexpr int kSucceeded = 3;
constexpr int kPartiallySucceeded = 4;
constexpr int kFailed = 5;
constexpr int kCancelled = 6;
}  // namespace task_status
namespace task_type {
constexpr int kBackup = 1;
constexpr int kRestore = 2;
constexpr int kCopy = 3;
constexpr int kDatabaseBackup = 4;
}  // namespace task_type

// A message identifier of the catalogue and how many parameters its template
// takes (##0 .. ##params-1). Progress entries carry the time in front of them.
struct SeedMessage {
  const char* id;
  int params;
};
const std::vector<SeedMessage>& seedMessages();

struct SeedTask {
  std::string id;
  std::string name;
  int type = 0;
  int status = 0;
  int progress = 0;  // percent
  long long startTime = 0;
  long long endTime = 0;  // 0 while queued or running
  std::string resource;
  std::string detail;     // compact JSON array of progress entries
  // Compact JSON object, as the backend always sends it: {"code": the
  // failure's message identifier, "node": ...} for a failed task,
  // {"code": "0", "node": ...} for any other.
  std::string errorInfo;
};

struct SeedAlarm {
  int severity = 0;  // 1 critical .. 4 warning
  std::string name;
  std::string source;
  long long occurTime = 0;
  long long clearTime = 0;  // 0 while active
  std::string detail;
  std::string nameZh;  // the name and the detail in Chinese
  std::string detailZh;
};

// The database-backup storage configuration, as stored.
struct StorageConfig {
  std::string name;
  int type = 0;  // enumeration storage_type
  std::string path;
  long long capacity = 0;  // bytes
  long long used = 0;      // bytes
  int retentionDays = 0;
};

// The demo tasks (26 of them: each type in each state, and more failures),
// their times relative to `now` (seconds since the epoch).
std::vector<SeedTask> demoTasks(long long now);
// 120 alarms over the 30 days before `now`, about a third of them cleared.
// The same `now` always gives the same alarms.
std::vector<SeedAlarm> demoAlarms(long long now);
StorageConfig demoStorage();

// The simulation's moves (sim_simulation.cc), written with the same
// catalogue messages as the seed. `roll` is a number the caller draws
// (from its seeded generator), so that the same rolls give the same data.
//
// A queued task starts: status running, progress 0, its "started" entries.
void startTask(SeedTask& task, long long now);
// A running task moves on: progress rises by 5 to 24 percent with a
// "transferred" entry; at 100 it ends, succeeded (roll % 20 < 14), partially
// succeeded (< 17) or failed with error information (the rest), with the
// entries of that end and endTime = now.
void advanceTask(SeedTask& task, unsigned roll, long long now);
// A new queued task like the demo task `index` (modulo their number).
SeedTask scheduledTask(const std::string& id, unsigned index, long long now);
// A new active alarm of a kind and source picked by `roll`.
SeedAlarm raisedAlarm(unsigned roll, long long now);

// The result of checking a storage configuration: "0" when it can take
// database backups, otherwise a catalogue identifier (1620000xxx) with its
// parameters. For instance a configuration whose free space is below the
// 100 GB the backups need gives code "1620000005" with the parameters
// {name, free GB, "3", "100", "3"} (3 = GB in the enumeration data_unit).
struct StorageResult {
  std::string code;
  std::vector<std::string> params;
};
StorageResult checkStorage(const StorageConfig& config);

// Joins message parameters with the catalogue's separator "#@#":
//   joinParams({"a", "b"}) == "a#@#b", joinParams({}) == "".
std::string joinParams(const std::vector<std::string>& params);

#endif  // NOX_BACKEND_DEMO_SEED_H_
