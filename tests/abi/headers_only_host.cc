// The headers-only host: every host member the plug-in may import, written
// from the declarations in include/ with stub behaviour (see
// headers_only_host.h). Nothing here comes from host/.
#include "headers_only_host.h"

#include <json/json.h>
#include <strings.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>

#include "host_functions.h"
#include "login_op.h"
#include "operation_base.h"
#include "qpn_debug_kit.h"
#include "request_msg.h"
#include "tlv_package.h"

namespace stub_host {

std::vector<std::string>& calls() {
  static std::vector<std::string> v;
  return v;
}
std::vector<std::string>& traces() {
  static std::vector<std::string> v;
  return v;
}
std::vector<std::string>& logs() {
  static std::vector<std::string> v;
  return v;
}
std::vector<uint32_t>& sent() {
  static std::vector<uint32_t> v;
  return v;
}
std::set<std::string>& refuse() {
  static std::set<std::string> v;
  return v;
}
std::string& uploadFolder() {
  static std::string folder = "/tmp";
  return folder;
}
void reset() {
  calls().clear();
  traces().clear();
  logs().clear();
  sent().clear();
  refuse().clear();
}

}  // namespace stub_host

namespace {

using stub_host::calls;

// Backend commands the stub backend answers.
constexpr uint32_t kCertPath = 0xE0000052;
constexpr uint32_t kCrlPath = 0xE000006E;
constexpr unsigned short kTagPath = 70;
constexpr uint32_t kWord = 13;
// A task whose progress entry and error code are in the shipped catalogue.
const char kTaskDetail[] =
    R"([{"id":"1600000002","params":[{"param":"86400"},{"param":"client-7"}]}])";
const char kTaskError[] = R"({"code":"1600000002","retry":"no"})";

void setText(CTLVCell& cell, unsigned short tag, const std::string& text) {
  cell.set_i(CTLVCell::TLV_STRING, tag, const_cast<char*>(text.c_str()), text.size() + 1);
}

void setUInt32(CTLVCell& cell, unsigned short tag, uint32_t value) {
  unsigned char bytes[4] = {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
                            static_cast<unsigned char>(value >> 16),
                            static_cast<unsigned char>(value >> 24)};
  cell.set_i(CTLVCell::TLV_UINT32, tag, bytes, sizeof(bytes));
}

void record(const char* level, const char* format, va_list args) {
  char text[1024];
  std::vsnprintf(text, sizeof(text), format, args);
  stub_host::logs().push_back(std::string(level) + " " + text);
}

}  // namespace

// ---------------------------------------------------------------------------
// Tracing

CQPNDebugKit::CQPNDebugKit(int moduleId) : moduleId_(moduleId) {}
CQPNDebugKit::~CQPNDebugKit() {}
void CQPNDebugKit::trace(const std::string& text) { stub_host::traces().push_back(text); }
void CQPNDebugKit::info(unsigned long long, const char*, unsigned int, const char* format,
                        va_list args) {
  record("info", format, args);
}
void CQPNDebugKit::warn(unsigned long long, const char*, unsigned int, const char* format,
                        va_list args) {
  record("warn", format, args);
}
void CQPNDebugKit::error(unsigned long long, const char*, unsigned int, const char* format,
                         va_list args) {
  record("error", format, args);
}
void CQPNDebugKit::debug(unsigned long long, const char*, unsigned int, const char* format,
                         va_list args) {
  record("debug", format, args);
}
void CQPNDebugKit::warn(const std::string& text) { stub_host::logs().push_back("warn " + text); }
void CQPNDebugKit::error(const std::string& text) { stub_host::logs().push_back("error " + text); }

CQPNDebugKitMgr* CQPNDebugKitMgr::instance() {
  static CQPNDebugKitMgr manager;
  return &manager;
}
CQPNDebugKit* CQPNDebugKitMgr::find(int moduleId) {
  static std::map<int, std::unique_ptr<CQPNDebugKit>> kits;
  std::unique_ptr<CQPNDebugKit>& kit = kits[moduleId];
  if (!kit) kit.reset(new CQPNDebugKit(moduleId));
  return kit.get();
}

// ---------------------------------------------------------------------------
// TLV packages

CTLVCell::~CTLVCell() { value_.clear(); }

