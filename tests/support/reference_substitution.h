// The catalogue's substitution pass as first written: it copies the rest of
// the template after every placeholder. StringUtil::replaceParameter scans by
// offset instead and must give the same text for every input; tests and the
// fuzz target compare the two.
//
//   std::string expected = referenceSubstitution(text, params, enums);
//   // enums.text(name, value) renders an enumeration reference
#ifndef NOX_TESTS_SUPPORT_REFERENCE_SUBSTITUTION_H_
#define NOX_TESTS_SUPPORT_REFERENCE_SUBSTITUTION_H_

#include <string>
#include <vector>

#include "xml_config_parser.h"

template <typename Enums>
std::string referenceSubstitution(const std::string& text, const std::vector<std::string>& params,
                                  Enums& enums) {
  if (text.empty()) return std::string();
  std::string rest = text;
  std::string out;
  size_t pos = rest.find("##");
  while (pos != std::string::npos) {
    out += rest.substr(0, pos);
    size_t end = 0;
    std::string enumName;
    const int i = StringUtil::getParameter(rest, pos, end, enumName);
    size_t next;
    if (i == -1) {
      out += rest[pos];
      next = pos + 1;
    } else {
      std::string value = static_cast<size_t>(i) < params.size() ? params[i] : std::string();
      if (!enumName.empty()) value = enums.text(enumName, value);
      out += value;
      next = end != 0 ? end : pos + 2;
    }
    // Empty braces name `rest` from its start, as in the library.
    if (next >= rest.size()) next = rest.size() - 1;
    rest = rest.substr(next);
    pos = rest.find("##");
  }
  return out + rest;
}

#endif  // NOX_TESTS_SUPPORT_REFERENCE_SUBSTITUTION_H_
