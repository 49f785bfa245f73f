// NOXImportCertOp: imports a CA certificate uploaded by HTTP POST.
//
// The backend names a temporary path (command 0xE0000052); the first uploaded
// file is written there with mode 0640, the backend checks it (0xE0000049),
// an import event (kind 100) records the outcome, and the client gets
//   {"data": {"CERT": "certPath"}, "error": {"code": 0, "description": "0"}}
// as text/plain. Failures leave by QPNExceptionWithErrCode_ carrying the file
// name "src/ucore/NOXImportCert". Every request sends exactly one event,
// except when the backend's path reply holds no path.
//
// Thread-safety: the object has no data; any number of request threads may
// use it at once. Permission retries sleep on the calling thread.
#ifndef NOX_SRC_UCORE_NOXIMPORTCERT_H_
#define NOX_SRC_UCORE_NOXIMPORTCERT_H_

#include <json/json.h>

#include <string>

#include "request_msg.h"
#include "operation_base.h"

class NOXImportCertOp : public CSpecifyOp {
 public:
  NOXImportCertOp() {}
  ~NOXImportCertOp() override {}

  // CSpecifyOp:
  // Takes every method; a POST (any letter case) is also marked as an upload
  // (privData.uploadMark_ = 1).
  bool isSupport(const std::string& action, const std::string& resource,
                 SpecifyOpPrivData& privData) override;
  // POST: the import, returning 0 (failures throw). Any other method: -1,
  // the response untouched.
  int op(const std::string& action, const std::string& resource, CRequestMsg& request,
         CResponseMsg& response) override;

  // The whole import. Returns 0; throws the host's or the backend's
  // exceptions on failure, after sending the failure event where one is due.
  int importCert(CRequestMsg& request, CResponseMsg& response);
  // Writes the first upload to `path` and narrows its mode. A refused name or
  // suffix, or an empty upload, is written as a single zero byte. Throws
  // 0x03000003 (no upload), 2000000001 (over 1048576 bytes) or 1000005
  // (write failed), each after a failure event.
  void WriteCertToTempPath(CRequestMsg& request, std::string& path, CSessionInfo& session);
  // Asks the backend to check the file at `path`; its reply fills `response`.
  // Sets data["CERT"] and the reply template "data". Rethrows a refusal after
  // its event: a success event for the "not safe" verdict 0x60E01D0A, a
  // failure event for anything else.
  void SendMessageForCheckCert(CRequestMsg& request, CResponseMsg& response, Json::Value& data,
                               std::string& path);
  // Records the import event (kind 100). Never throws.
  void SendEvent(CRequestMsg& request, bool success);
  // chmod 0640 with up to three attempts a second apart; never fails.
  void ChangeCertPermission(std::string path);
};

#endif  // NOX_SRC_UCORE_NOXIMPORTCERT_H_
