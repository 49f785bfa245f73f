// NOXTaskOp::doBuildTaskInfo: a task's progress entries become dated,
// translated text lines.
#include <json/json.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <sstream>
#include <string>

#include "NOXScopedLock.h"
#include "NOXTaskOp.h"
#include "host_functions.h"
#include "qpn_debug_kit.h"

namespace {

constexpr int kModule = 18;
constexpr unsigned short kTagTaskDetail = 0x58;

const char kParamSeparator[] = "#@#";
// Put after every line but the one of the last array element.
const char kLineSeparator[] = "\\n\n";
constexpr size_t kDateBufferSize = 64;

}  // namespace

int NOXTaskOp::doBuildTaskInfo(CR3MRecordV3& record, std::string& detail, bool isZh,
                               std::string& errorCode) {
  CQPNDebugKitGuard guard(kModule, "doBuildTaskInfo");
  guard.debug(0, "doBuildTaskInfo", __LINE__, "build taskextra begin");

  const char* json = record[kTagTaskDetail];
  guard.debug(0, "doBuildTaskInfo", __LINE__, "Get msg detail json str : %s, errorcode :%s ", json,
              errorCode.c_str());

  Json::Value root;
  std::unique_ptr<Json::CharReader> reader = newTaskJsonReader();
  if (!reader->parse(json, json + std::strlen(json), &root, nullptr)) {
    guard.error(0, "doBuildTaskInfo", __LINE__, "Failed to parse taskdetail json string.");
    detail.clear();
    return 0;
  }

  const std::string& dateFormat = isZh ? zhDateFormat_ : enDateFormat_;
  CXmlConfigParser<MessageInfo>& parser = isZh ? zhMessageParser_ : enMessageParser_;
  const std::string blank = " ";

  NOXScopedLock lock(mutex_);
  if (!lock.locked()) return -1;

  detail.clear();
  std::ostringstream out;
  const uint32_t count = root.size();
  // Indexing a jsoncpp array is a tree lookup; walking it with an iterator
  // keeps every step constant, so long details render in linear time. A root
  // that is no array is still indexed, and jsoncpp refuses that.
  Json::Value::const_iterator next = root.begin();
  for (uint32_t i = 0; i < count; ++i, ++next) {
    const Json::Value& entry = root.isArray() ? *next : root[i];
    const std::string identifier = entry["id"].asString();
    const Json::Value& params = entry["params"];
    const uint32_t paramCount = params.size();

    const long long seconds = strToLL(params[0u]["param"].asString());
    const time_t when = static_cast<time_t>(seconds);
    struct tm local;
    std::memset(&local, 0, sizeof(local));
    localtime_r(&when, &local);
    char date[kDateBufferSize];
    std::memset(date, 0, sizeof(date));
    std::strftime(date, sizeof(date), dateFormat.c_str(), &local);

    guard.debug(0, "doBuildTaskInfo", __LINE__, "detail %d params size: %d", i, paramCount);

    std::string parameters;
    for (uint32_t j = 1; j < paramCount; ++j) {
      std::string p = params[j]["param"].asString();
      if (j != paramCount - 1) p += kParamSeparator;
      parameters += p;
      guard.debug(0, "doBuildTaskInfo", __LINE__, "Get msg detail params : %s", parameters.c_str());
    }
    guard.debug(0, "doBuildTaskInfo", __LINE__, "Get msg detail params : %s", parameters.c_str());

    MessageInfo info;
    info.init();
    if (parser.getXmlInfo(identifier, parameters, info, kParamSeparator) != 0) {
      guard.warn(0, "doBuildTaskInfo", __LINE__, "Get XML Info error.");
    }
    std::string message = info.template_;
    guard.debug(0, "doBuildTaskInfo", __LINE__, "Get msg temp msg : %s", message.c_str());
    if (message.empty()) continue;

    if (errorCode == identifier) errorCode = message;
    // The separator follows the array position, not the lines written: when
    // the last entries have no text the output ends with a separator.
    if (i != count - 1) message += kLineSeparator;
    out << blank << date << blank << message;
  }
  detail = out.str();
  guard.debug(0, "doBuildTaskInfo", __LINE__, "ttask detail str : %s", detail.c_str());
  return 0;
}