void CTLVCell::set_i(ETLVType type, unsigned short tag, void* data, unsigned long length) {
  value_.clear();
  typeTag_ = static_cast<uint16_t>(((tag & 0x0FFF) << 4) | (type & 0xF));
  length_ = static_cast<uint32_t>(length);
  unsigned char* target = value_.bytes_;
  if (length > sizeof(value_.bytes_)) {
    value_.heap_ = 1;
    value_.ptr_ = new unsigned char[length + 1]();
    target = value_.ptr_;
  }
  if (data != nullptr) std::memcpy(target, data, length);
}

std::string CTLVCell::toString() const {
  switch (getType()) {
    case TLV_STRING:
      return static_cast<const char*>(*this);
    case TLV_JSON:
    case TLV_JSON_ARRAY:
      return std::string(reinterpret_cast<const char*>(data()), length_);
    default:
      return std::to_string(static_cast<int>(*this));
  }
}

CR3MRecordV3::~CR3MRecordV3() {
  for (CTLVCell* cell : cells_) delete cell;
}

CTLVCell& CR3MRecordV3::operator[](unsigned short tag) {
  if (CTLVCell* cell = find(tag)) return *cell;
  cells_.push_back(new CTLVCell());
  cells_.back()->typeTag_ = static_cast<uint16_t>((tag & 0x0FFF) << 4);
  return *cells_.back();
}

void CR3MRecordV3::appendInner(CTLVCell* cell) {
  for (CTLVCell*& existing : cells_) {
    if (existing->getTag() == cell->getTag()) {
      delete existing;
      existing = cell;
      return;
    }
  }
  cells_.push_back(cell);
}

void CR3MPackageV3::clear() {
  for (CR3MRecordV3* record : records_) delete record;
  records_.clear();
}

