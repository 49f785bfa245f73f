#include "NOXImportCrlOp.h"

#include <strings.h>

#include "NOXImportCommon.h"
#include "host_functions.h"
#include "qpn_debug_kit.h"
#include "qpn_exception.h"

namespace {

constexpr char kSource[] = "src/ucore/NOXImportCrlOp";
constexpr uint32_t kImportPathCommand = 0xE000006E;
constexpr uint32_t kSaveCommand = 0xE000006F;

bool isPost(const std::string& action) {
  return strcasecmp(action.c_str(), CRequestUri::URI_ACT_POST) == 0;
}

}  // namespace

bool NOXImportCrlOp::isSupport(const std::string& action, const std::string& resource,
                               SpecifyOpPrivData& privData) {
  (void)resource;
  // Unlike the certificate routes, the CRL route refuses other methods here
  // already.
  if (!isPost(action)) return false;
  privData.uploadMark_ = 1;
  return true;
}

int NOXImportCrlOp::op(const std::string& action, const std::string& resource, CRequestMsg& request,
                       CResponseMsg& response) {
  (void)resource;
  if (!isPost(action)) return -1;
  return importCrl(request, response);
}

int NOXImportCrlOp::importCrl(CRequestMsg& request, CResponseMsg& response) {
  CQPNDebugKitGuard guard(nox_import::kModule, "importCrl");
  nox_import::answerAsText(request, response);

  std::string path;
  GetCrlImportPath(request, response, path);
  if (path.empty()) {
    // No place to store the list: the host answers with what the response
    // holds; there was no upload attempt to record.
    guard.error(0, "importCrl", __LINE__, "Failed to get importPath.");
    return -1;
  }

  WriteCrlToTempPath(request, path, request.getSessionInfo());

  Json::Value data;
  SendMessageForSaveCrl(request, response, data, path);
  response.setCommandId(nox_import::commandIdentity(kSaveCommand));
  SendEvent(request, true);
  nox_import::writeSuccessBody(response, data);
  guard.info(0, "importCrl", __LINE__, "Succeed to upload the crl file.");
  return 0;
}

void NOXImportCrlOp::GetCrlImportPath(CRequestMsg& request, const CResponseMsg& response,
                                      std::string& path) {
  (void)response;
  CQPNDebugKitGuard guard(nox_import::kModule, "GetCrlImportPath");
  CR3MPackageV3 pathRequest;
  CR3MPackageV3 pathReply;
  nox_import::buildImportRequest(pathRequest, kImportPathCommand, nullptr);
  try {
    nox_import::sendToBackend(request, pathRequest, pathReply, CRequestUri::getCfgTimeout());
  } catch (...) {
    guard.error(0, "GetCrlImportPath", __LINE__, "Failed to sendMessage.");
    SendEvent(request, false);
    throw;
  }
  path = nox_import::pathFromReply(pathReply);
}

void NOXImportCrlOp::WriteCrlToTempPath(CRequestMsg& request, std::string& path,
                                        CSessionInfo& session) {
  CQPNDebugKitGuard guard(nox_import::kModule, "WriteCrlToTempPath");
  std::vector<CRequestMsgBody::UploadFileAddr> uploads;
  if (request.getBody().getUploadFileAddr(session, uploads) != 0) {
    guard.warn(0, "WriteCrlToTempPath", __LINE__, "getUploadFileAddr fail");
  }
  if (uploads.empty()) {
    guard.error(0, "WriteCrlToTempPath", __LINE__, "Failed to upload crl file, empty content.");
    SendEvent(request, false);
    throw QPNExceptionWithErrCode_(nox_import::kErrNoUpload, kSource, __LINE__, false, nullptr);
  }

  // Only the first upload is imported.
  const std::set<std::string> suffixes = {"pem", "crl"};
  if (!CheckUploadCrl(uploads.begin(), suffixes)) {
    // CheckUploadCrl has logged the size; false means nothing else.
    SendEvent(request, false);
    throw QPNExceptionWithErrCode_(nox_import::kErrUploadTooLarge, kSource, __LINE__, false,
                                   nullptr);
  }

  const CRequestMsgBody::UploadFileAddr& upload = uploads.front();
  if (writeFile(path.c_str(), upload.content_, upload.length_) < 0) {
    guard.error(0, "WriteCrlToTempPath", __LINE__,
                "Failed to upload crl file, illegal uploading arguments.");
    SendEvent(request, false);
    throw QPNExceptionWithErrCode_(nox_import::kErrWriteFailed, kSource, __LINE__, false, nullptr);
  }
  ChangeCertPermission(path);
}

bool NOXImportCrlOp::CheckUploadCrl(std::vector<CRequestMsgBody::UploadFileAddr>::iterator upload,
                                    const std::set<std::string>& suffixes) {
  CQPNDebugKitGuard guard(nox_import::kModule, "CheckUploadCrl");
  if (nox_import::isRefusedUpload(*upload, suffixes)) {
    // Not fatal: the refused upload is written as one zero byte and the
    // backend's save decides its fate.
    guard.error(0, "CheckUploadCrl", __LINE__, "Crl file is null or suffix error.");
    nox_import::substituteZeroByte(*upload);
    return true;
  }
  if (upload->length_ > nox_import::kMaxUploadBytes) {
    guard.error(0, "CheckUploadCrl", __LINE__,
                "Failed to upload crl file, file size exceed the maximal value.");
    return false;
  }
  return true;
}

void NOXImportCrlOp::SendMessageForSaveCrl(CRequestMsg& request, CResponseMsg& response,
                                           Json::Value& data, std::string& path) {
  CQPNDebugKitGuard guard(nox_import::kModule, "SendMessageForSaveCrl");
  CR3MPackageV3 save;
  nox_import::buildImportRequest(save, kSaveCommand, &path);
  nox_import::enterCertPathTemplate(response, data);
  try {
    nox_import::sendToBackend(request, save, response, CRequestUri::getCfgTimeout());
  } catch (...) {
    // Every refusal is a failure here: a CRL has no "not safe" verdict.
    guard.error(0, "SendMessageForSaveCrl", __LINE__, "Failed to sendMessage.");
    SendEvent(request, false);
    throw;
  }
}

void NOXImportCrlOp::SendEvent(CRequestMsg& request, bool success) {
  CQPNDebugKitGuard guard(nox_import::kModule, "SendEvent");
  try {
    nox_import::sendImportEvent(request, nox_import::kEventKindCrl, success);
  } catch (...) {
    // The event is a record of the import, not part of it: its loss never
    // changes the import's outcome.
    guard.warn(0, "SendEvent", __LINE__, "Failed to send import crl event log.");
  }
}

void NOXImportCrlOp::ChangeCertPermission(const std::string& path) {
  CQPNDebugKitGuard guard(nox_import::kModule, "ChangeCertPermission");
  nox_import::narrowFileMode(path, guard, "Chmod crl file permission failed.");
}
