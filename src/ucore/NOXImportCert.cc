#include "NOXImportCert.h"

#include <strings.h>

#include <set>
#include <vector>

#include "NOXImportCommon.h"
#include "host_functions.h"
#include "qpn_debug_kit.h"
#include "qpn_exception.h"

namespace {

constexpr char kSource[] = "src/ucore/NOXImportCert";
constexpr uint32_t kTempPathCommand = 0xE0000052;
constexpr uint32_t kCheckCommand = 0xE0000049;
// The check's verdict that the certificate is not safe.
constexpr long long kErrCertNotSafe = 0x60E01D0A;

bool isPost(const std::string& action) {
  return strcasecmp(action.c_str(), CRequestUri::URI_ACT_POST) == 0;
}

}  // namespace

bool NOXImportCertOp::isSupport(const std::string& action, const std::string& resource,
                                SpecifyOpPrivData& privData) {
  (void)resource;
  if (isPost(action)) privData.uploadMark_ = 1;
  // Every method is taken here; op refuses all but POST.
  return true;
}

int NOXImportCertOp::op(const std::string& action, const std::string& resource,
                        CRequestMsg& request, CResponseMsg& response) {
  (void)resource;
  if (!isPost(action)) return -1;
  return importCert(request, response);
}

int NOXImportCertOp::importCert(CRequestMsg& request, CResponseMsg& response) {
  CQPNDebugKitGuard guard(nox_import::kModule, "importCert");
  nox_import::answerAsText(request, response);

  // The certificate's own path request is made here; the CRL import has a
  // function of its own for it.
  CR3MPackageV3 pathRequest;
  CR3MPackageV3 pathReply;
  nox_import::buildImportRequest(pathRequest, kTempPathCommand, nullptr);
  try {
    nox_import::sendToBackend(request, pathRequest, pathReply, CRequestUri::getCfgTimeout());
  } catch (...) {
    guard.error(0, "importCert", __LINE__, "Failed to sendMessage.");
    SendEvent(request, false);
    throw;
  }
  // A reply without the path ends the request here, with no event.
  std::string path = nox_import::pathFromReply(pathReply);

  WriteCertToTempPath(request, path, request.getSessionInfo());

  Json::Value data;
  SendMessageForCheckCert(request, response, data, path);
  response.setCommandId(nox_import::commandIdentity(kCheckCommand));
  SendEvent(request, true);
  nox_import::writeSuccessBody(response, data);
  guard.info(0, "importCert", __LINE__, "Succeed to upload the certificate file.");
  return 0;
}

void NOXImportCertOp::WriteCertToTempPath(CRequestMsg& request, std::string& path,
                                          CSessionInfo& session) {
  CQPNDebugKitGuard guard(nox_import::kModule, "WriteCertToTempPath");
  std::vector<CRequestMsgBody::UploadFileAddr> uploads;
  if (request.getBody().getUploadFileAddr(session, uploads) != 0) {
    guard.warn(0, "WriteCertToTempPath", __LINE__, "getUploadFileAddr fail");
  }
  if (uploads.empty()) {
    guard.error(0, "WriteCertToTempPath", __LINE__,
                "Failed to upload certificate file, empty content.");
    SendEvent(request, false);
    throw QPNExceptionWithErrCode_(nox_import::kErrNoUpload, kSource, __LINE__, false, nullptr);
  }

  // Only the first upload is imported.
  CRequestMsgBody::UploadFileAddr& upload = uploads.front();
  const std::set<std::string> suffixes = {"pem", "der", "crt", "cer"};
  if (nox_import::isRefusedUpload(upload, suffixes)) {
    // Not fatal: the refused upload is written as one zero byte and the
    // backend's check decides its fate.
    guard.error(0, "WriteCertToTempPath", __LINE__, "Certificate file is null or suffix error.");
    nox_import::substituteZeroByte(upload);
  } else if (upload.length_ > nox_import::kMaxUploadBytes) {
    guard.error(0, "WriteCertToTempPath", __LINE__,
                "Failed to upload certificate file, file size exceed the maximal value.");
    SendEvent(request, false);
    throw QPNExceptionWithErrCode_(nox_import::kErrUploadTooLarge, kSource, __LINE__, false,
                                   nullptr);
  }

  if (writeFile(path.c_str(), upload.content_, upload.length_) < 0) {
    guard.error(0, "WriteCertToTempPath", __LINE__,
                "Failed to upload certificate file, illegal uploading arguments.");
    SendEvent(request, false);
    throw QPNExceptionWithErrCode_(nox_import::kErrWriteFailed, kSource, __LINE__, false, nullptr);
  }
  ChangeCertPermission(path);
}

void NOXImportCertOp::SendMessageForCheckCert(CRequestMsg& request, CResponseMsg& response,
                                              Json::Value& data, std::string& path) {
  CQPNDebugKitGuard guard(nox_import::kModule, "SendMessageForCheckCert");
  CR3MPackageV3 check;
  nox_import::buildImportRequest(check, kCheckCommand, &path);
  nox_import::enterCertPathTemplate(response, data);
  try {
    nox_import::sendToBackend(request, check, response, CRequestUri::getCfgTimeout());
  } catch (const QPNExceptionWithErrCode_& e) {
    if (e.getErrCode() == kErrCertNotSafe) {
      // The verdict is recorded as a successful import event although the
      // import fails: the upload itself went through, the certificate is
      // what was refused.
      guard.warn(0, "SendMessageForCheckCert", __LINE__, "Cert is not safe.");
      SendEvent(request, true);
    } else {
      guard.error(0, "SendMessageForCheckCert", __LINE__, "Failed to sendMessage.");
      SendEvent(request, false);
    }
    throw;
  } catch (...) {
    guard.error(0, "SendMessageForCheckCert", __LINE__, "Failed to sendMessage.");
    SendEvent(request, false);
    throw;
  }
}

void NOXImportCertOp::SendEvent(CRequestMsg& request, bool success) {
  CQPNDebugKitGuard guard(nox_import::kModule, "SendEvent");
  try {
    nox_import::sendImportEvent(request, nox_import::kEventKindCert, success);
  } catch (...) {
    // The event is a record of the import, not part of it: its loss never
    // changes the import's outcome.
    guard.warn(0, "SendEvent", __LINE__, "Failed to send import cert event log.");
  }
}

// The certificate import takes the path by value (the CRL import by
// reference); the signature is part of the operation's interface.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void NOXImportCertOp::ChangeCertPermission(std::string path) {
  CQPNDebugKitGuard guard(nox_import::kModule, "ChangeCertPermission");
  nox_import::narrowFileMode(path, guard, "Chmod cert filepermission failed.");
}
