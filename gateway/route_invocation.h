// Route invocation: one registered operation asked with a filled request,
// and what it left (or threw) rendered as the HTTP answer.
//
//   HttpOutput out = invokeOperation(route, "GET", "/kestrel_task/T-1", request, connection);
//
// Thread-safety: plain functions; the operations lock what they share.
#ifndef NOX_GATEWAY_ROUTE_INVOCATION_H_
#define NOX_GATEWAY_ROUTE_INVOCATION_H_

#include <string>

#include "http_exchange.h"
#include "operation_base.h"
#include "qpn_exception.h"
#include "request_msg.h"

namespace gw {

// Asks `route`'s operation with `method` and `request` (whose session
// points at `connection`); never throws. `sentPath` is the path as the
// client sent it, for the log. A route that does not serve the
// method gives 405, an operation's error code its envelope, an exception
// of the host's its code, any other exception 500 (logged with the cause).
HttpOutput invokeOperation(const CSpecifyProc::Route& route, const std::string& method,
                           const std::string& sentPath, CRequestMsg& request,
                           HttpRequest& connection);

// The description of a coded exception: the sentence the thrower gave in
// place of its source name ("The user scope is invalid."), else the fixed
// text of its code, else a general text. Source names ("src/ucore/NOXLogin")
// hold no blank and never reach the client.
std::string describeException(const QPNExceptionWithErrCode_& e);

// Renders what an operation left: the JSON body as it stands for content
// kinds 1 and 3 (kind 3 with the Content-Type the operation set), else the
// JSON body when there is one, else the generic conversion of the reply.
// `connection` supplies the headers the operation set.
HttpOutput renderResponse(const CRequestMsg& request, const CResponseMsg& response,
                          const HttpRequest& connection);

}  // namespace gw

#endif  // NOX_GATEWAY_ROUTE_INVOCATION_H_
