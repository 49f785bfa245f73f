#include "http_mapping.h"

#include <strings.h>

#include <cctype>
#include <exception>
#include <memory>
#include <optional>

#include "audit.h"
#include "error_table.h"
#include "qpn_debug_kit.h"
#include "qpn_exception.h"
#include "reply_json.h"
#include "session_token.h"
#include "tlv_backend.h"

namespace gw {

const char kCsrfHeader[] = "X-Requested-With";
const char kCsrfHeaderValue[] = "nox-console";
const char kRetryAfterSeconds[] = "1";
// 'self' everywhere it matters; images may also be data: URLs (the
// verification code's picture comes as one in the challenge).
const char kConsolePolicy[] =
    "default-src 'self'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; font-src 'self'; object-src 'none'; base-uri 'none'; "
    "form-action 'self'; frame-ancestors 'none'";

namespace {

// The 500 answer says nothing of the cause; the trace does, e.g.
// "GET /kestrel_task/1001: the operation failed: Exception:cell 1 is not a number".
void logOperationFailure(const std::string& method, const std::string& path, const char* what) {
  CQPNDebugKitGuard guard(4, "serveRoute");
  guard.error(0, "serveRoute", __LINE__, "%s %s: the operation failed: %s", method.c_str(),
              path.c_str(), what);
}


const char kJsonType[] = "application/json";

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool startsWithNoCase(const std::string& text, const char* prefix) {
  return strncasecmp(text.c_str(), prefix, std::char_traits<char>::length(prefix)) == 0;
}

std::string trim(const std::string& text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && std::isspace(static_cast<unsigned char>(text[begin]))) ++begin;
  while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1]))) --end;
  return text.substr(begin, end - begin);
}

bool isMethod(const std::string& method, const char* name) {
  return strcasecmp(method.c_str(), name) == 0;
}

// True when the operation left nothing in the response.
bool untouched(const CResponseMsg& response) {
  return response.size() == 0 && response.getJsonBody().isNull() &&
         response.getReplyTemplates().empty() &&
         response.getContentKind() == CResponseMsg::kContentGeneric;
}

// The description of a coded exception: the sentence the thrower gave in
// place of its source name ("The user scope is invalid."), else the fixed
// text of its code, else a general text. Source names ("src/ucore/NOXLogin")
// hold no blank and never reach the client.
std::string describeException(const QPNExceptionWithErrCode_& e) {
  const std::string& given = e.getFile();
  if (given.find(' ') != std::string::npos && given.back() == '.') return given;
  const std::string text = describeCode(e.getErrCode());
  return text.empty() ? "The request failed." : text;
}

HttpOutput jsonOutput(int status, const Json::Value& value) {
  HttpOutput out;
  out.status = status;
  out.body = toCompactJson(value);
  return out;
}

// Fills the body of `request` from the input. Returns 0, or the error code
// that refuses the request (kErrBodyTooLarge, kErrBadRequest).
long long fillBody(const HttpInput& in, size_t maxBody, CRequestMsg& request) {
  CRequestMsgBody& body = request.getBody();
  if (in.multipart) {
    size_t fileBytes = 0;
    Json::Value fields(Json::objectValue);
    for (const FormPart& part : in.parts) {
      if (!part.fileName.empty()) {
        fileBytes += part.content.size();
        if (fileBytes > maxBody) return kErrBodyTooLarge;
        body.addUpload(part.fileName, part.content);
      } else if (!part.name.empty()) {
        fields[part.name] = part.content;
      }
    }
    if (!fields.empty()) body.setJson(fields);
    return 0;
  }
  if (in.body.empty()) return 0;
  if (in.body.size() > maxBody) return kErrBodyTooLarge;
  const std::string type = headerValue(in.headers, "Content-Type");
  if (startsWithNoCase(type, "application/x-www-form-urlencoded")) {
    Json::Value fields(Json::objectValue);
    for (const auto& field : parseQuery(in.body)) fields[field.first] = field.second;
    body.setJson(fields);
    return 0;
  }
  // JSON when declared so, or when no type is declared at all; other types
  // carry nothing the operations read.
  if (!type.empty() && !startsWithNoCase(type, kJsonType)) return 0;
  // newJsonReader stops at a nesting depth no request needs, by throwing.
  std::unique_ptr<Json::CharReader> reader(reply::newJsonReader());
  Json::Value json;
  std::string errors;
  try {
    if (!reader->parse(in.body.data(), in.body.data() + in.body.size(), &json, &errors)) {
      return kErrBadRequest;
    }
  } catch (const std::exception&) {
    return kErrBadRequest;
  }
  body.setJson(json);
  return 0;
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

}  // namespace

