// The plug-in exports its entry unmangled and nothing of its internals.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "command_lines.h"

namespace {

// "0000000000012345 T name" -> name (the rest of the line, demangled or not).
std::vector<std::string> definedSymbols(bool demangle) {
  std::vector<std::string> names;
  const std::string cmd = std::string("nm -D --defined-only ") + (demangle ? "-C " : "") + "'" +
                          NOX_PLUGIN_PATH + "' 2>/dev/null";
  for (const std::string& line : commandLines(cmd)) {
    if (line.size() < 19) continue;
    names.push_back(line.substr(19));
  }
  return names;
}

}  // namespace

TEST(ExportsTest, EntryAndMarkAreExportedUnmangled) {
  std::set<std::string> names;
  for (const std::string& n : definedSymbols(false)) names.insert(n);
  ASSERT_FALSE(names.empty()) << "nm found no symbols in " << NOX_PLUGIN_PATH;
  EXPECT_EQ(names.count("NOXRegisterOperations"), 1u);
  EXPECT_EQ(names.count("IMPORT_CERT_MARK"), 1u);
}

TEST(ExportsTest, NothingElseButTextFunctionsAndHostTypes) {
  if (NOX_SANITIZED) GTEST_SKIP() << "sanitizer builds add their own symbols";
  // Demangled names the plug-in may export.
  const std::regex allowed(
      "NOXRegisterOperations|IMPORT_CERT_MARK|"
      "(STR|CHAR)_(CASE_)?EQUAL|STR(_CASE)?_EQUAL_PRE|"
      "(lStrStrip|rStrStrip|findCase|comPrefixLen|findPrefix|addEscape|parseEscape|"
      "replaceEscape|getLenWithEscape|joinString|splitString_Escape|isNum|isNumber|"
      "convertToNum|format_num_str|getUTF8CharByteNum|getUTF8ChineseCharNum)"
      "(\\[abi:cxx11\\])?\\(.*|"
      "CCommon::(split|splitUsingRegex)\\(.*|"
      "(vequal_to<.*>|EqualCaseStr|EqualCaseChar|CStrEqualPred)::.*|"
      "(typeinfo for|typeinfo name for|vtable for) "
      "(vequal_to<.*>|EqualCaseStr|EqualCaseChar|CStrEqualPred|QPNException|"
      "QPNExceptionWithErrCode_|CMessageArgs|CR3MPackageV3|CResponseMsg|CSpecifyOp)");
  std::vector<std::string> unexpected;
  for (const std::string& name : definedSymbols(true)) {
    if (!std::regex_match(name, allowed)) unexpected.push_back(name);
  }
  std::string list;
  for (const std::string& n : unexpected) list += "  " + n + "\n";
  EXPECT_TRUE(unexpected.empty()) << "unexpected exports:\n" << list;
}
