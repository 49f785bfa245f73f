// NOXImportCrlOp: imports a certificate revocation list uploaded by HTTP POST
// to "/kestrel_cert/import_crl".
//
// It follows the certificate import (NOXImportCert.h) with these differences:
// isSupport refuses every method but POST; the import path comes from its own
// function (command 0xE000006E) and an empty path ends the request with -1,
// no event and no answer of its own; the suffixes are {"pem", "crl"}; the
// upload checks live in CheckUploadCrl; the file is then saved (0xE000006F)
// with no "not safe" verdict; the event kind is 101; the texts say "crl".
// Exceptions carry the file name "src/ucore/NOXImportCrlOp".
//
// Thread-safety: the object has no data; any number of request threads may
// use it at once. Permission retries sleep on the calling thread.
#ifndef NOX_SRC_UCORE_NOXIMPORTCRLOP_H_
#define NOX_SRC_UCORE_NOXIMPORTCRLOP_H_

#include <json/json.h>

#include <set>
#include <string>
#include <vector>

#include "request_msg.h"
#include "operation_base.h"

class NOXImportCrlOp : public CSpecifyOp {
 public:
  NOXImportCrlOp() {}
  ~NOXImportCrlOp() override {}

  // CSpecifyOp:
  // POST (any letter case): marks the upload (privData.uploadMark_ = 1) and
  // answers true. Any other method: false, privData untouched.
  bool isSupport(const std::string& action, const std::string& resource,
                 SpecifyOpPrivData& privData) override;
  // POST: the import. Any other method: -1, the response untouched.
  int op(const std::string& action, const std::string& resource, CRequestMsg& request,
         CResponseMsg& response) override;

  // The whole import. Returns 0 on success and -1 when the backend names no
  // import path (nothing written, no event); other failures throw.
  int importCrl(CRequestMsg& request, CResponseMsg& response);
  // Fills `path` from the backend's answer to 0xE000006E. A send failure is
  // logged, recorded by a failure event and rethrown.
  void GetCrlImportPath(CRequestMsg& request, const CResponseMsg& response, std::string& path);
  // Writes the first upload to `path` and narrows its mode. Throws 0x03000003
  // (no upload), 2000000001 (over 1048576 bytes) or 1000005 (write failed),
  // each after a failure event.
  void WriteCrlToTempPath(CRequestMsg& request, std::string& path, CSessionInfo& session);
  // Checks the upload against `suffixes`. A refused name or suffix, or an
  // empty upload, is replaced by a single zero byte and passes (true); only a
  // size over 1048576 bytes returns false.
  bool CheckUploadCrl(std::vector<CRequestMsgBody::UploadFileAddr>::iterator upload,
                      const std::set<std::string>& suffixes);
  // Asks the backend to save the file at `path`; its reply fills `response`.
  // Sets data["CERT"] and the reply template "data". Any refusal is logged,
  // recorded by a failure event and rethrown.
  void SendMessageForSaveCrl(CRequestMsg& request, CResponseMsg& response, Json::Value& data,
                             std::string& path);
  // Records the import event (kind 101). Never throws.
  void SendEvent(CRequestMsg& request, bool success);
  // chmod 0640 with up to three attempts a second apart; never fails.
  void ChangeCertPermission(const std::string& path);
};

#endif  // NOX_SRC_UCORE_NOXIMPORTCRLOP_H_
