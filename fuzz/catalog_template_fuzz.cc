// Fuzzes the catalogue's placeholder handling: replaceParameter, getParameter
// and getEnumName on arbitrary templates and parameters.
//
// Input: the template, then a NUL byte, then the parameters joined by "#@#".
// Besides looking for crashes it compares replaceParameter with a plain
// transcription of the substitution pass that copies the rest of the text
// after every placeholder, so that the linear version keeps its behaviour.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "string_utils.h"
#include "reference_substitution.h"
#include "trace_sink.h"
#include "xml_config_parser.h"

namespace {

struct Enums {
  std::string text(const std::string& name, const std::string& value) {
    return "<" + name + "=" + value + ">";
  }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setTraceLevel(TraceLevel::kOff);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;  // the pass is linear; long inputs only slow the search
  std::string input(reinterpret_cast<const char*>(data), size);
  size_t nul = input.find('\0');
  std::string text = input.substr(0, nul);
  std::string joined = nul == std::string::npos ? std::string() : input.substr(nul + 1);
  std::vector<std::string> params;
  CCommon::splitUsingRegex(joined, "#@#", params, false);

  Enums enums;
  std::string fast = StringUtil::replaceParameter(text, params, &Enums::text, enums);
  std::string slow = referenceSubstitution(text, params, enums);
  if (fast != slow) std::abort();
  if (text.find("##") == std::string::npos && fast != text) std::abort();

  // Every position of the text, as getParameter's callers could pass it.
  for (size_t pos = 0; pos <= text.size(); ++pos) {
    size_t end = 0;
    std::string name;
    int index = StringUtil::getParameter(text, pos, end, name);
    if (index < -1 || index > 99999) std::abort();
    if (index >= 0 && (end <= pos || end > text.size())) std::abort();
    size_t end2 = 0;
    std::string name2;
    StringUtil::getEnumName(text, pos, end2, name2);
    if (end2 > text.size()) std::abort();
  }
  StringUtil::replace(text, joined, "x");
  return 0;
}
