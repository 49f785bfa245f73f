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

const std::vector<std::string> kBuiltInLabels = {"/healthz", "/openapi.json", "/metrics",
                                                 "/console"};

namespace {

const char kConsolePrefix[] = "/console/";
constexpr size_t kConsolePrefixLength = sizeof(kConsolePrefix) - 1;

HttpOutput methodNotAllowed() {
  return errorOutput(kErrMethodNotAllowed, describeCode(kErrMethodNotAllowed));
}

HttpOutput notFound() { return errorOutput(kErrRouteNotFound, describeCode(kErrRouteNotFound)); }

HttpOutput serveMetrics(const BuiltInContent& content, const HttpInput& in, std::string* route) {
  if (!content.metricsAllowed || !content.metricsAllowed(in.clientAddress)) return notFound();
  *route = "/metrics";
  if (!isReadMethod(in.method)) return methodNotAllowed();
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

HttpOutput serveConsole(const BuiltInContent& content, const HttpInput& in,
                        const std::string& path) {
  if (!isReadMethod(in.method)) return methodNotAllowed();
  // Relative links in the pages need the trailing slash.
  if (path == "/console") {
    HttpOutput out;
    out.status = 301;
    out.headers.emplace_back("Location", kConsolePrefix);
    return out;
  }
  // The path is compared as sent: no decoding, so no dot segment or encoded
  // slash can name anything but one of the compiled-in files.
  std::string name = path.substr(kConsolePrefixLength);
  if (name.empty()) name = "index.html";
  const auto file = content.console.find(name);
  if (file == content.console.end()) return notFound();
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
  if (path == "/metrics" && content.metricsText) return serveMetrics(content, in, route);
  if (path == "/healthz" || path == "/openapi.json") {
    *route = path;
    if (!isReadMethod(in.method)) return methodNotAllowed();
    if (path == "/healthz") return serveHealth(content);
    HttpOutput out;
    out.body = content.openApi;
    return out;
  }
  if (!content.console.empty() && isConsolePath(path)) {
    *route = "/console";
    return serveConsole(content, in, path);
  }
  return std::nullopt;
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
