#include "error_table.h"

#include <cstddef>

namespace gw {

namespace {

struct CodeRow {
  long long code;
  int status;
  const char* description;
  const char* chinese = nullptr;  // the description in Chinese, where the console shows it
};

// One row per code a client may see. Certificate and CRL verdicts
// (0x60E01Dxx) not listed here still map to 422 by their range.
constexpr CodeRow kCodes[] = {
    {0x03000003, 400, "Invalid argument."},
    {0x03000004, 404, "The object does not exist."},
    {0x03000005, 400, "The backend does not know the command."},
    {0x03000010, 401, "The user name or password is wrong."},
    {0x03000011, 401, "A valid session is required. Log in first."},
    {0x03000012, 403, "The user may not log in with this scope."},
    {0x03000013, 429, "Too many failed logins. Try again later."},
    {0x03000014, 401, "The verification code is missing, wrong or already used."},
    {0x03000015, 401, "The verification code has expired. Ask for a new one."},
    {0x03000020, 500, "The backend could not store the data."},
    {0x03000101, 503, "The backend is not available."},
    {0x03000102, 504, "The backend did not answer in time."},
    {0x03000103, 502, "The backend failed."},
    {0x03000105, 503, "The session store is not available. Try again later."},
    {kErrRouteNotFound, 404, "No such path."},
    {kErrMethodNotAllowed, 405, "The path does not take this method."},
    {kErrBodyTooLarge, 413, "The request body is too large."},
    {kErrInternal, 500, "Internal error."},
    {kErrCsrfHeaderMissing, 403,
     "A request that changes data with the session cookie must carry X-Requested-With: "
     "nox-console."},
    {kErrScopeForbidden, 403,
     "The signed-in user's scope does not allow this call. Ask an administrator.",
     "当前用户的角色不允许此操作，请联系管理员。"},
    {kErrFormLoginNeedsConsole, 403,
     "A login sent as a form must carry X-Requested-With: nox-console."},
    {kErrRequestTimeout, 408, "The request did not arrive in time."},
    {kErrBusy, 503, "The gateway is busy. Try again shortly."},
    {0x60E01D01, 422, "The certificate is neither PEM nor DER."},
    {0x60E01D02, 422, "The certificate is outside its validity dates."},
    {0x60E01D03, 422, "The certificate is not a CA certificate."},
    {0x60E01D04, 422, "The certificate's key is too weak."},
    {0x60E01D0A, 422, "The certificate is not safe."},
    {0x60E01D11, 422, "The CRL is neither PEM nor DER."},
    {0x60E01D12, 422, "The CRL's issuer is not an imported CA."},
    {0x60E01D13, 422, "The CRL's signature does not verify."},
    {0x60E01D14, 422, "The CRL's next update is in the past."},
    {2000000001, 413, "The file is larger than 1048576 bytes."},
    {1000005, 500, "The file could not be written."},
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
  if ((code & ~0xFFLL) == 0x60E01D00LL) return 422;
  return 500;
}

std::string describeCode(long long code) {
  if (const CodeRow* row = findRow(code)) return row->description;
  if ((code & ~0xFFLL) == 0x60E01D00LL) return "The certificate or CRL was refused.";
  return std::string();
}

std::string describeCode(long long code, const std::string& language) {
  const CodeRow* row = findRow(code);
  if (row != nullptr && row->chinese != nullptr && language == "zh") return row->chinese;
  return describeCode(code);
}

Json::Value errorEnvelope(long long code, const std::string& description) {
  Json::Value envelope(Json::objectValue);
  envelope["data"] = Json::Value(Json::nullValue);
  envelope["error"]["code"] = Json::Value(static_cast<Json::Int64>(code));
  envelope["error"]["description"] = description;
  return envelope;
}

}  // namespace gw
