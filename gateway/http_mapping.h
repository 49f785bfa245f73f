// The mapping between HTTP and the host framework: from one HTTP request to
// the host's CRequestMsg, through the registered operation, to the HTTP
// answer. Nothing here touches a socket, so the whole mapping can be driven by
// unit tests and fuzzers with plain values.
//
//   Dispatcher dispatcher(registry, lookup, options);
//   HttpInput in;
//   in.method = "GET";
//   in.target = "/kestrel_task/T-0001?LANGUAGE=zh";
//   in.headers = {{"X-Auth-Token", token}};
//   HttpOutput out = dispatcher.handle(in);   // out.status == 200, out.body == "{...}"
//
// Thread-safety: a Dispatcher is immutable after construction; handle() may
// run on any number of threads at once (the operations lock what they share).
#ifndef NOX_GATEWAY_HTTP_MAPPING_H_
#define NOX_GATEWAY_HTTP_MAPPING_H_

#include <json/json.h>

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "access_table.h"
#include "builtin_paths.h"
#include "http_exchange.h"
#include "metrics.h"
#include "request_msg.h"
#include "operation_base.h"
#include "request_decoding.h"
#include "route_invocation.h"

namespace gw {

// SessionLookup: request_session.h (the console's session question and the
// event streams ask it too).

// The dispatcher's settings; the built-in paths' content (BuiltInContent)
// comes with them.
struct DispatchOptions : BuiltInContent {
  size_t maxBody = size_t{2} * 1024 * 1024;  // bytes of JSON body or of all file parts together
  // The request metrics (counted by the server); null: none.
  Metrics* metrics = nullptr;
  // Who may call what, and what each route is (public, uploads, secrets,
  // logins); null: the host's installed table (installedAccessTable()).
  std::shared_ptr<const AccessTable> access;
};

// The route labels a Dispatcher over `registry` gives its answers (besides
// "other"): every registered route ("/v1/..." for the v1 interface) and the
// built-in paths.
std::vector<std::string> routeLabels(const CSpecifyProc& registry);

// The header, and its one value, that a state-changing request must carry
// when its session comes from the cookie (the console sends it on every
// request). A page on another site cannot add it to a request it makes the
// browser send, so the cookie alone never changes anything.
extern const char kCsrfHeader[];       // "X-Requested-With"
extern const char kCsrfHeaderValue[];  // "nox-console"

// Where a path leads.
struct RouteMatch {
  const CSpecifyProc::Route* route = nullptr;  // null: no route
  std::string interfaceVersion;                // "" or "v1"
  std::vector<std::string> resIDs;             // decoded identifiers below the route
};

// Matches `path` (percent-encoded, without query) against the registry:
// "/URL" on the default interface, "/v1/URL" on "v1"; a route registered with
// the flag false also takes "/URL/<id>[/<id>...]", each further non-empty
// segment becoming a decoded resource identifier.
RouteMatch matchRoute(const CSpecifyProc& registry, const std::string& path);

// The route's path as a client names it and the access table and the
// metrics know it: its URL, "/v1" + URL on the v1 interface.
//   routePath(matchRoute(registry, "/v1/alarm/historyalarm")) == "/v1/alarm/historyalarm"
//   routePath(matchRoute(registry, "/kestrel_task/T-1")) == "/kestrel_task"
std::string routePath(const RouteMatch& match);

// What the gateway makes of a request before it runs anything, decided
// once on the I/O thread and carried to the worker: the target's parts,
// the built-in path or route it names, and the route's access rule.
struct RoutePlan {
  RequestTarget target;
  BuiltInPath builtIn = BuiltInPath::kNone;
  RouteMatch match;              // for a path that is no built-in one
  std::string label;             // routePath(match); "" without a route
  const AccessRule* rule = nullptr;  // the rule of the method on `label`
};

class Dispatcher {
 public:
  Dispatcher(const CSpecifyProc& registry, SessionLookup lookup, DispatchOptions options);

  // Serves one request: built-in paths (/healthz, /openapi.json, /metrics,
  // the console below /console/), then the registry. Never throws; every
  // failure becomes an answer with the error envelope. The second form
  // takes the plan the caller already made for the same request.
  HttpOutput handle(const HttpInput& in) const;
  HttpOutput handle(const HttpInput& in, const RoutePlan& plan) const;

  // The plan of `method` on `target` (see RoutePlan). Cheap: no session,
  // no body, nothing remote.
  RoutePlan plan(const std::string& method, RequestTarget target) const;

  Metrics* metrics() const { return options_.metrics; }

 private:
  HttpOutput dispatch(const HttpInput& in, const RoutePlan& plan, std::string* route) const;
  HttpOutput serveRoute(const HttpInput& in, const RoutePlan& plan) const;
  // The answer that refuses the call before its operation runs (no session,
  // a scope the table does not allow, a cookie request without the
  // console's header, a login form without it); nullopt: go on.
  std::optional<HttpOutput> refuse(const HttpInput& in, const AccessRule& rule,
                                   const std::string& label, bool haveSession, bool fromCookie,
                                   const CSessionInfo& info) const;

  const CSpecifyProc& registry_;
  SessionLookup lookup_;
  DispatchOptions options_;
  std::shared_ptr<const AccessTable> access_;
};

}  // namespace gw

#endif  // NOX_GATEWAY_HTTP_MAPPING_H_
