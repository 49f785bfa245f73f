// Library-wide constants. Every source file that includes this header holds
// its own copy (internal linkage), made when the library is loaded.
#ifndef NOX_INCLUDE_NOX_CONSTANTS_H_
#define NOX_INCLUDE_NOX_CONSTANTS_H_

#include <string>

// Opens a placeholder in a catalogue template: "##0", "##1{task_status}".
static const std::string PARAM_OPENER = "##";
// The catalogues, relative to the gateway's working directory (its bin/).
static const std::string TASK_EXTRA_INFO_EN_PATH = "../conf/task_extra_info_en.xml";
static const std::string TASK_EXTRA_INFO_ZH_PATH = "../conf/task_extra_info_zh.xml";
static const std::string ENUM_EN_PATH = "../conf/enum_en.xml";
static const std::string ENUM_ZH_PATH = "../conf/enum_zh.xml";

#endif  // NOX_INCLUDE_NOX_CONSTANTS_H_
