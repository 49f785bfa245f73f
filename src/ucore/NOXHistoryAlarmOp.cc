#include "NOXHistoryAlarmOp.h"

#include <json/json.h>
#include <strings.h>

#include "qpn_debug_kit.h"

namespace {

constexpr unsigned long long kListHistoryAlarms = 0xd00c90041ULL;
constexpr unsigned long long kCountHistoryAlarms = 0xd00c90096ULL;
// The count operation traces under the query module.
constexpr int kCountModule = 18;
// The count sits in this cell of the reply's record 0.
constexpr unsigned short kTagCount = 9;

}  // namespace

int NOXHistoryAlarmOp::op(const std::string& action, const std::string& resource,
                          CRequestMsg& request, CResponseMsg& response) {
  (void)resource;
  if (strcasecmp(action.c_str(), CRequestUri::URI_ACT_GET) != 0) return -1;
  // Whatever the host leaves in the response (alarms or its error envelope)
  // is the answer.
  queryAlarm(kListHistoryAlarms, request, response, true);
  parseAlarms(request, response, true);
  return 0;
}

int NOXHistoryAlarmCountOp::op(const std::string& action, const std::string& resource,
                               CRequestMsg& request, CResponseMsg& response) {
  (void)action;
  (void)resource;
  CQPNDebugKitGuard guard(kCountModule, "op");
  queryAlarm(kCountHistoryAlarms, request, response, false);

  Json::Value body;
  int count = 0;
  try {
    // The int conversion of the cell, as it stands: an 8-byte count is cut
    // to its low four bytes (0x100000001 reads 1, all bits set reads -1).
    count = static_cast<int>(response[0][kTagCount]);
  } catch (...) {
    // No count in the reply (a backend failure, a missing or non-numeric
    // cell) is answered as zero alarms. The warning names line 401, where
    // operators have always looked for it in the trace.
    guard.warn(0, "op", 401, "count history alarm failed");
    count = 0;
  }
  // Both spellings are kept: clients of the default interface read "COUNT",
  // those of "v1" read "count".
  const char* member = request.getInterfaceVersion() == "v1" ? "count" : "COUNT";
  body[member] = count;
  response.getJsonBody() = body;
  response.setContentKind(CResponseMsg::kContentJson);
  return 0;
}
