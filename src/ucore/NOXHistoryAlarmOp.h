// The history alarm routes: "/alarm/historyalarm" lists historical alarms,
// "/alarm/historyalarm/count" counts them. Each is registered for the default
// and the "v1" interface. The host does the backend query (queryAlarm) and
// the list's JSON (parseAlarms); these operations choose the command, the
// flags and the count's answer.
//
// Thread-safety: neither object changes after construction; both may serve
// several request threads at once.
#ifndef NOX_SRC_UCORE_NOXHISTORYALARMOP_H_
#define NOX_SRC_UCORE_NOXHISTORYALARMOP_H_

#include <string>

#include "request_msg.h"
#include "operation_base.h"

class NOXHistoryAlarmOp : public CHistoryAlarmOp {
 public:
  NOXHistoryAlarmOp() : flag_(true) {}
  ~NOXHistoryAlarmOp() override {}

  // CSpecifyOp (isSupport stays the default: every method):
  // GET (any letter case): queries the history alarms (command 0xd00c90041)
  // and lets the host turn the reply into the JSON body; returns 0 whatever
  // the host reported. Any other method: -1, nothing queried or written.
  int op(const std::string& action, const std::string& resource, CRequestMsg& request,
         CResponseMsg& response) override;

  // Set when the object is made; the operation itself does not read it.
  bool flag() const { return flag_; }

 private:
  bool flag_;
};

class NOXHistoryAlarmCountOp : public CHistoryAlarmCountOp {
 public:
  NOXHistoryAlarmCountOp() {}
  ~NOXHistoryAlarmCountOp() override {}

  // CSpecifyOp (isSupport stays the default: every method):
  // Counts for every method (command 0xd00c90096). The answer is {"count": n}
  // on the "v1" interface and {"COUNT": n} on any other, with content kind 1.
  // A reply without a numeric count (record 0, tag 9) gives 0 and the warning
  // "count history alarm failed". Always returns 0.
  int op(const std::string& action, const std::string& resource, CRequestMsg& request,
         CResponseMsg& response) override;
};

#endif  // NOX_SRC_UCORE_NOXHISTORYALARMOP_H_
