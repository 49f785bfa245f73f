#include "builtin_paths.h"

#include "error_table.h"
#include "request_decoding.h"

namespace gw {

// 'self' everywhere it matters; images may also be data: URLs (the
// verification code's picture comes as one in the challenge).
const char kConsolePolicy[] =
    "default-src 'self'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; font-src 'self'; object-src 'none'; base-uri 'none'; "
    "form-action 'self'; frame-ancestors 'none'";

const char kConsolePrefix[] = "/console/";

const std::vector<std::string> kBuiltInLabels = {"/healthz", "/openapi.json", "/metrics",
                                                 "/console"};

namespace {

constexpr size_t kConsolePrefixLength = sizeof(kConsolePrefix) - 1;

HttpOutput methodNotAllowed() {
  return errorOutput(kErrMethodNotAllowed, describeCode(kErrMethodNotAllowed));
}

HttpOutput notFound() { return errorOutput(kErrRouteNotFound, describeCode(kErrRouteNotFound)); }

HttpOutput serveMetrics(const BuiltInContent& content) {
  HttpOutput out;
  out.contentType = "text/plain; version=0.0.4; charset=utf-8";
  out.body = content.metricsText();
  return out;
}

HttpOutput serveHealth(const BuiltInContent& content) {
  Json::Value health(Json::objectValue);
  health["status"] = "ok";
  const bool ok = !content.health || content.health(health);
  if (!ok) health["status"] = "unavailable";
  return jsonOutput(ok ? 200 : 503, health);
}


bool isConsolePath(const std::string& path) {
  return path == "/console" || path.compare(0, kConsolePrefixLength, kConsolePrefix) == 0;
}

}  // namespace

BuiltInPath builtInPath(const std::string& path) {
  if (path == "/healthz" || path == "/metrics") return BuiltInPath::kCheck;
  if (path == "/openapi.json" || isConsolePath(path)) return BuiltInPath::kDocument;
  return BuiltInPath::kNone;
}

std::optional<HttpOutput> serveBuiltIn(const BuiltInContent& content, const HttpInput& in,
                                       const std::string& path, std::string* route) {
  if (path == "/metrics" && content.metricsText) {
    if (!content.metricsAllowed || !content.metricsAllowed(in.clientAddress)) return notFound();
    *route = path;
  } else if (path == "/healthz" || path == "/openapi.json") {
    *route = path;
  } else if (!content.console.empty() && isConsolePath(path)) {
    *route = "/console";
  } else {
    return std::nullopt;
  }
  // Every built-in path is read only.
  if (!isReadMethod(in.method)) return methodNotAllowed();
  if (path == "/metrics") return serveMetrics(content);
  if (path == "/healthz") return serveHealth(content);
  if (path == "/openapi.json") {
    HttpOutput out;
    out.body = content.openApi;
    return out;
  }
  return consoleAnswer(in, path, content.console, content.consoleSession);
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

}  // namespace gw
