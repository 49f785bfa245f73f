#include "error_table.h"

#include <cstddef>

#include "backend_protocol.h"
#include "plugin_codes.h"
#include "state_store.h"
#include "tlv_backend.h"

namespace gw {

namespace {

// The reasons an upload's refusal is counted under (metrics).
constexpr char kRefusedTooLarge[] = "too_large";
constexpr char kRefusedNoFile[] = "no_file";
constexpr char kRefusedByCheck[] = "refused_by_check";
constexpr char kRefusedWriteFailed[] = "write_failed";
constexpr char kRefusedConsoleHeader[] = "console_header";
constexpr char kRefusedOther[] = "other";

struct CodeRow {
  long long code;
  int status;
  const char* description;
  const char* chinese = nullptr;  // the description in Chinese, where the console shows it
  const char* uploadRefusal = nullptr;  // the reason an upload refused with it is counted under
};

// One row per code a client may see. Certificate and CRL verdicts
// (proto::isCertVerdict) not listed here still map to 422 by their range.
constexpr CodeRow kCodes[] = {
    {proto::kErrInvalidArgument, 400, "Invalid argument.", nullptr, kRefusedNoFile},
    {proto::kErrNotFound, 404, "The object does not exist."},
    {proto::kErrUnknownCommand, 400, "The backend does not know the command."},
    {proto::kErrLoginFailed, 401, "The user name or password is wrong."},
    {proto::kErrNotLoggedIn, 401, "A valid session is required. Log in first."},
    {proto::kErrScopeDenied, 403, "The user may not log in with this scope."},
    {proto::kErrLoginThrottled, 429, "Too many failed logins. Try again later."},
    {proto::kErrVerifyCode, 401, "The verification code is missing, wrong or already used."},
    {proto::kErrVerifyCodeExpired, 401, "The verification code has expired. Ask for a new one."},
    {proto::kErrLoginBadText, 400,
     "The user name, password or another login field holds a control character or is not "
     "valid UTF-8."},
    {proto::kErrStorage, 500, "The backend could not store the data."},
    {kErrBackendUnavailable, 503, "The backend is not available."},
    {kErrBackendTimeout, 504, "The backend did not answer in time."},
    {kErrBackendFailure, 502, "The backend failed."},
    {kErrStateUnavailable, 503, "The session store is not available. Try again later."},
    {kErrRouteNotFound, 404, "No such path."},
    {kErrMethodNotAllowed, 405, "The path does not take this method."},
    {kErrBodyTooLarge, 413, "The request body is too large.", nullptr, kRefusedTooLarge},
    {kErrInternal, 500, "Internal error."},
    {kErrCsrfHeaderMissing, 403,
     "A request that changes data with the session cookie must carry X-Requested-With: "
     "nox-console.",
     nullptr, kRefusedConsoleHeader},
    {kErrTooManyStreams, 429, "Too many event streams are open. Close one and try again."},
    {kErrScopeForbidden, 403,
     "The signed-in user's scope does not allow this call. Ask an administrator.",
     "当前用户的角色不允许此操作，请联系管理员。"},
    {kErrFormLoginNeedsConsole, 403,
     "A login sent as a form must carry X-Requested-With: nox-console."},
    {kErrRequestTimeout, 408, "The request did not arrive in time."},
    {kErrBusy, 503, "The gateway is busy. Try again shortly."},
    {proto::kErrCertUnreadable, 422, "The certificate is neither PEM nor DER."},
    {proto::kErrCertExpired, 422, "The certificate is outside its validity dates."},
    {proto::kErrCertNotCa, 422, "The certificate is not a CA certificate."},
    {proto::kErrCertWeakKey, 422, "The certificate's key is too weak."},
    {proto::kErrCertNotSafe, 422, "The certificate is not safe."},
    {proto::kErrCrlUnreadable, 422, "The CRL is neither PEM nor DER."},
    {proto::kErrCrlUnknownIssuer, 422, "The CRL's issuer is not an imported CA."},
    {proto::kErrCrlBadSignature, 422, "The CRL's signature does not verify."},
    {proto::kErrCrlExpired, 422, "The CRL's next update is in the past."},
    {proto::kErrUploadTooLarge, 413, "The file is larger than 1048576 bytes.", nullptr,
     kRefusedTooLarge},
    {proto::kErrUploadWriteFailed, 500, "The file could not be written.", nullptr,
     kRefusedWriteFailed},
};

const CodeRow* findRow(long long code) {
  for (const CodeRow& row : kCodes) {
    if (row.code == code) return &row;
  }
  return nullptr;
}

}  // namespace

int httpStatusForCode(long long code) {
  if (const CodeRow* row = findRow(code)) return row->status;
  if (proto::isCertVerdict(code)) return 422;
  return 500;
}

std::string describeCode(long long code) {
  if (const CodeRow* row = findRow(code)) return row->description;
  if (proto::isCertVerdict(code)) return "The certificate or CRL was refused.";
  return std::string();
}

std::string describeCode(long long code, const std::string& language) {
  const CodeRow* row = findRow(code);
  if (row != nullptr && row->chinese != nullptr && language == "zh") return row->chinese;
  return describeCode(code);
}

const char* uploadRefusalReason(long long code, int status) {
  const CodeRow* row = findRow(code);
  if (row != nullptr && row->uploadRefusal != nullptr) return row->uploadRefusal;
  if (proto::isCertVerdict(code)) return kRefusedByCheck;
  if (status == 413) return kRefusedTooLarge;
  return kRefusedOther;
}

Json::Value errorEnvelope(long long code, const std::string& description) {
  Json::Value envelope(Json::objectValue);
  envelope["data"] = Json::Value(Json::nullValue);
  envelope["error"]["code"] = Json::Value(static_cast<Json::Int64>(code));
  envelope["error"]["description"] = description;
  return envelope;
}

}  // namespace gw
