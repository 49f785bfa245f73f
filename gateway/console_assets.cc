#include "console_assets.h"

#include <cstdint>
#include <cstdio>
#include <string>

#include "builtin_paths.h"
#include "compact_json.h"
#include "error_table.h"
#include "request_decoding.h"
#include "request_session.h"

namespace gw {

const char kConsoleSessionPath[] = "/console/session";
const char kSignedInMember[] = "signedIn";

namespace {

constexpr char kIfNoneMatch[] = "If-None-Match";

// Whether an If-None-Match value ("*", or tags separated by commas, maybe
// weak "W/") names `tag`.
bool matchesTag(const std::string& header, const std::string& tag) {
  size_t pos = 0;
  while (pos < header.size()) {
    size_t end = header.find(',', pos);
    if (end == std::string::npos) end = header.size();
    std::string item = header.substr(pos, end - pos);
    const size_t first = item.find_first_not_of(" \t");
    const size_t last = item.find_last_not_of(" \t");
    item = first == std::string::npos ? "" : item.substr(first, last - first + 1);
    if (item.compare(0, 2, "W/") == 0) item = item.substr(2);
    if (item == "*" || item == tag) return true;
    pos = end + 1;
  }
  return false;
}

// The headers every console file carries, 200 or 304.
void addFileHeaders(const std::string& tag, HttpOutput* out) {
  out->headers.emplace_back("ETag", tag);
  // The files change only with the gateway; a browser checks before reuse.
  out->headers.emplace_back("Cache-Control", "no-cache");
  out->headers.emplace_back("Content-Security-Policy", kConsolePolicy);
  out->headers.emplace_back("Referrer-Policy", "no-referrer");
  out->headers.emplace_back("X-Frame-Options", "DENY");
  out->headers.emplace_back("Cross-Origin-Opener-Policy", "same-origin");
  out->headers.emplace_back("Cross-Origin-Resource-Policy", "same-origin");
}

// Relative links in the pages need the trailing slash.
HttpOutput redirectHome() {
  HttpOutput out;
  out.status = 301;
  out.contentType = "text/html; charset=utf-8";
  out.headers.emplace_back("Location", kConsolePrefix);
  out.body = std::string("<!doctype html>\n<title>Moved</title>\n<p>The console is at <a href=\"") +
             kConsolePrefix + "\">" + kConsolePrefix + "</a>.</p>\n";
  return out;
}

HttpOutput sessionAnswer(const HttpInput& in, const SessionLookup& lookup) {
  HttpRequest connection(in.method, kConsoleSessionPath, in.clientAddress);
  for (const auto& header : in.headers) connection.addHeader(header.first, header.second);
  CSessionInfo info;
  const RequestSession session = findRequestSession(connection, lookup, info);
  // The session store cannot say: the same answer as any session check.
  if (session.unavailable) return *session.unavailable;
  Json::Value envelope(Json::objectValue);
  envelope["data"][kSignedInMember] = session.found;
  envelope["error"]["code"] = 0;
  envelope["error"]["description"] = "0";
  HttpOutput out;
  out.body = toCompactJson(envelope);
  return out;
}

}  // namespace

std::string consoleETag(const std::string& bytes) {
  uint64_t hash = 14695981039346656037ULL;
  for (const unsigned char c : bytes) {
    hash ^= c;
    hash *= 1099511628211ULL;
  }
  char text[21];
  std::snprintf(text, sizeof(text), "\"%016llx\"", static_cast<unsigned long long>(hash));
  return text;
}

HttpOutput consoleAnswer(const HttpInput& in, const std::string& path,
                         const std::map<std::string, std::string>& files,
                         const SessionLookup& lookup) {
  if (path == "/console") return redirectHome();
  if (path == kConsoleSessionPath) return sessionAnswer(in, lookup);
  // The path is compared as sent: no decoding, so no dot segment or encoded
  // slash can name anything but one of the compiled-in files.
  std::string name = path.substr(std::char_traits<char>::length(kConsolePrefix));
  if (name.empty()) name = "index.html";
  const auto file = files.find(name);
  if (file == files.end()) return errorOutput(kErrRouteNotFound, describeCode(kErrRouteNotFound));
  HttpOutput out;
  out.contentType = consoleContentType(name);
  const std::string tag = consoleETag(file->second);
  addFileHeaders(tag, &out);
  if (matchesTag(headerValue(in.headers, kIfNoneMatch), tag)) {
    out.status = 304;
    return out;
  }
  out.body = file->second;
  return out;
}

}  // namespace gw
