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
#include "metrics.h"
#include "request_msg.h"
#include "operation_base.h"

namespace gw {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

// One part of a multipart/form-data body: a file when fileName is not empty,
// else a form field.
struct FormPart {
  std::string name;
  std::string fileName;
  std::string contentType;
  std::string content;
};

struct HttpInput {
  std::string method;           // as sent ("GET", "post", ...)
  std::string target;           // path and query as sent, percent-encoded
  HeaderList headers;           // names compare case-insensitively
  std::string body;             // the raw body (not used when multipart)
  bool multipart = false;       // the body arrived as multipart/form-data
  std::vector<FormPart> parts;  // its parts, in order
  std::string clientAddress;
};

struct HttpOutput {
  int status = 200;
  std::string contentType = "application/json";
  HeaderList headers;  // further headers of the answer (never Content-Type)
  std::string body;
  std::string user;     // the session's user, for the access log ("" without one)
  std::string session;  // the session's public identifier, for the access log
  // The route the answer belongs to, for the metrics: a registered URL
  // ("/kestrel_task", "/v1/alarm/historyalarm"), a built-in path, or "other".
  std::string route = "other";
  long long code = 0;  // the error envelope's code, 0 for none
  // False for answers that may carry a secret (a token, a session id, a
  // verification code): the server then never compresses them, whatever the
  // client accepts, so that no secret shares a compressed stream with text
  // an attacker chose (BREACH).
  bool compressible = true;
};

// Finds a session by its token. On success fills the session side of `info`
// and returns true; returns false for an unknown or expired token.
using SessionLookup = std::function<bool(const std::string& token, CSessionInfo& info)>;

struct DispatchOptions {
  size_t maxBody = size_t{2} * 1024 * 1024;  // bytes of JSON body or of all file parts together
  std::string openApi;                       // the text served at GET /openapi.json
  // Adds the health of what the gateway depends on (the backend, the
  // session store) to the /healthz answer (its "status" member is "ok");
  // returns false when the gateway cannot serve now, which answers 503.
  // Must not wait for anything remote: /healthz is answered on an I/O
  // thread (HealthMonitor::report).
  std::function<bool(Json::Value& health)> health;
  // The web console's files by their path below /console/ ("index.html",
  // "js/app.js"); empty: no console.
  std::map<std::string, std::string> console;
  // The request metrics (counted by the server) and their text for
  // GET /metrics, served only to the client addresses metricsAllowed
  // accepts (others get 404). Null/unset: no /metrics.
  Metrics* metrics = nullptr;
  std::function<std::string()> metricsText;
  std::function<bool(const std::string& clientAddress)> metricsAllowed;
  // Who may call what, and what each route is (public, uploads, secrets,
  // logins); null: the host's installed table (installedAccessTable()).
  std::shared_ptr<const AccessTable> access;
};

// The route labels a Dispatcher over `registry` gives its answers (besides
// "other"): every registered route ("/v1/..." for the v1 interface) and the
// built-in paths.
std::vector<std::string> routeLabels(const CSpecifyProc& registry);

// What a path (with or without its query) is to the gateway: a route of
// the registry (kNone), a check it answers from its own state (/healthz,
// /metrics), or a fixed document (/openapi.json, the console's files).
enum class BuiltInPath { kNone, kCheck, kDocument };
BuiltInPath builtInPath(const std::string& target);

// The Retry-After of every 503 answer (busy, backend or session store not
// available), in seconds.
extern const char kRetryAfterSeconds[];  // "1"

// The header, and its one value, that a state-changing request must carry
// when its session comes from the cookie (the console sends it on every
// request). A page on another site cannot add it to a request it makes the
// browser send, so the cookie alone never changes anything.
extern const char kCsrfHeader[];       // "X-Requested-With"
extern const char kCsrfHeaderValue[];  // "nox-console"

// The Content-Security-Policy of the console's pages and files: everything
// from the gateway itself, no inline script or style, no framing.
extern const char kConsolePolicy[];

// Percent-decoding. `plusIsSpace` also turns '+' into a blank (query texts).
// Malformed escapes are kept as they are.
//   urlDecode("a%2Fb+c", true) == "a/b c", urlDecode("%zz", false) == "%zz"
std::string urlDecode(const std::string& text, bool plusIsSpace);

// Splits "a=1&b=x%20y&c" into {("a","1"), ("b","x y"), ("c","")}, decoding
// names and values; empty pieces are skipped.
std::vector<std::pair<std::string, std::string>> parseQuery(const std::string& query);

// The value of header `name` (case-insensitive), or "".
std::string headerValue(const HeaderList& headers, const std::string& name);

// The content type the console's file `path` is served with, from its suffix:
//   consoleContentType("js/app.js") == "text/javascript; charset=utf-8"
// Unknown suffixes are "application/octet-stream".
std::string consoleContentType(const std::string& path);

// The language from an Accept-Language value: "zh" when the first choice
// starts with "zh" (any case), else "en".
std::string languageFromAcceptLanguage(const std::string& value);

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

class Dispatcher {
 public:
  Dispatcher(const CSpecifyProc& registry, SessionLookup lookup, DispatchOptions options);

  // Serves one request: built-in paths (/healthz, /openapi.json, /metrics,
  // the console below /console/), then the registry. Never throws; every
  // failure becomes an answer with the error envelope.
  HttpOutput handle(const HttpInput& in) const;

  Metrics* metrics() const { return options_.metrics; }

  // The access rule of `method` on `target` (path, with or without its
  // query); the table's fallback for a path no route serves.
  const AccessRule& ruleFor(const std::string& method, const std::string& target) const;

 private:
  HttpOutput dispatch(const HttpInput& in, std::string* route) const;
  HttpOutput serveRoute(const HttpInput& in, const RouteMatch& match, const std::string& path,
                        const std::string& query) const;
  HttpOutput serveConsole(const HttpInput& in, const std::string& path) const;
  // The answer that refuses the call before its operation runs (no session,
  // a scope the table does not allow, a cookie request without the
  // console's header, a login form without it); nullopt: go on.
  std::optional<HttpOutput> refuse(const HttpInput& in, const AccessRule& rule,
                                   const std::string& label, bool haveSession, bool fromCookie,
                                   const CSessionInfo& info) const;
  HttpOutput invoke(const HttpInput& in, const CSpecifyProc::Route& route,
                    const std::string& path, CRequestMsg& request,
                    HttpRequest& connection) const;

  const CSpecifyProc& registry_;
  SessionLookup lookup_;
  DispatchOptions options_;
  std::shared_ptr<const AccessTable> access_;
};

// An error answer: the status for `code` and the envelope.
HttpOutput errorOutput(long long code, const std::string& description);

// Renders what an operation left: the JSON body as it stands for content
// kinds 1 and 3 (kind 3 with the Content-Type the operation set), else the
// JSON body when there is one, else the generic conversion of the reply.
// `connection` supplies the headers the operation set.
HttpOutput renderResponse(const CRequestMsg& request, const CResponseMsg& response,
                          const HttpRequest& connection);

}  // namespace gw

#endif  // NOX_GATEWAY_HTTP_MAPPING_H_
