#include "reply_json.h"

#include <strings.h>

#include <exception>
#include <memory>
#include <string>

#include "backend_protocol.h"

namespace gw {

namespace {

struct FieldRow {
  uint32_t objType;
  unsigned short tag;
  const char* name;
};

// Field tables, one block per object type.
constexpr FieldRow kFields[] = {
    // Tasks.
    {proto::kTaskObjType, proto::kTagTaskId, "taskId"},
    {proto::kTaskObjType, proto::kTagTaskName, "name"},
    {proto::kTaskObjType, proto::kTagTaskType, "type"},
    {proto::kTaskObjType, proto::kTagTaskStatus, "status"},
    {proto::kTaskObjType, proto::kTagTaskProgress, "progress"},
    {proto::kTaskObjType, proto::kTagTaskStartTime, "startTime"},
    {proto::kTaskObjType, proto::kTagTaskEndTime, "endTime"},
    {proto::kTaskObjType, proto::kTagTaskResource, "resource"},
    {proto::kTaskObjType, proto::kTagTaskDetail, "detail"},
    {proto::kTaskObjType, proto::kTagTaskErrorInfo, "errorInfo"},
    // Database-backup storage configuration. Cell 9 holds the readable
    // result: "" on success, the sentence for the failure otherwise.
    {0x62, proto::kTagResultCode, "result"},
    {0x62, proto::kTagResultParams, "resultParams"},
    {0x62, proto::kTagStorageType, "storageType"},
    {0x62, proto::kTagStoragePath, "storagePath"},
    {0x62, proto::kTagStorageCapacity, "capacity"},
    {0x62, proto::kTagStorageUsed, "used"},
    {0x62, proto::kTagStorageRetention, "retentionDays"},
    {0x62, proto::kTagStorageName, "name"},
};

const char kHex[] = "0123456789abcdef";

bool isCountRequest(const CRequestMsg& request) {
  return !request.getResIDs().empty() &&
         strcasecmp(request.getResIDs().front().c_str(), "count") == 0;
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
  for (const FieldRow& row : kFields) {
    if (row.objType == objType && row.tag == tag) return row.name;
  }
  return nullptr;
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
    const char* name = fieldName(objType, cell.getTag());
    Json::Value& member = name != nullptr ? object[name] : object["tag" + std::to_string(cell.getTag())];
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
    long long count = 0;
    if (response.size() > 0) {
      const CTLVCell* cell = response.recordAt(0).find(proto::kTagTotal);
      if (cell != nullptr) {
        try {
          count = cell->toInt64();
        } catch (const std::exception&) {
          count = 0;  // a textual count cell reads as no count
        }
      }
    }
    data["count"] = Json::Value(static_cast<Json::Int64>(count));
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

}  // namespace gw
