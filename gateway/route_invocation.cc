#include "route_invocation.h"

#include <strings.h>

#include <exception>

#include "compact_json.h"
#include "error_table.h"
#include "qpn_debug_kit.h"
#include "qpn_exception.h"
#include "reply_json.h"
#include "tlv_backend.h"

namespace gw {

namespace {

// The 500 answer says nothing of the cause; the trace does, e.g.
// "GET /kestrel_task/1001: the operation failed: Exception:cell 1 is not a number".
void logOperationFailure(const std::string& method, const std::string& path, const char* what) {
  CQPNDebugKitGuard guard(4, "serveRoute");
  guard.error(0, "serveRoute", __LINE__, "%s %s: the operation failed: %s", method.c_str(),
              path.c_str(), what);
}

// True when the operation left nothing in the response.
bool untouched(const CResponseMsg& response) {
  return response.size() == 0 && response.getJsonBody().isNull() &&
         response.getReplyTemplates().empty() &&
         response.getContentKind() == CResponseMsg::kContentGeneric;
}

void copyResponseHeaders(const HttpRequest& connection, HttpOutput& out) {
  for (const auto& header : connection.responseHeaders()) {
    if (strcasecmp(header.first.c_str(), "Content-Type") == 0) {
      out.contentType = header.second;
    } else {
      out.headers.push_back(header);
    }
  }
}

// An error envelope as JSON, with the headers the operation set.
HttpOutput operationError(long long code, const std::string& description,
                          const HttpRequest& connection) {
  HttpOutput out = errorOutput(code, description);
  copyResponseHeaders(connection, out);
  out.contentType = kJsonType;
  return out;
}

HttpOutput methodNotAllowed() {
  return errorOutput(kErrMethodNotAllowed, describeCode(kErrMethodNotAllowed));
}

}  // namespace

std::string describeException(const QPNExceptionWithErrCode_& e) {
  const std::string& given = e.getFile();
  if (given.find(' ') != std::string::npos && given.back() == '.') return given;
  const std::string text = describeCode(e.getErrCode());
  return text.empty() ? "The request failed." : text;
}

HttpOutput invokeOperation(const CSpecifyProc::Route& route, const std::string& method,
                           const std::string& sentPath, CRequestMsg& request,
                           HttpRequest& connection) {
  const std::string& resource = connection.path();
  CResponseMsg response;
  try {
    SpecifyOpPrivData privData;
    if (!route.op->isSupport(method, resource, privData)) return methodNotAllowed();
    // The backend answers texts it keeps in both languages in the request's.
    CallLanguageScope language(request.getSessionInfo().language());
    const int result = route.op->op(method, resource, request, response);
    if (result == -1 && untouched(response)) return methodNotAllowed();
    if (result != 0 && result != -1) {
      const std::string text = describeCode(result);
      return operationError(result, text.empty() ? "The request failed." : text, connection);
    }
    return renderResponse(request, response, connection);
  } catch (const QPNExceptionWithErrCode_& e) {
    return operationError(e.getErrCode(), describeException(e), connection);
  } catch (const std::exception& e) {
    logOperationFailure(method, sentPath, e.what());
  } catch (...) {
    logOperationFailure(method, sentPath, "an exception of unknown type");
  }
  return errorOutput(kErrInternal, describeCode(kErrInternal));
}

HttpOutput renderResponse(const CRequestMsg& request, const CResponseMsg& response,
                          const HttpRequest& connection) {
  HttpOutput out;
  out.contentType.clear();
  copyResponseHeaders(connection, out);
  const uint32_t kind = response.getContentKind();
  if (kind == CResponseMsg::kContentJson || kind == CResponseMsg::kContentText) {
    out.body = toCompactJson(response.getJsonBody());
    if (out.contentType.empty()) {
      out.contentType =
          kind == CResponseMsg::kContentText ? "text/plain; charset=utf-8" : kJsonType;
    }
    return out;
  }
  if (out.contentType.empty()) out.contentType = kJsonType;
  if (!response.getJsonBody().isNull()) {
    out.body = toCompactJson(response.getJsonBody());
  } else {
    out.body = toCompactJson(reply::genericReply(request, response));
  }
  return out;
}

}  // namespace gw
