// The task route: list, count and detail reads of backup tasks.
#include "NOXTaskOp.h"

#include <json/json.h>
#include <strings.h>

#include <map>
#include <memory>
#include <string>

#include "nox_constants.h"
#include "qpn_debug_kit.h"

namespace {

constexpr int kOpModule = 11;
constexpr int kDetailModule = 18;

constexpr unsigned short kTagTaskDetail = 0x58;
constexpr unsigned short kTagErrorInfo = 0x62;

// Host query fields of the list and the detail read.
constexpr uint32_t kListOpCode = 0xC000;
constexpr uint32_t kDetailOpCode = 0;
constexpr uint32_t kQueryWord = 0xD;

const char kLanguageArg[] = "LANGUAGE";
const char kChinese[] = "zh";
const char kDescriptionOpener[] = ",\"description\":\"";
const char kDescriptionCloser[] = "\"}";

// Writes `text` into `cell` as a text value, its terminating zero counted.
void setText(CTLVCell& cell, const std::string& text) {
  cell.set_i(CTLVCell::TLV_STRING, cell.getTag(), const_cast<char*>(text.c_str()), text.size() + 1);
}

}  // namespace

std::unique_ptr<Json::CharReader> newTaskJsonReader() {
  // newCharReader() only reads the settings, so request threads share them.
  static const Json::CharReaderBuilder* const kBuilder = new Json::CharReaderBuilder;
  return std::unique_ptr<Json::CharReader>(kBuilder->newCharReader());
}

NOXTaskOp::NOXTaskOp(unsigned int objType)
    : CMoSpecOp(objType), zhDateFormat_("%Y-%m-%d %H:%M:%S"), enDateFormat_("%m/%d/%Y %H:%M:%S") {
  CQPNDebugKitGuard guard(kOpModule, "NOXTaskOp");
  guard.debug(0, "NOXTaskOp", __LINE__, "construct messageParser_");
  enMessageParser_.init(TASK_EXTRA_INFO_EN_PATH, ENUM_EN_PATH);
  zhMessageParser_.init(TASK_EXTRA_INFO_ZH_PATH, ENUM_ZH_PATH);
}

NOXTaskOp::~NOXTaskOp() {}

bool NOXTaskOp::isSupport(const std::string& action, const std::string& resource,
                          SpecifyOpPrivData& privData) {
  (void)resource;
  (void)privData;
  return strcasecmp(action.c_str(), CRequestUri::URI_ACT_GET) == 0;
}

int NOXTaskOp::get(CRequestMsg& request, CResponseMsg& response) {
  CQPNDebugKitGuard guard(kOpModule, "get");
  const std::string text = "get task info" + request.firstResID();
  // The identifier comes from the URL: it is logged as text, never used as a
  // format.
  guard.debug(0, "get", __LINE__, "%s", text.c_str());

  std::map<std::string, MsgValue> args;
  request.getAllArgs(args);

  const std::vector<std::string>& ids = request.getResIDs();
  if (!ids.empty()) {
    if (strcasecmp(ids.front().c_str(), "count") == 0) return CMoSpecOp::get(request, response);
    return getDetail(request, response);
  }

  CGetBatchByFilterOp query(kListOpCode, kQueryWord, objType_, args);
  const int result = query.exec(request, response);
  // The list never carries task details, whatever the query answered: they
  // are only given by the detail read.
  for (size_t i = 0; i < response.size(); ++i) {
    CR3MRecordV3& record = response[i];
    if (!record.has(kTagTaskDetail)) continue;
    CTLVCell& cell = record[kTagTaskDetail];
    try {
      cell.toString();
      setText(cell, std::string());
    } catch (...) {
      // A detail that cannot be read stays as it is.
    }
  }
  return result;
}

int NOXTaskOp::getDetail(CRequestMsg& request, CResponseMsg& response) {
  CQPNDebugKitGuard guard(kDetailModule, "getDetail");
  std::map<std::string, MsgValue> args;
  request.getAllArgs(args);

  CGetByIDFilterOp query(kDetailOpCode, kQueryWord, objType_, request.firstResID(), args);
  const int queried = query.exec(request, response);
  if (queried != 0) return queried;

  CR3MRecordV3& record = response[0];
  if (!record.has(kTagTaskDetail)) return 0;
  std::string detail;
  try {
    detail = record[kTagTaskDetail].toString();
  } catch (...) {
    return 0;
  }

  Json::Value root;
  std::unique_ptr<Json::CharReader> reader = newTaskJsonReader();

  std::string errorInfo;
  const bool hasErrorInfo = record.has(kTagErrorInfo);
  if (hasErrorInfo) {
    try {
      errorInfo = record[kTagErrorInfo].toString();
    } catch (...) {
      errorInfo.clear();
    }
  }

  std::string errorCode;
  if (hasErrorInfo) {
    if (reader->parse(errorInfo.data(), errorInfo.data() + errorInfo.size(), &root, nullptr)) {
      if (root.isObject() && root.isMember("code")) errorCode = root["code"].asString();
    } else {
      guard.error(0, "getDetail", __LINE__, "Failed to parse errorInfo json string.");
    }
  }

  bool isZh = false;
  auto language = args.find(kLanguageArg);
  if (language == args.end() || language->second.value_.empty()) {
    isZh = request.getSessionInfo().isZh();
  } else {
    isZh = language->second.value_ == kChinese;
  }

  const int built = doBuildTaskInfo(record, detail, isZh, errorCode);
  if (built != 0) guard.warn(0, "getDetail", __LINE__, "Failed to build task info.");

  setText(record[kTagTaskDetail], detail);

  // Plain text surgery, without JSON escaping of the inserted text: a text
  // holding a quote or a backslash, or an object without members, gives
  // invalid JSON, and then the error information stays as the backend sent it.
  if (!errorInfo.empty()) errorInfo.pop_back();
  errorInfo += kDescriptionOpener;
  errorInfo += errorCode;
  errorInfo += kDescriptionCloser;
  guard.debug(0, "getDetail", __LINE__, "errorcode is: %s", errorInfo.c_str());

  if (!reader->parse(errorInfo.data(), errorInfo.data() + errorInfo.size(), &root, nullptr)) {
    guard.error(0, "getDetail", __LINE__, "Failed to parse new errorInfo json from string.");
  } else {
    Json::FastWriter writer;
    writer.omitEndingLineFeed();
    std::string out = writer.write(root);
    CTLVCell& cell = record[kTagErrorInfo];
    cell.set_i(root.isArray() ? CTLVCell::TLV_JSON_ARRAY : CTLVCell::TLV_JSON, cell.getTag(),
               const_cast<char*>(out.data()), out.size());
  }
  return built;
}
