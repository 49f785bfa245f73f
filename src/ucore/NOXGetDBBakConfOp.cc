// The database-backup storage configuration query.
#include "NOXGetDBBakConfOp.h"

#include <strings.h>

#include <string>

#include "NOXScopedLock.h"
#include "nox_constants.h"
#include "qpn_debug_kit.h"
#include "tlv_package.h"

namespace {

constexpr int kModule = 11;

// Host query fields: what the backend is asked and for which method.
constexpr uint32_t kQueryObjType = 0x62;
constexpr uint32_t kQueryOpCode = 0xDE;
constexpr uint32_t kQueryFlags = 0;

constexpr unsigned short kTagResultCode = 9;
constexpr unsigned short kTagResultParams = 10;

const char kParamSeparator[] = "#@#";
const char kSuccessCode[] = "0";
const char kUnknownErrorPrefix[] = "Unknow Error: ";
const char kLanguageArg[] = "LANGUAGE";
const char kChinese[] = "zh";

}  // namespace

NOXGetDBBakConfOp::NOXGetDBBakConfOp()
    : GeneralNonMoOp(kQueryObjType, kQueryOpCode, CRequestUri::URI_ACT_GET, kQueryFlags) {
  CQPNDebugKitGuard guard(kModule, "NOXGetDBBakConfOp");
  guard.debug(0, "NOXGetDBBakConfOp", __LINE__, "construct messageParser_");
  enMessageParser_.init(TASK_EXTRA_INFO_EN_PATH, ENUM_EN_PATH);
  zhMessageParser_.init(TASK_EXTRA_INFO_ZH_PATH, ENUM_ZH_PATH);
}

NOXGetDBBakConfOp::~NOXGetDBBakConfOp() {}

int NOXGetDBBakConfOp::op(const std::string& action, const std::string& resource,
                          CRequestMsg& request, CResponseMsg& response) {
  CQPNDebugKitGuard guard(kModule, "op");
  if (strcasecmp(action.c_str(), CRequestUri::URI_ACT_GET) != 0) {
    guard.error(0, "op", __LINE__, "url can not support.");
    return -1;
  }
  const int queried = GeneralNonMoOp::op(action, resource, request, response);
  if (queried != 0) {
    guard.error(0, "op", __LINE__, "get dbbak config failed.");
    return queried;
  }
  return get(request, response);
}

int NOXGetDBBakConfOp::get(CRequestMsg& request, CResponseMsg& response) {
  CQPNDebugKitGuard guard(kModule, "get");
  if (response.size() == 0) {
    guard.error(0, "get", __LINE__, "response message is empty.");
    return -1;
  }

  NOXScopedLock lock(mutex_);
  if (!lock.locked()) return -1;

  CR3MRecordV3& record = response[0];
  if (!record.has(kTagResultCode)) return 0;
  CTLVCell& codeCell = record[kTagResultCode];
  std::string code;
  try {
    code = codeCell.toString();
  } catch (...) {
    return 0;
  }

  if (code == kSuccessCode) {
    codeCell.set_i(CTLVCell::TLV_STRING, codeCell.getTag(), const_cast<char*>(""), 1);
    return 0;
  }

  // The query argument wins; without one (or an empty one) the session's
  // language decides.
  bool isZh = false;
  auto language = request.args().find(kLanguageArg);
  if (language == request.args().end() || language->second.value_.empty()) {
    isZh = request.getSessionInfo().isZh();
  } else {
    isZh = language->second.value_ == kChinese;
  }
  CXmlConfigParser<MessageInfo>& parser = isZh ? zhMessageParser_ : enMessageParser_;

  std::string params;
  if (record.has(kTagResultParams)) params = record[kTagResultParams].toString();

  MessageInfo info;
  info.init();
  std::string text;
  if (parser.getXmlInfo(code, params, info, kParamSeparator) != 0) {
    guard.warn(0, "get", __LINE__, "Get XML Info error.");
    text = kUnknownErrorPrefix + code;
  } else {
    text = info.template_;
  }
  codeCell.set_i(CTLVCell::TLV_STRING, codeCell.getTag(), const_cast<char*>(text.c_str()),
                 text.size() + 1);
  return 0;
}
