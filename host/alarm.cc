// The host's alarm queries: queryAlarm, parseAlarms and the host's own alarm
// operations. docs/api-alarms.md describes the arguments and the answers.
#include <strings.h>

#include <climits>
#include <cstdint>
#include <map>
#include <string>

#include "alarm_row.h"
#include "backend_protocol.h"
#include "operation_base.h"
#include "tlv_backend.h"

namespace {

// A request argument that becomes a cell of the alarm query.
struct AlarmArg {
  const char* name;
  unsigned short tag;
  bool wide;  // 64-bit cell, else 32-bit
  unsigned long long min;
  unsigned long long max;
};

const AlarmArg kAlarmArgs[] = {
    {"start", proto::kTagStart, false, 0, UINT32_MAX},
    {"limit", proto::kTagLimit, false, 0, UINT32_MAX},
    {"severity", proto::kTagSeverity, false, 1, 4},
    {"begintime", proto::kTagBeginTime, true, 0, ULLONG_MAX},
    {"endtime", proto::kTagEndTime, true, 0, ULLONG_MAX},
};

// Digits only, no sign or blanks, within [min, max].
bool parseArg(const std::string& text, const AlarmArg& arg, unsigned long long* value) {
  if (text.empty() || text.size() > 20) return false;
  unsigned long long v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    const unsigned digit = static_cast<unsigned>(c - '0');
    if (v > (ULLONG_MAX - digit) / 10) return false;
    v = v * 10 + digit;
  }
  if (v < arg.min || v > arg.max) return false;
  *value = v;
  return true;
}

// {"data": null, "error": {"code": code, "description": description}}.
void writeErrorEnvelope(CResponseMsg& response, long long code, const std::string& description) {
  Json::Value body(Json::objectValue);
  body["data"] = Json::Value();
  body["error"]["code"] = static_cast<Json::Int64>(code);
  body["error"]["description"] = description;
  response.getJsonBody() = body;
  response.setContentKind(CResponseMsg::kContentJson);
}

bool holdsError(const Json::Value& body) {
  if (!body.isObject() || !body["error"].isObject()) return false;
  const Json::Value& code = body["error"]["code"];
  return code.isIntegral() && code.asInt64() != 0;
}

unsigned long long numberOf(const CR3MRecordV3& record, unsigned short tag) {
  const CTLVCell* cell = record.find(tag);
  return cell == nullptr ? 0 : static_cast<unsigned long long>(cell->toInt64());
}

std::string textOf(const CR3MRecordV3& record, unsigned short tag) {
  const CTLVCell* cell = record.find(tag);
  return cell == nullptr ? std::string() : cell->toString();
}

}  // namespace

Json::Value alarmRowJson(const CR3MRecordV3& record) {
  Json::Value alarm(Json::objectValue);
  alarm["id"] = static_cast<Json::UInt64>(numberOf(record, proto::kTagAlarmId));
  alarm["severity"] = static_cast<Json::UInt64>(numberOf(record, proto::kTagAlarmSeverity));
  alarm["name"] = textOf(record, proto::kTagAlarmName);
  alarm["source"] = textOf(record, proto::kTagAlarmSource);
  alarm["occurTime"] = static_cast<Json::UInt64>(numberOf(record, proto::kTagAlarmOccurTime));
  alarm["clearTime"] = static_cast<Json::UInt64>(numberOf(record, proto::kTagAlarmClearTime));
  alarm["detail"] = textOf(record, proto::kTagAlarmDetail);
  return alarm;
}

