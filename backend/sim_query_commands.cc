// The simulated backend's queries: tasks (list, count, one task), alarms
// (list, count) and the storage configuration.
#include <json/json.h>

#include <climits>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "backend_protocol.h"
#include "demo_seed.h"
#include "request_cells.h"
#include "sim_backend_impl.h"

namespace {

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
      // A number, or a text of digits only: the host sends a number as its
      // digits, with nothing around them.
      const std::string digits = v.isString() ? v.asString() : std::string();
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

}  // namespace

namespace simbackend {

const char kTaskColumns[] =
    "id, name, type, status, progress, start_time, end_time, resource, detail, error_info";
const char kAlarmColumns[] =
    "id, severity, name, source, occur_time, clear_time, detail, name_zh, detail_zh";

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

void alarmRecord(const Statement& row, CR3MRecordV3& r, const std::string& language, bool both) {
  const bool zh = language == "zh" && !row.columnText(7).empty();
  r[proto::kTagAlarmId].setUInt64(proto::kTagAlarmId, static_cast<uint64_t>(row.columnInt(0)));
  r[proto::kTagAlarmSeverity].setUInt32(proto::kTagAlarmSeverity,
                                        static_cast<uint32_t>(row.columnInt(1)));
  r[proto::kTagAlarmName].setString(proto::kTagAlarmName, row.columnText(zh ? 7 : 2));
  r[proto::kTagAlarmSource].setString(proto::kTagAlarmSource, row.columnText(3));
  r[proto::kTagAlarmOccurTime].setUInt64(proto::kTagAlarmOccurTime,
                                         static_cast<uint64_t>(row.columnInt(4)));
  r[proto::kTagAlarmClearTime].setUInt64(proto::kTagAlarmClearTime,
                                         static_cast<uint64_t>(row.columnInt(5)));
  r[proto::kTagAlarmDetail].setString(proto::kTagAlarmDetail, row.columnText(zh ? 8 : 6));
  if (both) {
    r[proto::kTagAlarmNameZh].setString(proto::kTagAlarmNameZh, row.columnText(7));
    r[proto::kTagAlarmDetailZh].setString(proto::kTagAlarmDetailZh, row.columnText(8));
  }
}

// Whether the cell holds a number (the types checkNumerical takes), asked
// without an exception: a task named by text is the common case.
bool isNumericCell(const CTLVCell& cell) {
  switch (cell.getType()) {
    case CTLVCell::TLV_UINT32:
    case CTLVCell::TLV_INT32:
    case CTLVCell::TLV_UINT8:
    case CTLVCell::TLV_UINT16:
    case CTLVCell::TLV_UINT64:
      return true;
    default:
      return false;
  }
}

}  // namespace simbackend

using simbackend::alarmRecord;
using simbackend::isNumericCell;
using simbackend::kAlarmColumns;
using simbackend::kTaskColumns;
using simbackend::taskRecord;

using simbackend::storeWait;

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
  Statement rows = reader.statement(std::string("SELECT ") + kAlarmColumns + " FROM alarms" +
                                    where + " ORDER BY occur_time DESC, id DESC LIMIT ?4 OFFSET ?5");
  rows.bind(1, bySeverity ? severity : 0).bind(2, begin).bind(3, end).bind(4, limit).bind(5, start);
  while (rows.step()) {
    alarmRecord(rows, reply.addRecord(request.command(), proto::kWord), call.language);
  }
  return 0;
}

long long SimulatedBackend::Impl::tasks(const TlvCall& call, const CR3MRecordV3& request,
                                        CR3MPackageV3& reply) {
  const uint32_t operation = request.command() & 0xFFFF;
  if (operation == proto::kMoGetById) {
    // The identifier is text; a numeric cell names the same task.
    const CTLVCell* cell = request.find(proto::kTagObjectId);
    const bool numeric = cell != nullptr && isNumericCell(*cell);
    const std::string id = numeric ? std::to_string(requireInt(request, proto::kTagObjectId))
                                   : requireText(request, proto::kTagObjectId);
    SqliteStore::Reader reader(store, storeWait(call));
    if (!reader.held()) return kErrBackendTimeout;
    Statement row = reader.statement(std::string("SELECT ") + kTaskColumns + " FROM tasks WHERE id = ?");
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
  Statement rows = reader.statement(std::string("SELECT ") + kTaskColumns + " FROM tasks" + query.where + " ORDER BY " + order +
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
