// The reference host's generic REST dispatch and managed-object queries:
// CRestSepcOp, CMoSpecOp, GeneralNonMoOp, CGetBatchOp, CGetBatchByFilterOp,
// CGetByIDOp and CGetByIDFilterOp.
//
// Every query here sends one package of one record (command, header word 13)
// with the session's device and user, the request's interface version and
// the configured time-out, and leaves the backend's reply records in the
// response (a CResponseMsg is the reply package). A failure the backend
// reports comes back from CTlvMsg::sendMessage as QPNExceptionWithErrCode_;
// the queries catch it and return its code instead.
//
// Request cells of the managed-object reads (all optional: a missing cell is
// no condition):
//   kTagStart  (uint32)  the "start" argument, the first row (0-based)
//   kTagLimit  (uint32)  the "limit" argument, rows at most
//   kTagSort   (string)  the "sort" argument as given
//   kTagFilter (string)  compact JSON object: field -> value (text) made of
//                        every other argument except "LANGUAGE"; an argument
//                        "filter" that holds a JSON object adds its members.
// A "start" or "limit" that is not a decimal number within 32 bits, or a
// "filter" that is not a JSON object, is refused with 0x03000003 before
// anything is sent. A non-managed-object query (GeneralNonMoOp) sends every
// argument except "LANGUAGE" in the kTagFilter cell.
#include <strings.h>

#include <cctype>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "backend_protocol.h"
#include "qpn_debug_kit.h"
#include "request_msg.h"
#include "operation_base.h"
#include "tlv_package.h"

namespace {

constexpr int kModule = 2;  // the host's module

const char kArgStart[] = "start";
const char kArgLimit[] = "limit";
const char kArgSort[] = "sort";
const char kArgFilter[] = "filter";
const char kArgLanguage[] = "LANGUAGE";

bool sameMethod(const std::string& action, const char* method) {
  return strcasecmp(action.c_str(), method) == 0;
}

// A paging number: decimal digits only, within 32 bits.
bool parseCount(const std::string& text, uint32_t* value) {
  if (text.empty() || text.size() > 10) return false;
  unsigned long long v = 0;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    v = v * 10 + static_cast<unsigned>(c - '0');
  }
  if (v > UINT32_MAX) return false;
  *value = static_cast<uint32_t>(v);
  return true;
}

// `value` as compact JSON text, with no line feed at its end.
std::string compact(const Json::Value& value) {
  Json::FastWriter writer;
  writer.omitEndingLineFeed();
  return writer.write(value);
}

// The filter object of `args`: every argument but the paging, sorting and
// language ones. Returns false when "filter" is given but is no JSON object.
bool buildFilter(const std::map<std::string, MsgValue>& args, Json::Value* filter) {
  *filter = Json::Value(Json::objectValue);
  auto given = args.find(kArgFilter);
  if (given != args.end() && !given->second.value_.empty()) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    const std::string& text = given->second.value_;
    Json::Value parsed;
    if (!reader->parse(text.data(), text.data() + text.size(), &parsed, nullptr) ||
        !parsed.isObject()) {
      return false;
    }
    for (const std::string& name : parsed.getMemberNames()) {
      const Json::Value& v = parsed[name];
      // A number (or any other non-text value) travels as its JSON text:
      // {"status":1} as "1".
      (*filter)[name] = v.isString() ? v : Json::Value(compact(v));
    }
  }
  for (const auto& entry : args) {
    const std::string& key = entry.first;
    if (key == kArgStart || key == kArgLimit || key == kArgSort || key == kArgLanguage ||
        key == kArgFilter) {
      continue;
    }
    // A per-field argument is more specific than the "filter" object.
    (*filter)[key] = entry.second.value_;
  }
  return true;
}

// Sends `package` for the request's session and leaves the reply in
// `response`. Returns 0 or the backend's code.
int send(CR3MPackageV3& package, CRequestMsg& request, CResponseMsg& response) {
  const CR3MRecordV3& record = package.recordAt(0);
  response.clear();
  response.setCommandId((static_cast<uint64_t>(record.word()) << 32) | record.command());
  CSessionInfo& session = request.getSessionInfo();
  try {
    CTlvMsg::sendMessage(session.getDeviceID(), session.getUserContext(), package, response,
                         request.getInterfaceVersion(), CRequestUri::getCfgTimeout(),
                         CommunicationTarget::TARGET_BACKEND);
  } catch (const QPNExceptionWithErrCode_& e) {
    return static_cast<int>(e.getErrCode());
  }
  return 0;
}

// A list read of `objType` with the paging, sorting and filter cells taken
// from `args`.
int sendList(uint32_t opCode, uint32_t word, uint32_t objType,
             const std::map<std::string, MsgValue>& args, CRequestMsg& request,
             CResponseMsg& response) {
  CQPNDebugKitGuard guard(kModule, "list");
  CR3MPackageV3 package;
  CR3MRecordV3& record = package.addRecord(proto::moCommand(objType, opCode), word);
  auto it = args.find(kArgStart);
  if (it != args.end()) {
    uint32_t start = 0;
    if (!parseCount(it->second.value_, &start)) {
      guard.warn(0, "list", __LINE__, "invalid start \"%s\"", it->second.value_.c_str());
      return static_cast<int>(proto::kErrInvalidArgument);
    }
    record[proto::kTagStart].setUInt32(proto::kTagStart, start);
  }
  it = args.find(kArgLimit);
  if (it != args.end()) {
    uint32_t limit = 0;
    if (!parseCount(it->second.value_, &limit)) {
      guard.warn(0, "list", __LINE__, "invalid limit \"%s\"", it->second.value_.c_str());
      return static_cast<int>(proto::kErrInvalidArgument);
    }
    record[proto::kTagLimit].setUInt32(proto::kTagLimit, limit);
  }
  it = args.find(kArgSort);
  if (it != args.end() && !it->second.value_.empty()) {
    record[proto::kTagSort].setString(proto::kTagSort, it->second.value_);
  }
  Json::Value filter;
  if (!buildFilter(args, &filter)) {
    guard.warn(0, "list", __LINE__, "filter is not a JSON object");
    return static_cast<int>(proto::kErrInvalidArgument);
  }
  if (!filter.empty()) record[proto::kTagFilter].setString(proto::kTagFilter, compact(filter));
  return send(package, request, response);
}