int queryAlarm(unsigned long long command, CRequestMsg& request, CResponseMsg& response,
               bool history) {
  std::map<std::string, MsgValue> args;
  request.getAllArgs(args);

  CR3MPackageV3 query;
  CR3MRecordV3& record = query.addRecord(static_cast<uint32_t>(command & 0xFFFFFFFFULL),
                                         static_cast<uint32_t>(command >> 32));
  for (const AlarmArg& arg : kAlarmArgs) {
    auto it = args.find(arg.name);
    if (it == args.end() || it->second.value_.empty()) continue;  // no condition
    unsigned long long value = 0;
    if (!parseArg(it->second.value_, arg, &value)) {
      writeErrorEnvelope(response, proto::kErrInvalidArgument,
                         std::string("invalid argument: ") + arg.name);
      return static_cast<int>(proto::kErrInvalidArgument);
    }
    if (arg.wide) {
      record[arg.tag].setUInt64(arg.tag, value);
    } else {
      record[arg.tag].setUInt32(arg.tag, static_cast<uint32_t>(value));
    }
  }
  record[proto::kTagHistory].setUInt32(proto::kTagHistory, history ? 1 : 0);

  // The reply replaces whatever the response held.
  response.clear();
  const CSessionInfo& session = request.getSessionInfo();
  try {
    CTlvMsg::sendMessage(session.getDeviceID(), session.getUserContext(), query, response,
                         request.getInterfaceVersion(), CRequestUri::getCfgTimeout(),
                         CommunicationTarget::TARGET_BACKEND);
  } catch (const QPNExceptionWithErrCode_& e) {
    response.clear();
    // No backend to ask is not a failed query: it goes up as on every other
    // route (503), through the operation, which does not catch it.
    if (e.getErrCode() == kErrBackendUnavailable) throw;
    writeErrorEnvelope(response, e.getErrCode(), "alarm query failed");
    return static_cast<int>(e.getErrCode());
  }
  return 0;
}

int parseAlarms(CRequestMsg& request, CResponseMsg& response, bool history) {
  (void)request;
  (void)history;  // history and active alarms have the same members
  // queryAlarm's error envelope stands.
  if (holdsError(response.getJsonBody())) return -1;

  Json::Value alarms(Json::arrayValue);
  unsigned long long total = 0;
  try {
    for (size_t i = 1; i < response.size(); ++i) alarms.append(alarmRowJson(response.recordAt(i)));
    total = alarms.size();
    if (response.size() > 0 && response.recordAt(0).has(proto::kTagTotal)) {
      total = numberOf(response.recordAt(0), proto::kTagTotal);
    }
  } catch (const QPNException&) {
    return -1;  // a malformed reply leaves the body as it was
  }

  Json::Value body(Json::objectValue);
  body["data"]["total"] = static_cast<Json::UInt64>(total);
  body["data"]["alarms"] = alarms;
  body["error"]["code"] = 0;
  body["error"]["description"] = "0";
  response.getJsonBody() = body;
  response.setContentKind(CResponseMsg::kContentJson);
  return 0;
}

int CHistoryAlarmOp::op(const std::string& action, const std::string& resource,
                        CRequestMsg& request, CResponseMsg& response) {
  (void)resource;
  if (strcasecmp(action.c_str(), CRequestUri::URI_ACT_GET) != 0) return -1;
  queryAlarm(proto::kAlarmList, request, response, true);
  parseAlarms(request, response, true);
  return 0;
}

int CHistoryAlarmCountOp::op(const std::string& action, const std::string& resource,
                             CRequestMsg& request, CResponseMsg& response) {
  (void)action;
  (void)resource;
  queryAlarm(proto::kAlarmCount, request, response, false);
  long long count = 0;
  try {
    if (response.size() > 0 && response.recordAt(0).has(proto::kTagTotal)) {
      count = response.recordAt(0).find(proto::kTagTotal)->toInt64();
    }
  } catch (const QPNException&) {
    count = 0;  // a non-numeric count reads as none
  }
  Json::Value body(Json::objectValue);
  body[request.getInterfaceVersion() == "v1" ? "count" : "COUNT"] = static_cast<Json::Int64>(count);
  response.getJsonBody() = body;
  response.setContentKind(CResponseMsg::kContentJson);
  return 0;
}
