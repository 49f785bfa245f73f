// What the certificate import and the CRL import do alike: building and
// sending their one-record packages, the import event, the upload checks they
// share, narrowing the written file's mode, and the answer they give.
//
// The two imports differ in their commands, their suffix sets, their event
// kind, their texts and in where each check lives; those differences stay in
// NOXImportCert.cc and NOXImportCrlOp.cc. Everything here works on the
// caller's locals only and is safe to call from any request thread.
#ifndef NOX_SRC_UCORE_NOXIMPORTCOMMON_H_
#define NOX_SRC_UCORE_NOXIMPORTCOMMON_H_

#include <json/json.h>

#include <cstdint>
#include <set>
#include <string>

#include "qpn_debug_kit.h"
#include "request_msg.h"
#include "tlv_package.h"

namespace nox_import {

// Module id of the import operations' trace guards.
constexpr int kModule = 11;
// Second header word of every record the imports send.
constexpr uint32_t kHeaderWord = 13;
// Tag 0 of the path, check and save commands carries this value.
constexpr uint32_t kImportTarget = 0xE027;
// The path cell: named by the backend in its reply, sent back with the file.
constexpr unsigned short kTagPath = 70;
// The event command and its kinds (tag 1).
constexpr uint32_t kEventCommand = 0x00C9009B;
constexpr uint32_t kEventKindCert = 100;
constexpr uint32_t kEventKindCrl = 101;
// The event is sent with its own short time-out, in seconds.
constexpr int kEventTimeout = 5;
// The largest upload taken, in bytes (inclusive).
constexpr unsigned int kMaxUploadBytes = 1048576;
// Codes the imports throw.
constexpr long long kErrNoUpload = 0x03000003;
constexpr long long kErrUploadTooLarge = 2000000001;  // 0x77359401
constexpr long long kErrWriteFailed = 1000005;        // 0xF4245

// Appends one record of `command` (header word 13) to `package`, holding the
// integer cell tag 0 = 0xE027 and, when `path` is not null, the text cell tag
// 70 = *path with its terminating zero byte.
void buildImportRequest(CR3MPackageV3& package, uint32_t command, const std::string* path);

// Sends `package` for the request's session (device identity, user context),
// with the request's interface version, `timeout` and target 0; the backend's
// answer goes into `reply`. Throws what CTlvMsg::sendMessage throws
// (QPNExceptionWithErrCode_ with the backend's code on a refusal).
void sendToBackend(CRequestMsg& request, CR3MPackageV3& package, CR3MPackageV3& reply, int timeout);

// Sends the import event: tag 0 = 2, tag 1 = `kind`, tag 3 = 0 on success and
// 1 on failure (no tag 2), time-out 5, target 0; the reply is not read.
// Throws on a send failure; the callers log and swallow it.
void sendImportEvent(CRequestMsg& request, uint32_t kind, bool success);

// The text cell tag 70 of record 0 of `reply`. Throws QPNException when the
// record is missing ("record don't exist, index is 0"), when cell 70 is
// missing or not text ("CTLVCell isn't string type! tag equal to 70") and
// when a text cell has no storage ("CTLVCell string value is null,tag 70
// length N"). Nothing else: the text accessor never yields a null pointer.
std::string pathFromReply(CR3MPackageV3& reply);

// The part of `fileName` after its last ".", or "" when it has none.
//   uploadSuffix("ca.cert.pem") == "pem", uploadSuffix("cert") == "",
//   uploadSuffix(".pem") == "pem", uploadSuffix("x.") == ""
std::string uploadSuffix(const std::string& fileName);

// Whether the upload is refused as "null or suffix error": no content (length
// 0 or a null pointer), an empty suffix set, a suffix outside `suffixes`
// (compared exactly, so "PEM" is not "pem"), or a name that begins with ".".
bool isRefusedUpload(const CRequestMsgBody::UploadFileAddr& upload,
                     const std::set<std::string>& suffixes);

// Replaces a refused upload's content by a single zero byte, so that a
// one-byte file is written and the backend's check decides its fate.
void substituteZeroByte(CRequestMsgBody::UploadFileAddr& upload);

// Up to three chmod(path, 0640) attempts; after each failure logs `warning`
// through `guard` (function "ChangeCertPermission") and sleeps one second.
// Gives up silently after the third failure.
void narrowFileMode(const std::string& path, CQPNDebugKitGuard& guard, const char* warning);

// Sets "Content-Type: text/plain; charset=utf-8" on the session's connection
// and the response's content kind to 3.
void answerAsText(CRequestMsg& request, CResponseMsg& response);

// Sets data["CERT"] = "certPath" and enters `data` as the reply template
// "data", replacing an earlier one.
void enterCertPathTemplate(CResponseMsg& response, Json::Value& data);

// The response's command identity: command code in the low word, header word
// 13 in the high word.
uint64_t commandIdentity(uint32_t command);

// Writes {"data": data, "error": {"code": 0, "description": "0"}} into the
// response's JSON body.
void writeSuccessBody(CResponseMsg& response, const Json::Value& data);

}  // namespace nox_import

#endif  // NOX_SRC_UCORE_NOXIMPORTCOMMON_H_
