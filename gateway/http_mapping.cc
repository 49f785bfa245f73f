#include "http_mapping.h"

#include <exception>
#include <optional>

#include "audit.h"
#include "error_table.h"
#include "request_session.h"

namespace gw {

const char kCsrfHeader[] = "X-Requested-With";
const char kCsrfHeaderValue[] = "nox-console";

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

std::string routePath(const RouteMatch& match) {
  if (match.route == nullptr) return std::string();
  return (match.interfaceVersion.empty() ? "" : "/" + match.interfaceVersion) + match.route->url;
}

Dispatcher::Dispatcher(const CSpecifyProc& registry, SessionLookup lookup, DispatchOptions options)
    : registry_(registry),
      lookup_(std::move(lookup)),
      options_(std::move(options)),
      access_(options_.access ? options_.access : installedAccessTable()) {
  options_.consoleSession = lookup_;
}

std::vector<std::string> routeLabels(const CSpecifyProc& registry) {
  std::vector<std::string> labels = kBuiltInLabels;
  for (const CSpecifyProc::Route& r : registry.routes()) {
    labels.push_back((r.interfaceVersion.empty() ? "" : "/" + r.interfaceVersion) + r.url);
  }
  return labels;
}

RoutePlan Dispatcher::plan(const std::string& method, RequestTarget target) const {
  RoutePlan plan;
  plan.target = std::move(target);
  plan.builtIn = builtInPath(plan.target.path);
  if (plan.builtIn == BuiltInPath::kNone) {
    plan.match = matchRoute(registry_, plan.target.path);
    plan.label = routePath(plan.match);
    plan.rule = &access_->rule(plan.label, method);
  }
  return plan;
}

HttpOutput Dispatcher::handle(const HttpInput& in) const {
  return handle(in, plan(in.method, splitTarget(in.target)));
}

HttpOutput Dispatcher::handle(const HttpInput& in, const RoutePlan& plan) const {
  std::string route = kOtherRoute;
  HttpOutput out = dispatch(in, plan, &route);
  out.route = route;
  // Refused uploads, whatever refused them (a session is not a refusal).
  if (options_.metrics != nullptr && plan.rule != nullptr && plan.rule->upload &&
      out.status >= 400 && out.status != 401) {
    options_.metrics->uploadRefused(uploadRefusalReason(out.code, out.status));
  }
  return out;
}

HttpOutput Dispatcher::dispatch(const HttpInput& in, const RoutePlan& plan,
                                std::string* route) const {
  try {
    if (plan.builtIn != BuiltInPath::kNone) {
      std::optional<HttpOutput> out = serveBuiltIn(options_, in, plan.target.path, route);
      if (out) return std::move(*out);
    }
    if (plan.match.route == nullptr) {
      return errorOutput(kErrRouteNotFound, describeCode(kErrRouteNotFound));
    }
    *route = plan.label;
    return serveRoute(in, plan);
  } catch (const std::exception&) {
    return errorOutput(kErrInternal, describeCode(kErrInternal));
  } catch (...) {
    return errorOutput(kErrInternal, describeCode(kErrInternal));
  }
}

namespace {

// The user and session an answer is logged with.
void labelAnswer(const CSessionInfo& info, HttpOutput* out) {
  out->user = info.getUserContext().userName_;
  if (info.getHttpSession()) out->session = info.getHttpSession()->getId();
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

HttpOutput Dispatcher::serveRoute(const HttpInput& in, const RoutePlan& plan) const {
  const AccessRule& rule = *plan.rule;
  HttpRequest connection(in.method, urlDecode(plan.target.path, false), in.clientAddress);
  for (const auto& header : in.headers) connection.addHeader(header.first, header.second);
  CRequestMsg request;
  fillRequest(in, plan.match, plan.target.query, request);

  CSessionInfo& info = request.getSessionInfo();
  info.setHttpConnection(&connection);
  info.setLanguage(languageFromAcceptLanguage(headerValue(in.headers, "Accept-Language")));
  info.getUserContext().clientAddress_ = in.clientAddress;
  // The session (or Accept-Language) gives the language unless the request
  // names one.
  const std::string language = request.getArg("LANGUAGE");
  const RequestSession session = findRequestSession(connection, lookup_, info);
  if (session.unavailable) return *session.unavailable;
  if (!language.empty()) info.setLanguage(languageFromArgument(language));
  std::optional<HttpOutput> refusal =
      refuse(in, rule, plan.label, session.found, session.fromCookie, info);
  HttpOutput out;
  if (refusal) {
    out = std::move(*refusal);
  } else {
    const long long bodyError = fillBody(in, options_.maxBody, request);
    out = bodyError == 0
              ? invokeOperation(*plan.match.route, in.method, plan.target.path, request, connection)
              : errorOutput(bodyError, bodyError == kErrBadRequest
                                           ? "The request body is not valid JSON."
                                           : describeCode(bodyError));
    if (rule.changes) {
      auditCall(audit::kChange, out.status < 400 ? audit::kSuccess : audit::kFailure, info, in,
                plan.label, out.code);
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
  if (fromCookie && !isReadMethod(in.method) && headerValue(in.headers, kCsrfHeader) != kCsrfHeaderValue) {
    auditCall(audit::kDenied, audit::kRefused, info, in, label, kErrCsrfHeaderMissing);
    return errorOutput(kErrCsrfHeaderMissing, describeCode(kErrCsrfHeaderMissing));
  }
  return std::nullopt;
}

}  // namespace gw
