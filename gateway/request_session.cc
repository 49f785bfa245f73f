#include "request_session.h"

#include "qpn_exception.h"
#include "route_invocation.h"
#include "session_token.h"

namespace gw {

RequestSession findRequestSession(const HttpRequest& connection, const SessionLookup& lookup,
                                  CSessionInfo& info) {
  RequestSession session;
  session.token = sessionTokenOf(connection, &session.fromCookie);
  if (session.token.empty() || !lookup) return session;
  try {
    session.found = lookup(session.token, info);
  } catch (const QPNExceptionWithErrCode_& e) {
    session.unavailable = errorOutput(e.getErrCode(), describeException(e));
  }
  return session;
}

}  // namespace gw
