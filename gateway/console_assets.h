// The answers below /console: the console's files with a validator, the
// redirect of the bare /console, and the console's question whether the
// browser is signed in.
//
//   HttpOutput out = consoleAnswer(in, "/console/js/app.js", files, lookup);
//   // 200 with ETag: "<16 hex digits>" and Cache-Control: no-cache, or 304
//   // when in carries If-None-Match with that ETag.
//
// Thread-safety: pure functions over constant data; consoleAnswer() calls
// `lookup`, which must be safe to call from any thread. The built-in paths
// (builtin_paths.h) hand every path below /console here.
#ifndef NOX_GATEWAY_CONSOLE_ASSETS_H_
#define NOX_GATEWAY_CONSOLE_ASSETS_H_

#include <functional>
#include <map>
#include <string>

#include "http_exchange.h"
#include "request_msg.h"
#include "request_session.h"

namespace gw {

// The console's session question. Unlike GET /sessions it needs no session:
// it answers 200 {"data": {"signedIn": true|false}, "error": {"code": 0, ...}}
// whether or not the request names a live session, so that a signed-out
// visit leaves no failed request in the browser's log.
extern const char kConsoleSessionPath[];  // "/console/session"
// The member of its answer.
extern const char kSignedInMember[];  // "signedIn"

// The strong validator of a console file: a 64-bit FNV-1a digest of its
// bytes as 16 hex digits in quotes. The same bytes give the same tag on every
// gateway, so a browser's copy stays valid across restarts and nodes.
//   consoleETag("") == "\"cbf29ce484222325\""
std::string consoleETag(const std::string& bytes);

// Answers a GET or HEAD of `path` ("/console", "/console/...") from `files`
// (by their path below console/): the file with its type, policy headers,
// ETag and Cache-Control ("no-cache": a browser asks before each reuse), or
// 304 with no body when If-None-Match names its ETag; "/console" redirects
// (301) to "/console/" with a short HTML body; kConsoleSessionPath answers
// the session question through `lookup`. Unknown files: 404 with the error
// envelope. Other methods never come here: serveBuiltIn answers them 405.
HttpOutput consoleAnswer(const HttpInput& in, const std::string& path,
                         const std::map<std::string, std::string>& files,
                         const SessionLookup& lookup);

}  // namespace gw

#endif  // NOX_GATEWAY_CONSOLE_ASSETS_H_