// A read of one object; `args` (may be null) adds a filter cell when it holds
// filter fields.
int sendById(uint32_t opCode, uint32_t word, uint32_t objType, const std::string& id,
             const std::map<std::string, MsgValue>* args, CRequestMsg& request,
             CResponseMsg& response) {
  CR3MPackageV3 package;
  CR3MRecordV3& record = package.addRecord(proto::moCommand(objType, opCode), word);
  record[proto::kTagObjectId].setString(proto::kTagObjectId, id);
  if (args != nullptr) {
    Json::Value filter;
    if (!buildFilter(*args, &filter)) return static_cast<int>(proto::kErrInvalidArgument);
    if (!filter.empty()) record[proto::kTagFilter].setString(proto::kTagFilter, compact(filter));
  }
  return send(package, request, response);
}

}  // namespace

// --- CRestSepcOp ---

int CRestSepcOp::op(const std::string& action, const std::string& resource, CRequestMsg& request,
                    CResponseMsg& response) {
  (void)resource;
  if (sameMethod(action, CRequestUri::URI_ACT_GET)) return get(request, response);
  if (sameMethod(action, CRequestUri::URI_ACT_POST)) return post(request, response);
  if (sameMethod(action, CRequestUri::URI_ACT_PUT)) return put(request, response);
  if (sameMethod(action, CRequestUri::URI_ACT_DELETE)) return del(request, response);
  return -1;
}

int CRestSepcOp::get(CRequestMsg&, CResponseMsg&) { return -1; }
int CRestSepcOp::post(CRequestMsg&, CResponseMsg&) { return -1; }
int CRestSepcOp::put(CRequestMsg&, CResponseMsg&) { return -1; }
int CRestSepcOp::del(CRequestMsg&, CResponseMsg&) { return -1; }

// --- CMoSpecOp ---

int CMoSpecOp::get(CRequestMsg& request, CResponseMsg& response) {
  std::map<std::string, MsgValue> args;
  request.getAllArgs(args);
  const std::vector<std::string>& ids = request.getResIDs();
  if (ids.empty()) {
    CGetBatchByFilterOp query(proto::kMoList, proto::kWord, objType_, args);
    return query.exec(request, response);
  }
  if (strcasecmp(ids.front().c_str(), "count") == 0) {
    CR3MPackageV3 package;
    CR3MRecordV3& record =
        package.addRecord(proto::moCommand(objType_, proto::kMoCount), proto::kWord);
    Json::Value filter;
    if (!buildFilter(args, &filter)) return static_cast<int>(proto::kErrInvalidArgument);
    if (!filter.empty()) record[proto::kTagFilter].setString(proto::kTagFilter, compact(filter));
    return send(package, request, response);
  }
  CGetByIDOp query(proto::kMoGetById, proto::kWord, objType_, ids.front());
  return query.exec(request, response);
}

// Managed objects are read-only through the gateway.
int CMoSpecOp::post(CRequestMsg&, CResponseMsg&) { return -1; }
int CMoSpecOp::put(CRequestMsg&, CResponseMsg&) { return -1; }
int CMoSpecOp::del(CRequestMsg&, CResponseMsg&) { return -1; }

// --- GeneralNonMoOp ---

bool GeneralNonMoOp::isSupport(const std::string& action, const std::string& resource,
                               SpecifyOpPrivData& privData) {
  (void)resource;
  (void)privData;
  return strcasecmp(action.c_str(), method_.c_str()) == 0;
}

int GeneralNonMoOp::op(const std::string& action, const std::string& resource, CRequestMsg& request,
                       CResponseMsg& response) {
  (void)action;
  (void)resource;
  std::map<std::string, MsgValue> args;
  request.getAllArgs(args);
  CR3MPackageV3 package;
  CR3MRecordV3& record = package.addRecord(proto::moCommand(objType_, opCode_), proto::kWord);
  // The query's arguments travel as one JSON object in the filter cell.
  Json::Value values(Json::objectValue);
  for (const auto& entry : args) {
    if (entry.first != kArgLanguage) values[entry.first] = entry.second.value_;
  }
  if (!values.empty()) record[proto::kTagFilter].setString(proto::kTagFilter, compact(values));
  return send(package, request, response);
}

int GeneralNonMoOp::get(CRequestMsg&, CResponseMsg&) { return 0; }

// --- Generic reads ---

int CGetBatchOp::exec(CRequestMsg& request, CResponseMsg& response) {
  std::map<std::string, MsgValue> args;
  request.getAllArgs(args);
  return sendList(opCode_, word_, objType_, args, request, response);
}

int CGetBatchByFilterOp::exec(CRequestMsg& request, CResponseMsg& response) {
  return sendList(opCode_, word_, objType_, args_, request, response);
}

int CGetByIDOp::exec(CRequestMsg& request, CResponseMsg& response) {
  return sendById(opCode_, word_, objType_, id_, nullptr, request, response);
}

int CGetByIDFilterOp::exec(CRequestMsg& request, CResponseMsg& response) {
  return sendById(opCode_, word_, objType_, id_, &args_, request, response);
}