// The stub backend: the import paths name a file in uploadFolder(); every
// other command succeeds with an empty record.
int CTlvMsg::sendMessage(const CDeviceID&, const UserContext&, CR3MPackageV3& request,
                         CR3MPackageV3& reply, std::string, int,
                         CommunicationTarget::TargetType) {
  const uint32_t command = request[0].command();
  stub_host::sent().push_back(command);
  CR3MRecordV3& answer = reply.addRecord(command, kWord);
  if (command == kCertPath || command == kCrlPath) {
    setText(answer[kTagPath], kTagPath,
            stub_host::uploadFolder() + (command == kCertPath ? "/ca.pem" : "/list.crl"));
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Requests, sessions, registry

const char* const CRequestUri::URI_ACT_GET = "GET";
const char* const CRequestUri::URI_ACT_POST = "POST";
const char* const CRequestUri::URI_ACT_PUT = "PUT";
const char* const CRequestUri::URI_ACT_DELETE = "DELETE";
const std::string CRequestUri::m_nullResID;
int CRequestUri::getCfgTimeout() { return 30; }

const char* const CSessionInfo::SESS_STAT_K = "state";

void HttpRequest::setResponseHeader(const std::string& name, const std::string& value) {
  responseHeaders_.emplace_back(name, value);
}

void HttpSession::setAttribute(const std::string& name, const Json::Value& value) {
  calls().push_back("setAttribute " + name + " " + value.toStyledString().substr(0, 1));
  attributes_[name] = value;
}

void CRequestMsgBody::addUpload(const std::string& fileName, std::string content) {
  uploads_.emplace_back(fileName, std::move(content));
}

int CRequestMsgBody::getUploadFileAddr(CSessionInfo&, std::vector<UploadFileAddr>& files) {
  for (const auto& upload : uploads_) {
    UploadFileAddr file;
    file.fileName_ = upload.first;
    file.content_ = upload.second.data();
    file.length_ = static_cast<unsigned int>(upload.second.size());
    files.push_back(file);
  }
  return 0;
}

void CRequestMsgBody::toMap(std::map<std::string, MsgValue>& args) const {
  for (const std::string& name : json_.getMemberNames()) {
    if (json_[name].isString()) args.emplace(name, MsgValue(json_[name].asString(), 1));
  }
}

CSpecifyProc::~CSpecifyProc() { releaseAll(); }
int CSpecifyProc::regReqProc(const std::string& url, CSpecifyOp* op, bool flag) {
  return add(url, "", op, flag);
}
int CSpecifyProc::regReqProcV1(const std::string& url, CSpecifyOp* op, bool flag) {
  return add(url, "v1", op, flag);
}
int CSpecifyProc::add(const std::string& url, const std::string& version, CSpecifyOp* op,
                      bool flag) {
  if (stub_host::refuse().count(url) != 0) {
    op->release();
    return -1;
  }
  routes_.push_back(Route{url, version, op, flag});
  return 0;
}
void CSpecifyProc::releaseAll() {
  for (Route& route : routes_) route.op->release();
  routes_.clear();
}

// ---------------------------------------------------------------------------
// Generic dispatch and queries

int CRestSepcOp::op(const std::string& action, const std::string&, CRequestMsg& request,
                    CResponseMsg& response) {
  calls().push_back("CRestSepcOp::op " + action);
  if (strcasecmp(action.c_str(), CRequestUri::URI_ACT_GET) == 0) return get(request, response);
  return -1;
}
int CRestSepcOp::get(CRequestMsg&, CResponseMsg&) { return -1; }
int CRestSepcOp::post(CRequestMsg&, CResponseMsg&) { return -1; }
int CRestSepcOp::put(CRequestMsg&, CResponseMsg&) { return -1; }
int CRestSepcOp::del(CRequestMsg&, CResponseMsg&) { return -1; }

int CMoSpecOp::get(CRequestMsg& request, CResponseMsg& response) {
  calls().push_back("CMoSpecOp::get " + request.firstResID());
  setUInt32(response.addRecord(0, kWord)[9], 9, 3);
  return 0;
}
int CMoSpecOp::post(CRequestMsg&, CResponseMsg&) { return -1; }
int CMoSpecOp::put(CRequestMsg&, CResponseMsg&) { return -1; }
int CMoSpecOp::del(CRequestMsg&, CResponseMsg&) { return -1; }

bool GeneralNonMoOp::isSupport(const std::string& action, const std::string&,
                               SpecifyOpPrivData&) {
  return strcasecmp(action.c_str(), method_.c_str()) == 0;
}
int GeneralNonMoOp::op(const std::string&, const std::string&, CRequestMsg&,
                       CResponseMsg& response) {
  char line[64];
  std::snprintf(line, sizeof(line), "GeneralNonMoOp::op 0x%" PRIX32 " 0x%" PRIX32, objType_,
                opCode_);
  calls().push_back(line);
  setText(response.addRecord(0, kWord)[9], 9, "0");
  return 0;
}
int GeneralNonMoOp::get(CRequestMsg&, CResponseMsg&) { return 0; }

int CGetBatchOp::exec(CRequestMsg&, CResponseMsg&) { return -1; }
int CGetBatchByFilterOp::exec(CRequestMsg&, CResponseMsg& response) {
  calls().push_back("CGetBatchByFilterOp::exec");
  for (int i = 0; i < 2; ++i) setText(response.addRecord(0, kWord)[0x58], 0x58, kTaskDetail);
  return 0;
}
int CGetByIDOp::exec(CRequestMsg&, CResponseMsg&) { return -1; }
int CGetByIDFilterOp::exec(CRequestMsg&, CResponseMsg& response) {
  calls().push_back("CGetByIDFilterOp::exec " + id_);
  CR3MRecordV3& task = response.addRecord(0, kWord);
  setText(task[0x58], 0x58, kTaskDetail);
  const std::string error = kTaskError;
  task[0x62].set_i(CTLVCell::TLV_JSON, 0x62, const_cast<char*>(error.data()), error.size());
  return 0;
}

int queryAlarm(unsigned long long command, CRequestMsg&, CResponseMsg& response, bool history) {
  char line[64];
  std::snprintf(line, sizeof(line), "queryAlarm 0x%llx %s", command, history ? "true" : "false");
  calls().push_back(line);
  if (!history) setUInt32(response.addRecord(0, kWord)[9], 9, 7);
  return 0;
}

int parseAlarms(CRequestMsg&, CResponseMsg& response, bool history) {
  calls().push_back(std::string("parseAlarms ") + (history ? "true" : "false"));
  response.getJsonBody()["data"]["total"] = 0;
  return 0;
}

int CHistoryAlarmOp::op(const std::string&, const std::string&, CRequestMsg&, CResponseMsg&) {
  return -1;
}
int CHistoryAlarmCountOp::op(const std::string&, const std::string&, CRequestMsg&,
                             CResponseMsg&) {
  return -1;
}

int writeFile(const char* path, const char* data, unsigned int length) {
  calls().push_back(std::string("writeFile ") + path);
  FILE* f = std::fopen(path, "wb");
  if (f == nullptr) return -1;
  const size_t written = std::fwrite(data, 1, length, f);
  std::fclose(f);
  return written == length ? static_cast<int>(length) : -1;
}

long long strToLL(std::string text) { return std::strtoll(text.c_str(), nullptr, 10); }

// ---------------------------------------------------------------------------
// Login

int RedirectInfoMgr::addSessionInfo(const std::string& key, int kind) {
  calls().push_back("addSessionInfo " + key + " " + std::to_string(kind));
  return 0;
}

CLoginOp::CLoginOp() {}
CLoginOp::~CLoginOp() {}

// POST logs in through the route's eight-argument slot with the body's
// members, then labels the session; DELETE logs out; GET gives a token.
int CLoginOp::op(const std::string& action, const std::string&, CRequestMsg& request,
                 CResponseMsg& response) {
  if (strcasecmp(action.c_str(), CRequestUri::URI_ACT_POST) == 0) return handleLogin(request, response);
  if (strcasecmp(action.c_str(), CRequestUri::URI_ACT_DELETE) == 0) {
    return handleLogout(request, response);
  }
  if (strcasecmp(action.c_str(), CRequestUri::URI_ACT_GET) == 0) {
    return handleGetLoginToken(request, response);
  }
  return -1;
}
void CLoginOp::updateSessionFile(const std::string&, HttpSession&, CR3MPackageV3&) {}
int CLoginOp::postCheckDevice(HttpRequest&, CDeviceID&, UserContext&) { return 0; }
int CLoginOp::checkVerifyCode(HttpSession&, CRequestMsg&) { return 0; }
int CLoginOp::handleLogin(CRequestMsg& request, CResponseMsg&) {
  calls().push_back("handleLogin");
  const Json::Value& body = request.getBody().json();
  HttpSession session("s1");
  if (checkVerifyCode(session, request) != 0) return -1;
  CR3MPackageV3 reply;
  const int result = login(body["username"].asString(), body["password"].asString(),
                           body["scope"].asString(), "en", request.getSessionInfo().getDeviceID(),
                           reply, "127.0.0.1", "password");
  if (result == 0) updateSessionFile("prefix/", session, reply);
  return result;
}
int CLoginOp::handleLogout(CRequestMsg&, CResponseMsg&) {
  calls().push_back("handleLogout");
  return 0;
}
int CLoginOp::handleGetLoginToken(CRequestMsg&, CResponseMsg&) {
  calls().push_back("handleGetLoginToken");
  return 0;
}
int CLoginOp::handleCheckCode(CRequestMsg&, CResponseMsg&) {
  calls().push_back("handleCheckCode");
  return 0;
}
int CLoginOp::login(const std::string& userName, const std::string& password,
                    const std::string& scope, const std::string& language, CDeviceID&,
                    CR3MPackageV3& reply, const std::string& clientAddress,
                    const std::string& loginType, const std::string& verifyCode) {
  calls().push_back("login9 " + userName + " " + password + " " + scope + " " + language + " " +
                    clientAddress + " '" + loginType + "' '" + verifyCode + "'");
  setUInt32(reply.addRecord(0, kWord)[64], 64, 3);
  return 0;
}
int CLoginOp::login(const std::string& userName, const std::string& password,
                    const std::string& scope, const std::string& language, CDeviceID& device,
                    CR3MPackageV3& reply, const std::string& clientAddress,
                    const std::string& loginType) {
  return login(userName, password, scope, language, device, reply, clientAddress, loginType, "");
}

CLoginOpWithVerifyCode::CLoginOpWithVerifyCode() {}
CLoginOpWithVerifyCode::~CLoginOpWithVerifyCode() {}
bool CLoginOpWithVerifyCode::isSupport(const std::string& action, const std::string&,
                                       SpecifyOpPrivData&) {
  return strcasecmp(action.c_str(), "PUT") != 0;
}
int CLoginOpWithVerifyCode::checkVerifyCode(HttpSession&, CRequestMsg&) {
  calls().push_back("checkVerifyCode");
  return 0;
}
