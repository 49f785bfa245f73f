#include "reply_json.h"

#include <strings.h>

#include <exception>
#include <memory>
#include <string>

#include "backend_protocol.h"
#include "qpn_debug_kit.h"

namespace reply {

namespace {

constexpr int kTraceModule = 4;  // the gateway's records in the trace log

// What a field's cell must hold; a cell of another kind is left out of the
// answer (with a warning) rather than passed on in a shape clients do not
// expect.
enum class Want { kText, kNumber, kAny };

struct FieldRow {
  uint32_t objType;
  unsigned short tag;
  const char* name;
  Want want;
};

// Field tables, one block per object type.
constexpr FieldRow kFields[] = {
    // Tasks.
    {proto::kTaskObjType, proto::kTagTaskId, "taskId", Want::kText},
    {proto::kTaskObjType, proto::kTagTaskName, "name", Want::kText},
    {proto::kTaskObjType, proto::kTagTaskType, "type", Want::kNumber},
    {proto::kTaskObjType, proto::kTagTaskStatus, "status", Want::kNumber},
    {proto::kTaskObjType, proto::kTagTaskProgress, "progress", Want::kNumber},
    {proto::kTaskObjType, proto::kTagTaskStartTime, "startTime", Want::kNumber},
    {proto::kTaskObjType, proto::kTagTaskEndTime, "endTime", Want::kNumber},
    {proto::kTaskObjType, proto::kTagTaskResource, "resource", Want::kText},
    {proto::kTaskObjType, proto::kTagTaskDetail, "detail", Want::kText},
    {proto::kTaskObjType, proto::kTagTaskErrorInfo, "errorInfo", Want::kAny},
    // Database-backup storage configuration. Cell 9 holds the readable
    // result: "" on success, the sentence for the failure otherwise.
    {proto::kStorageConfObjType, proto::kTagResultCode, "result", Want::kAny},
    {proto::kStorageConfObjType, proto::kTagResultParams, "resultParams", Want::kAny},
    {proto::kStorageConfObjType, proto::kTagStorageType, "storageType", Want::kNumber},
    {proto::kStorageConfObjType, proto::kTagStoragePath, "storagePath", Want::kText},
    {proto::kStorageConfObjType, proto::kTagStorageCapacity, "capacity", Want::kNumber},
    {proto::kStorageConfObjType, proto::kTagStorageUsed, "used", Want::kNumber},
    {proto::kStorageConfObjType, proto::kTagStorageRetention, "retentionDays", Want::kNumber},
    {proto::kStorageConfObjType, proto::kTagStorageName, "name", Want::kText},
};

const char kHex[] = "0123456789abcdef";

bool isCountRequest(const CRequestMsg& request) {
  return !request.getResIDs().empty() &&
         strcasecmp(request.getResIDs().front().c_str(), "count") == 0;
}

const FieldRow* fieldRow(uint32_t objType, unsigned short tag) {
  for (const FieldRow& row : kFields) {
    if (row.objType == objType && row.tag == tag) return &row;
  }
  return nullptr;
}

bool isText(int type) { return type == CTLVCell::TLV_STRING; }

bool isNumber(int type) {
  return type == CTLVCell::TLV_UINT32 || type == CTLVCell::TLV_INT32 ||
         type == CTLVCell::TLV_UINT8 || type == CTLVCell::TLV_UINT16 ||
         type == CTLVCell::TLV_UINT64;
}

}  // namespace

Json::CharReader* newJsonReader() {
  // Built once: a builder is a tree of settings, dear to make per call. Its
  // newCharReader() only reads them, so threads share it.
  static const Json::CharReaderBuilder* const kBuilder = [] {
    auto* builder = new Json::CharReaderBuilder;
    (*builder)["collectComments"] = false;
    // Deeper JSON is refused (parse() throws) rather than followed down.
    (*builder)["stackLimit"] = kMaxJsonDepth;
    return builder;
  }();
  return kBuilder->newCharReader();
}

const char* fieldName(uint32_t objType, unsigned short tag) {
  const FieldRow* row = fieldRow(objType, tag);
  return row != nullptr ? row->name : nullptr;
}

Json::Value cellToJson(const CTLVCell& cell) {
  const unsigned char* bytes = cell.data();
  switch (cell.getType()) {
    case CTLVCell::TLV_UINT32:
    case CTLVCell::TLV_UINT8:
    case CTLVCell::TLV_UINT16:
    case CTLVCell::TLV_UINT64:
      return Json::Value(static_cast<Json::UInt64>(cell.toInt64()));
    case CTLVCell::TLV_INT32:
      return Json::Value(static_cast<Json::Int64>(cell.toInt64()));
    case CTLVCell::TLV_STRING: {
      if (bytes == nullptr || cell.getLength() == 0) return Json::Value("");
      // The length counts the terminating zero; stop at the first NUL anyway.
      const char* text = reinterpret_cast<const char*>(bytes);
      size_t n = 0;
      while (n < cell.getLength() && text[n] != '\0') ++n;
      return Json::Value(std::string(text, n));
    }
    case CTLVCell::TLV_JSON:
    case CTLVCell::TLV_JSON_ARRAY: {
      if (bytes == nullptr) return Json::Value(Json::nullValue);
      const char* text = reinterpret_cast<const char*>(bytes);
      std::unique_ptr<Json::CharReader> reader(newJsonReader());
      Json::Value parsed;
      try {
        if (reader->parse(text, text + cell.getLength(), &parsed, nullptr)) return parsed;
      } catch (const std::exception&) {
        // Nested too deeply: kept as text like any other text that is not JSON.
      }
      return Json::Value(text, text + cell.getLength());
    }
    case CTLVCell::TLV_BINARY: {
      std::string hex;
      if (bytes != nullptr) {
        hex.reserve(static_cast<size_t>(cell.getLength()) * 2);
        for (unsigned int i = 0; i < cell.getLength(); ++i) {
          hex.push_back(kHex[bytes[i] >> 4]);
          hex.push_back(kHex[bytes[i] & 0xF]);
        }
      }
      return Json::Value(hex);
    }
    default:
      return Json::Value(Json::nullValue);
  }
}

Json::Value recordToJson(const CR3MRecordV3& record, uint32_t objType) {
  Json::Value object(Json::objectValue);
  for (size_t i = 0; i < record.cellCount(); ++i) {
    const CTLVCell& cell = record.cellAt(i);
    const FieldRow* row = fieldRow(objType, cell.getTag());
    if (row != nullptr && ((row->want == Want::kText && !isText(cell.getType())) ||
                           (row->want == Want::kNumber && !isNumber(cell.getType())))) {
      CQPNDebugKitGuard guard(kTraceModule, "recordToJson");
      guard.warn(0, "recordToJson", __LINE__,
                 "reply cell %u (%s) of object 0x%X has type %d where %s belongs; left out",
                 static_cast<unsigned>(cell.getTag()), row->name, objType,
                 static_cast<int>(cell.getType()),
                 row->want == Want::kText ? "a text" : "a number");
      continue;
    }
    // The table's names live as long as the program: the member keeps a
    // pointer to the name instead of a copy of it.
    Json::Value& member = row != nullptr ? object[Json::StaticString(row->name)]
                                         : object["tag" + std::to_string(cell.getTag())];
    member = cellToJson(cell);
  }
  return object;
}

uint32_t replyObjectType(const CRequestMsg& request, const CResponseMsg& response) {
  if (request.getMoType() != 0) return request.getMoType();
  const uint32_t command = static_cast<uint32_t>(response.getCommandId() & 0xFFFFFFFFu);
  if ((command >> 16) != 0) return command >> 16;
  if (response.size() > 0) return response.recordAt(0).command() >> 16;
  return 0;
}

Json::Value genericReply(const CRequestMsg& request, const CResponseMsg& response) {
  const uint32_t objType = replyObjectType(request, response);
  Json::Value data;
  if (request.getMoType() != 0 && isCountRequest(request)) {
    Json::Value count(static_cast<Json::Int64>(0));
    if (response.size() > 0) {
      const CTLVCell* cell = response.recordAt(0).find(proto::kTagTotal);
      if (cell != nullptr) {
        try {
          const long long value = cell->toInt64();
          // An unsigned cell keeps its full value (a 64-bit count above the
          // signed range must not turn negative); a negative count is none.
          if (cell->getType() != CTLVCell::TLV_INT32) {
            count = Json::Value(static_cast<Json::UInt64>(value));
          } else if (value > 0) {
            count = Json::Value(static_cast<Json::Int64>(value));
          }
        } catch (const std::exception&) {
          // a textual count cell reads as no count
        }
      }
    }
    data["count"] = count;
  } else if (request.getMoType() != 0 && request.getResIDs().empty()) {
    data = Json::Value(Json::arrayValue);
    for (size_t i = 0; i < response.size(); ++i) {
      data.append(recordToJson(response.recordAt(i), objType));  // moved, not copied
    }
  } else if (response.size() > 0) {
    data = recordToJson(response.recordAt(0), objType);
  }
  Json::Value answer(Json::objectValue);
  answer["data"].swap(data);
  answer["error"]["code"] = 0;
  answer["error"]["description"] = "0";
  for (const auto& entry : response.getReplyTemplates()) answer[entry.first] = entry.second;
  return answer;
}

}  // namespace reply