std::string urlDecode(const std::string& text, bool plusIsSpace) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%' && i + 2 < text.size()) {
      const int hi = hexDigit(text[i + 1]);
      const int lo = hexDigit(text[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        continue;
      }
    }
    out.push_back(plusIsSpace && c == '+' ? ' ' : c);
  }
  return out;
}

std::vector<std::pair<std::string, std::string>> parseQuery(const std::string& query) {
  std::vector<std::pair<std::string, std::string>> args;
  size_t pos = 0;
  while (pos <= query.size()) {
    size_t end = query.find('&', pos);
    if (end == std::string::npos) end = query.size();
    if (end > pos) {
      const std::string piece = query.substr(pos, end - pos);
      const size_t eq = piece.find('=');
      if (eq == std::string::npos) {
        args.emplace_back(urlDecode(piece, true), std::string());
      } else {
        args.emplace_back(urlDecode(piece.substr(0, eq), true),
                          urlDecode(piece.substr(eq + 1), true));
      }
    }
    pos = end + 1;
  }
  return args;
}

std::string headerValue(const HeaderList& headers, const std::string& name) {
  for (const auto& header : headers) {
    if (strcasecmp(header.first.c_str(), name.c_str()) == 0) return header.second;
  }
  return std::string();
}

std::string consoleContentType(const std::string& path) {
  static const struct {
    const char* suffix;
    const char* type;
  } kTypes[] = {
      {".html", "text/html; charset=utf-8"},  {".js", "text/javascript; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},    {".svg", "image/svg+xml"},
      {".png", "image/png"},                  {".json", "application/json"},
      {".ico", "image/x-icon"},               {".txt", "text/plain; charset=utf-8"},
  };
  for (const auto& entry : kTypes) {
    const size_t length = std::char_traits<char>::length(entry.suffix);
    if (path.size() > length && path.compare(path.size() - length, length, entry.suffix) == 0) {
      return entry.type;
    }
  }
  return "application/octet-stream";
}

std::string languageFromAcceptLanguage(const std::string& value) {
  return startsWithNoCase(trim(value), "zh") ? "zh" : "en";
}

RouteMatch matchRoute(const CSpecifyProc& registry, const std::string& path) {
  RouteMatch match;
  std::string rest = path;
  if (path.compare(0, 4, "/v1/") == 0) {
    match.interfaceVersion = "v1";
    rest = path.substr(3);
  }
  if (const CSpecifyProc::Route* route = registry.find(rest, match.interfaceVersion)) {
    match.route = route;
    return match;
  }
  // Routes registered with the flag false also serve the paths below them;
  // the longest such route wins.
  for (const CSpecifyProc::Route& route : registry.routes()) {
    if (route.flag || route.interfaceVersion != match.interfaceVersion) continue;
    if (rest.size() <= route.url.size() || rest.compare(0, route.url.size(), route.url) != 0 ||
        rest[route.url.size()] != '/') {
      continue;
    }
    if (match.route != nullptr && match.route->url.size() >= route.url.size()) continue;
    match.route = &route;
  }
  if (match.route != nullptr) {
    const std::string below = rest.substr(match.route->url.size() + 1);
    size_t pos = 0;
    while (pos <= below.size()) {
      size_t end = below.find('/', pos);
      if (end == std::string::npos) end = below.size();
      if (end > pos) match.resIDs.push_back(urlDecode(below.substr(pos, end - pos), false));
      pos = end + 1;
    }
  }
  return match;
}

HttpOutput errorOutput(long long code, const std::string& description) {
  HttpOutput out = jsonOutput(httpStatusForCode(code), errorEnvelope(code, description));
  out.code = code;
  // Busy, or a service it needs (backend, session store) not there: the
  // client may try again shortly.
  if (out.status == 503) out.headers.emplace_back("Retry-After", kRetryAfterSeconds);
  return out;
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

Dispatcher::Dispatcher(const CSpecifyProc& registry, SessionLookup lookup, DispatchOptions options)
    : registry_(registry),
      lookup_(std::move(lookup)),
      options_(std::move(options)),
      access_(options_.access ? options_.access : installedAccessTable()) {}

BuiltInPath builtInPath(const std::string& target) {
  const std::string path = target.substr(0, target.find('?'));
  if (path == "/healthz" || path == "/metrics") return BuiltInPath::kCheck;
  if (path == "/openapi.json" || path == "/console" || path.compare(0, 9, "/console/") == 0) {
    return BuiltInPath::kDocument;
  }
  return BuiltInPath::kNone;
}

std::vector<std::string> routeLabels(const CSpecifyProc& registry) {
  std::vector<std::string> labels = {"/healthz", "/openapi.json", "/metrics", "/console"};
  for (const CSpecifyProc::Route& r : registry.routes()) {
    labels.push_back((r.interfaceVersion.empty() ? "" : "/" + r.interfaceVersion) + r.url);
  }
  return labels;
}

HttpOutput Dispatcher::handle(const HttpInput& in) const {
  std::string route = kOtherRoute;
  HttpOutput out = dispatch(in, &route);
  out.route = route;
  // Refused uploads, whatever refused them (a session is not a refusal).
  if (options_.metrics != nullptr && access_->rule(route, in.method).upload &&
      out.status >= 400 && out.status != 401) {
    options_.metrics->uploadRefused(uploadRefusalReason(out.code, out.status));
  }
  return out;
}

HttpOutput Dispatcher::dispatch(const HttpInput& in, std::string* route) const {
  try {
    const size_t mark = in.target.find('?');
    const std::string path = in.target.substr(0, mark);
    const std::string query =
        mark == std::string::npos ? std::string() : in.target.substr(mark + 1);
    const bool isGet = isMethod(in.method, "GET") || isMethod(in.method, "HEAD");
    if (path == "/metrics" && options_.metricsText) {
      if (!options_.metricsAllowed || !options_.metricsAllowed(in.clientAddress)) {
        return errorOutput(kErrRouteNotFound, describeCode(kErrRouteNotFound));
      }
      *route = path;
      if (!isGet) return errorOutput(kErrMethodNotAllowed, describeCode(kErrMethodNotAllowed));
      HttpOutput out;
      out.contentType = "text/plain; version=0.0.4; charset=utf-8";
      out.body = options_.metricsText();
      return out;
    }
    if (path == "/healthz" || path == "/openapi.json") {
      *route = path;
      if (!isGet) return errorOutput(kErrMethodNotAllowed, describeCode(kErrMethodNotAllowed));
      if (path == "/healthz") {
        Json::Value health(Json::objectValue);
        health["status"] = "ok";
        const bool ok = !options_.health || options_.health(health);
        if (!ok) health["status"] = "unavailable";
        return jsonOutput(ok ? 200 : 503, health);
      }
      HttpOutput out;
      out.body = options_.openApi;
      return out;
    }
    if (!options_.console.empty() &&
        (path == "/console" || path.compare(0, 9, "/console/") == 0)) {
      *route = "/console";
      return serveConsole(in, path);
    }
    const RouteMatch match = matchRoute(registry_, path);
    if (match.route == nullptr)
      return errorOutput(kErrRouteNotFound, describeCode(kErrRouteNotFound));
    *route = routePath(match);
    return serveRoute(in, match, path, query);
  } catch (const std::exception&) {
    return errorOutput(kErrInternal, describeCode(kErrInternal));
  } catch (...) {
    return errorOutput(kErrInternal, describeCode(kErrInternal));
  }
}

HttpOutput Dispatcher::serveConsole(const HttpInput& in, const std::string& path) const {
  if (!isMethod(in.method, "GET") && !isMethod(in.method, "HEAD")) {
    return errorOutput(kErrMethodNotAllowed, describeCode(kErrMethodNotAllowed));
  }
  // Relative links in the pages need the trailing slash.
  if (path == "/console") {
    HttpOutput out;
    out.status = 301;
    out.headers.emplace_back("Location", "/console/");
    return out;
  }
  // The path is compared as sent: no decoding, so no dot segment or encoded
  // slash can name anything but one of the compiled-in files.
  std::string name = path.substr(9);
  if (name.empty()) name = "index.html";
  const auto file = options_.console.find(name);
  if (file == options_.console.end()) {
    return errorOutput(kErrRouteNotFound, describeCode(kErrRouteNotFound));
  }
  HttpOutput out;
  out.contentType = consoleContentType(name);
  out.body = file->second;
  out.headers.emplace_back("Content-Security-Policy", kConsolePolicy);
  // The files change only with the gateway; a browser checks before reuse.
  out.headers.emplace_back("Cache-Control", "no-cache");
  out.headers.emplace_back("Referrer-Policy", "no-referrer");
  out.headers.emplace_back("X-Frame-Options", "DENY");
  out.headers.emplace_back("Cross-Origin-Opener-Policy", "same-origin");
  out.headers.emplace_back("Cross-Origin-Resource-Policy", "same-origin");
  return out;
}

namespace {

// The user and session an answer is logged with.
void labelAnswer(const CSessionInfo& info, HttpOutput* out) {
  out->user = info.getUserContext().userName_;
  if (info.getHttpSession()) out->session = info.getHttpSession()->getId();
}

bool isFormBody(const HttpInput& in) {
  if (in.multipart) return true;
  const std::string type = headerValue(in.headers, "Content-Type");
  return startsWithNoCase(type, "application/x-www-form-urlencoded") ||
         startsWithNoCase(type, "multipart/form-data");
}

// An audit record of the call, from what the session holds.
void auditCall(const char* event, const char* outcome, const CSessionInfo& info,
               const HttpInput& in, const std::string& route, long long code) {
  AuditEvent record;
  record.event = event;
  record.outcome = outcome;
  record.user = info.getUserContext().userName_;
  record.scope = info.getUserContext().scope_;
  record.client = in.clientAddress;
  record.route = route;
  record.method = in.method;
  record.code = code;
  auditEvent(std::move(record));
}

// Fills the request's method, route and arguments from the input.
void fillRequest(const HttpInput& in, const RouteMatch& match, const std::string& query,
                 CRequestMsg& request) {
  request.setMethod(in.method);
  request.setUrl(match.route->url);
  request.setInterfaceVersion(match.interfaceVersion);
  request.getResIDs() = match.resIDs;
  for (const auto& arg : parseQuery(query)) {
    // The first occurrence of a repeated argument counts.
    if (request.args().count(arg.first) == 0) request.setArg(arg.first, arg.second);
  }
}

}  // namespace

std::string routePath(const RouteMatch& match) {
  if (match.route == nullptr) return std::string();
  return (match.interfaceVersion.empty() ? "" : "/" + match.interfaceVersion) + match.route->url;
}

const AccessRule& Dispatcher::ruleFor(const std::string& method, const std::string& target) const {
  const RouteMatch match = matchRoute(registry_, target.substr(0, target.find('?')));
  return access_->rule(routePath(match), method);
}

HttpOutput Dispatcher::serveRoute(const HttpInput& in, const RouteMatch& match,
                                  const std::string& path, const std::string& query) const {
  const std::string label = routePath(match);
  const AccessRule& rule = access_->rule(label, in.method);
  HttpRequest connection(in.method, urlDecode(path, false), in.clientAddress);
  for (const auto& header : in.headers) connection.addHeader(header.first, header.second);
  CRequestMsg request;
  fillRequest(in, match, query, request);

  CSessionInfo& info = request.getSessionInfo();
  info.setHttpConnection(&connection);
  info.setLanguage(languageFromAcceptLanguage(headerValue(in.headers, "Accept-Language")));
  info.getUserContext().clientAddress_ = in.clientAddress;
  // The session (or Accept-Language) gives the language unless the request
  // names one.
  const std::string language = request.getArg("LANGUAGE");
  bool fromCookie = false;
  const std::string token = sessionTokenOf(connection, &fromCookie);
  bool haveSession = false;
  try {
    haveSession = !token.empty() && lookup_ && lookup_(token, info);
  } catch (const QPNExceptionWithErrCode_& e) {
    // The session store cannot say: no request goes through unchecked.
    return errorOutput(e.getErrCode(), describeException(e));
  }
  if (!language.empty()) info.setLanguage(language == "zh" ? "zh" : "en");
  std::optional<HttpOutput> refusal = refuse(in, rule, label, haveSession, fromCookie, info);
  HttpOutput out;
  if (refusal) {
    out = std::move(*refusal);
  } else {
    const long long bodyError = fillBody(in, options_.maxBody, request);
    out = bodyError == 0 ? invoke(in, *match.route, path, request, connection)
                         : errorOutput(bodyError, bodyError == kErrBadRequest
                                                      ? "The request body is not valid JSON."
                                                      : describeCode(bodyError));
    if (rule.changes) {
      auditCall(audit::kChange, out.status < 400 ? audit::kSuccess : audit::kFailure, info, in,
                label, out.code);
    }
  }
  labelAnswer(info, &out);
  out.compressible = !rule.secrets;
  return out;
}

std::optional<HttpOutput> Dispatcher::refuse(const HttpInput& in, const AccessRule& rule,
                                             const std::string& label, bool haveSession,
                                             bool fromCookie, const CSessionInfo& info) const {
  if (rule.isPublic) {
    // A page of another site can post a form to a login and so sign the
    // browser in to an account of the page's choosing; a form cannot add
    // the console's header. JSON needs a CORS preflight the gateway never
    // grants.
    if (rule.login && isFormBody(in) && headerValue(in.headers, kCsrfHeader) != kCsrfHeaderValue) {
      return errorOutput(kErrFormLoginNeedsConsole, describeCode(kErrFormLoginNeedsConsole));
    }
    return std::nullopt;
  }
  if (!haveSession) return errorOutput(kErrSessionRequired, describeCode(kErrSessionRequired));
  if (!rule.allows(info.getUserContext().scope_)) {
    auditCall(audit::kDenied, audit::kRefused, info, in, label, kErrScopeForbidden);
    return errorOutput(kErrScopeForbidden, describeCode(kErrScopeForbidden, info.language()));
  }
  // A browser sends the cookie with whatever request a page makes it send;
  // a page of another site cannot add a header without the gateway's
  // consent (no CORS).
  const bool safeMethod = isMethod(in.method, "GET") || isMethod(in.method, "HEAD");
  if (fromCookie && !safeMethod && headerValue(in.headers, kCsrfHeader) != kCsrfHeaderValue) {
    auditCall(audit::kDenied, audit::kRefused, info, in, label, kErrCsrfHeaderMissing);
    return errorOutput(kErrCsrfHeaderMissing, describeCode(kErrCsrfHeaderMissing));
  }
  return std::nullopt;
}

// Asks the operation, and renders what it left or what it threw.
HttpOutput Dispatcher::invoke(const HttpInput& in, const CSpecifyProc::Route& route,
                              const std::string& path, CRequestMsg& request,
                              HttpRequest& connection) const {
  CResponseMsg response;
  try {
    SpecifyOpPrivData privData;
    const std::string& resource = connection.path();
    if (!route.op->isSupport(in.method, resource, privData)) {
      return errorOutput(kErrMethodNotAllowed, describeCode(kErrMethodNotAllowed));
    }
    // The backend answers texts it keeps in both languages in the request's.
    CallLanguageScope language(request.getSessionInfo().language());
    const int result = route.op->op(in.method, resource, request, response);
    if (result == -1 && untouched(response)) {
      return errorOutput(kErrMethodNotAllowed, describeCode(kErrMethodNotAllowed));
    }
    if (result != 0 && result != -1) {
      HttpOutput out = errorOutput(
          result, describeCode(result).empty() ? "The request failed." : describeCode(result));
      copyResponseHeaders(connection, out);
      out.contentType = kJsonType;
      return out;
    }
    return renderResponse(request, response, connection);
  } catch (const QPNExceptionWithErrCode_& e) {
    HttpOutput out = errorOutput(e.getErrCode(), describeException(e));
    copyResponseHeaders(connection, out);
    out.contentType = kJsonType;
    return out;
  } catch (const std::exception& e) {
    logOperationFailure(in.method, path, e.what());
  } catch (...) {
    logOperationFailure(in.method, path, "an exception of unknown type");
  }
  return errorOutput(kErrInternal, describeCode(kErrInternal));
}

}  // namespace gw
