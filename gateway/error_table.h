// How the gateway answers a failure: the HTTP status and the fixed English
// description of an error code, and the error envelope every failure carries.
//
//   {"data": null, "error": {"code": 50331651, "description": "Invalid argument."}}
//
// Thread-safety: every function here is pure and may be called from any
// thread.
#ifndef NOX_GATEWAY_ERROR_TABLE_H_
#define NOX_GATEWAY_ERROR_TABLE_H_

#include <json/json.h>

#include <string>

#include "backend_protocol.h"
#include "compact_json.h"

namespace gw {

// Codes the gateway itself answers with (the backend's and the plug-in's
// codes are listed in docs/operations.md beside these).
constexpr long long kErrRouteNotFound = 0x03000201;     // 404: no route for the path
constexpr long long kErrMethodNotAllowed = 0x03000202;  // 405: the route does not take the method
constexpr long long kErrBodyTooLarge = 0x03000203;      // 413: body over --max-body
constexpr long long kErrInternal = 0x03000204;          // 500: an uncoded exception
// 403: a state-changing request with the session cookie lacks the console's
// header (kCsrfHeader in http_mapping.h).
constexpr long long kErrCsrfHeaderMissing = 0x03000205;
// 408: the request's header or body did not arrive within its time-out.
constexpr long long kErrRequestTimeout = 0x03000206;
// 503: every worker is busy and the line of waiting requests is full.
constexpr long long kErrBusy = 0x03000207;
// 403: the session's scope may not make the call (the access table,
// host/access_table.h); the operation never runs.
constexpr long long kErrScopeForbidden = 0x03000208;
// 403: a login sent as a form (urlencoded or multipart) without the console's
// header: a page of another site could post such a form.
constexpr long long kErrFormLoginNeedsConsole = 0x03000209;
// 429: the session, or the gateway, has as many event streams open as its
// limit allows (--events-per-session, --events-max).
constexpr long long kErrTooManyStreams = 0x0300020A;
// 400: unreadable body or arguments
constexpr long long kErrBadRequest = proto::kErrInvalidArgument;
// 401: no valid session
constexpr long long kErrSessionRequired = proto::kErrNotLoggedIn;

// The HTTP status for an error code. Codes the table does not know are
// server-side failures: 500.
//   httpStatusForCode(kErrBadRequest) == 400, httpStatusForCode(proto::kErrCertExpired) == 422
int httpStatusForCode(long long code);

// The fixed description of a code, or "" when the table has none.
std::string describeCode(long long code);
// The same in `language` ("zh" or "en") for the codes that have a Chinese
// text; English otherwise.
//   describeCode(kErrScopeForbidden, "zh") == "当前用户的角色不允许此操作，请联系管理员。"
std::string describeCode(long long code, const std::string& language);

// The reason a refused upload is counted under in the metrics, from its
// answer's code and status: "too_large", "no_file", "refused_by_check",
// "write_failed", "console_header" or "other".
//   uploadRefusalReason(proto::kErrCertExpired, 422) == "refused_by_check"
const char* uploadRefusalReason(long long code, int status);

// {"data": null, "error": {"code": code, "description": description}}.
Json::Value errorEnvelope(long long code, const std::string& description);

}  // namespace gw

#endif  // NOX_GATEWAY_ERROR_TABLE_H_
