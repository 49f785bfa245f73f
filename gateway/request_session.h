// The session a request names: its token, read by the host's one rule
// (session_token.h: X-Auth-Token, else the session cookie), looked up in the
// session store. Every path that needs to know the session asks here: the
// routes, the console's session question and GET /events.
//
//   CSessionInfo info;
//   const RequestSession s = findRequestSession(connection, lookup, info);
//   if (s.unavailable) return *s.unavailable;   // the store could not say (503)
//   if (!s.found) ...                            // no live session
//
// Thread-safety: as `lookup`.
#ifndef NOX_GATEWAY_REQUEST_SESSION_H_
#define NOX_GATEWAY_REQUEST_SESSION_H_

#include <functional>
#include <optional>
#include <string>

#include "http_exchange.h"
#include "request_msg.h"

namespace gw {

// Finds a session by its token. On success fills the session side of `info`
// and returns true; returns false for an unknown or expired token; throws
// QPNExceptionWithErrCode_ when the store cannot answer.
using SessionLookup = std::function<bool(const std::string& token, CSessionInfo& info)>;

struct RequestSession {
  bool found = false;       // a live session, now in `info`
  bool fromCookie = false;  // its token came from the cookie (the CSRF rule applies)
  std::string token;        // "" when the request names none
  // The store could not say: the answer to give (no request goes through
  // unchecked).
  std::optional<HttpOutput> unavailable;
};

RequestSession findRequestSession(const HttpRequest& connection, const SessionLookup& lookup,
                                  CSessionInfo& info);

}  // namespace gw

#endif  // NOX_GATEWAY_REQUEST_SESSION_H_
