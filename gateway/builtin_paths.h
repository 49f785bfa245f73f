// The paths the gateway answers itself, before any route of the registry:
// the checks (/healthz, /metrics), which read only what the gateway already
// knows, and the fixed documents (/openapi.json, the console's files below
// /console/).
//
//   BuiltInContent content;
//   content.openApi = openApiText;
//   std::string route;
//   std::optional<HttpOutput> out = serveBuiltIn(content, in, "/openapi.json", &route);
//   // out->status == 200, route == "/openapi.json"
//
// Thread-safety: plain functions over immutable content.
#ifndef NOX_GATEWAY_BUILTIN_PATHS_H_
#define NOX_GATEWAY_BUILTIN_PATHS_H_

#include <json/json.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "console_assets.h"
#include "http_exchange.h"

namespace gw {

// What a path (without its query) is to the gateway: a route of the
// registry (kNone), a check it answers from its own state (/healthz,
// /metrics), or a fixed document (/openapi.json, the console's files).
enum class BuiltInPath { kNone, kCheck, kDocument };
BuiltInPath builtInPath(const std::string& path);

// The labels of the built-in paths in the metrics.
extern const std::vector<std::string> kBuiltInLabels;

// What the built-in paths serve; each one is absent while its member is empty.
struct BuiltInContent {
  std::string openApi;  // the text served at GET /openapi.json
  // Adds the health of what the gateway depends on (the backend, the
  // session store) to the /healthz answer (its "status" member is "ok");
  // returns false when the gateway cannot serve now, which answers 503.
  // Must not wait for anything remote: /healthz is answered on an I/O
  // thread (HealthMonitor::report).
  std::function<bool(Json::Value& health)> health;
  // The web console's files by their path below /console/ ("index.html",
  // "js/app.js"); empty: no console.
  std::map<std::string, std::string> console;
  // Answers the console's session question (kConsoleSessionPath); the
  // Dispatcher sets it to its own session lookup. Unset: always signed out.
  SessionLookup consoleSession;
  // The text of GET /metrics, served only to the client addresses
  // metricsAllowed accepts (others get 404). Unset: no /metrics.
  std::function<std::string()> metricsText;
  std::function<bool(const std::string& clientAddress)> metricsAllowed;
};

// The answer of built-in path `path` (percent-encoded, without query), with
// its metrics label in *route; nullopt when `path` is none that `content`
// serves.
std::optional<HttpOutput> serveBuiltIn(const BuiltInContent& content, const HttpInput& in,
                                       const std::string& path, std::string* route);

// Where the console's page is; the files are below it.
extern const char kConsolePrefix[];  // "/console/"

// The Content-Security-Policy of the console's pages and files: everything
// from the gateway itself, no inline script or style, no framing.
extern const char kConsolePolicy[];

// The content type the console's file `path` is served with, from its suffix:
//   consoleContentType("js/app.js") == "text/javascript; charset=utf-8"
// Unknown suffixes are "application/octet-stream".
std::string consoleContentType(const std::string& path);

}  // namespace gw

#endif  // NOX_GATEWAY_BUILTIN_PATHS_H_
