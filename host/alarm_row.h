// One alarm as the alarm list answers it, from an alarm record of the
// backend: {"id", "severity", "name", "source", "occurTime", "clearTime",
// "detail"}. The list (host/alarm.cc) and the event stream both use it, so
// an alarm event's data is exactly a row of the list.
//
// Thread-safety: a pure function of its argument.
#ifndef NOX_HOST_ALARM_ROW_H_
#define NOX_HOST_ALARM_ROW_H_

#include <json/json.h>

#include "nox_visibility.h"
#include "tlv_package.h"

// Missing cells read as 0 or "". Throws QPNException for a cell that cannot
// be read as its kind.
HOST_API Json::Value alarmRowJson(const CR3MRecordV3& record);

#endif  // NOX_HOST_ALARM_ROW_H_
