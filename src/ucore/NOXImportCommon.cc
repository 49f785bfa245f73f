#include "NOXImportCommon.h"

#include <sys/stat.h>
#include <time.h>

#include <cstring>

namespace nox_import {

namespace {

constexpr unsigned short kTagTarget = 0;
constexpr unsigned short kTagEventClass = 0;
constexpr unsigned short kTagEventKind = 1;
constexpr unsigned short kTagEventOutcome = 3;
constexpr uint32_t kEventClass = 2;
constexpr int kModeAttempts = 3;
constexpr mode_t kImportedFileMode = 0640;

// Appends a 32-bit integer cell (type 3), little-endian.
void appendUInt32(CR3MRecordV3& record, unsigned short tag, uint32_t value) {
  unsigned char bytes[4] = {
      static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
      static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
  CTLVCell* cell = new CTLVCell();
  cell->set_i(CTLVCell::TLV_UINT32, tag, bytes, sizeof(bytes));
  record.appendInner(cell);
}

// Appends a text cell (type 2) whose length counts the terminating zero byte;
// a null text is sent as an empty cell of length 0.
void appendText(CR3MRecordV3& record, unsigned short tag, const char* text) {
  CTLVCell* cell = new CTLVCell();
  const unsigned long length = text != nullptr ? std::strlen(text) + 1 : 0;
  cell->set_i(CTLVCell::TLV_STRING, tag, const_cast<char*>(text), length);
  record.appendInner(cell);
}

}  // namespace

void buildImportRequest(CR3MPackageV3& package, uint32_t command, const std::string* path) {
  CR3MRecordV3& record = package.addRecord(command, kHeaderWord);
  appendUInt32(record, kTagTarget, kImportTarget);
  if (path != nullptr) appendText(record, kTagPath, path->c_str());
}

void sendToBackend(CRequestMsg& request, CR3MPackageV3& package, CR3MPackageV3& reply,
                   int timeout) {
  CSessionInfo& session = request.getSessionInfo();
  const CDeviceID device = session.getDeviceID();
  const UserContext user = session.getUserContext();
  CTlvMsg::sendMessage(device, user, package, reply, request.getInterfaceVersion(), timeout,
                       CommunicationTarget::TARGET_BACKEND);
}

void sendImportEvent(CRequestMsg& request, uint32_t kind, bool success) {
  CR3MPackageV3 event;
  CR3MRecordV3& record = event.addRecord(kEventCommand, kHeaderWord);
  appendUInt32(record, kTagEventClass, kEventClass);
  appendUInt32(record, kTagEventKind, kind);
  appendUInt32(record, kTagEventOutcome, success ? 0 : 1);
  CR3MPackageV3 ignored;
  sendToBackend(request, event, ignored, kEventTimeout);
}

std::string pathFromReply(CR3MPackageV3& reply) {
  // The text accessor never yields null: a cell that is not text, or a text
  // cell without storage, throws QPNException, which goes to the host
  // unchanged; an inline value gives its (possibly empty) bytes.
  const char* path = reply[0][kTagPath];
  return std::string(path);
}

std::string uploadSuffix(const std::string& fileName) {
  const std::string::size_type dot = fileName.rfind('.');
  return dot == std::string::npos ? std::string() : fileName.substr(dot + 1);
}

bool isRefusedUpload(const CRequestMsgBody::UploadFileAddr& upload,
                     const std::set<std::string>& suffixes) {
  const std::string suffix = uploadSuffix(upload.fileName_);
  return upload.length_ == 0 || upload.content_ == nullptr || suffixes.empty() ||
         suffixes.count(suffix) == 0 || (!upload.fileName_.empty() && upload.fileName_[0] == '.');
}

void substituteZeroByte(CRequestMsgBody::UploadFileAddr& upload) {
  upload.content_ = "";
  upload.length_ = 1;
}

void narrowFileMode(const std::string& path, CQPNDebugKitGuard& guard, const char* warning) {
  for (int attempt = 0; attempt < kModeAttempts; ++attempt) {
    if (chmod(path.c_str(), kImportedFileMode) == 0) return;
    guard.warn(0, "ChangeCertPermission", __LINE__, "%s", warning);
    // A pause gives a briefly busy file system a chance before the next try;
    // it blocks this request's thread only.
    const struct timespec delay = {1, 0};
    nanosleep(&delay, nullptr);
  }
}

void answerAsText(CRequestMsg& request, CResponseMsg& response) {
  HttpRequest* connection = request.getSessionInfo().getHttpConnection();
  if (connection != nullptr) {
    connection->setResponseHeader("Content-Type", "text/plain; charset=utf-8");
  }
  response.setContentKind(CResponseMsg::kContentText);
}

void enterCertPathTemplate(CResponseMsg& response, Json::Value& data) {
  data["CERT"] = "certPath";
  response.getReplyTemplates()["data"] = data;
}

uint64_t commandIdentity(uint32_t command) {
  return (static_cast<uint64_t>(kHeaderWord) << 32) | command;
}

void writeSuccessBody(CResponseMsg& response, const Json::Value& data) {
  Json::Value error(Json::objectValue);
  error["code"] = 0;
  error["description"] = "0";
  Json::Value& body = response.getJsonBody();
  body["data"] = data;
  body["error"] = error;
}

}  // namespace nox_import
