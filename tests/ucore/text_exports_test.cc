// The host finds the text utilities and the comparison objects in
// libucore_nox.so by name: they must be in its dynamic symbol table, the
// comparison objects under their plain names, and the helpers behind them
// must stay hidden.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Lines of `nm -D --defined-only -C` over the plug-in (tests run in bin/).
std::vector<std::string> exportedSymbols() {
  std::vector<std::string> lines;
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(
      popen("nm -D --defined-only -C ../lib/libucore_nox.so 2>/dev/null", "r"), pclose);
  if (!pipe) return lines;
  char buffer[4096];
  std::string line;
  while (std::fgets(buffer, sizeof(buffer), pipe.get()) != nullptr) {
    line += buffer;
    if (!line.empty() && line.back() == '\n') {
      line.pop_back();
      lines.push_back(line);
      line.clear();
    }
  }
  return lines;
}

// The symbol part of an nm line: "0000000000001234 T name" -> "name".
std::string symbolOf(const std::string& line, char* type) {
  std::istringstream in(line);
  std::string address;
  std::string kind;
  in >> address >> kind;
  std::string rest;
  std::getline(in, rest);
  if (!rest.empty() && rest[0] == ' ') rest.erase(0, 1);
  *type = kind.empty() ? '?' : kind[0];
  return rest;
}

class TextExportsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    lines_ = exportedSymbols();
    if (lines_.empty()) GTEST_SKIP() << "nm or ../lib/libucore_nox.so not available";
  }

  bool hasData(const std::string& name) const {
    for (const std::string& line : lines_) {
      char type;
      if (symbolOf(line, &type) == name && (type == 'D' || type == 'B' || type == 'R')) return true;
    }
    return false;
  }

  // A function whose demangled name starts with `name` and its argument list
  // (possibly after an ABI tag).
  int functionCount(const std::string& name) const {
    int n = 0;
    for (const std::string& line : lines_) {
      char type;
      const std::string symbol = symbolOf(line, &type);
      if (type != 'T') continue;
      if (symbol.compare(0, name.size() + 1, name + "(") == 0 ||
          symbol.compare(0, name.size() + 1, name + "[") == 0) {
        ++n;
      }
    }
    return n;
  }

  bool mentions(const std::string& text) const {
    for (const std::string& line : lines_) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  }

  std::vector<std::string> lines_;
};

TEST_F(TextExportsTest, ComparisonObjectsUnderPlainNames) {
  for (const char* name : {"STR_EQUAL", "CHAR_EQUAL", "STR_CASE_EQUAL", "CHAR_CASE_EQUAL",
                           "STR_EQUAL_PRE", "STR_CASE_EQUAL_PRE"}) {
    EXPECT_TRUE(hasData(name)) << name;
  }
}

TEST_F(TextExportsTest, TextFunctions) {
  struct Expected {
    const char* name;
    int overloads;
  } functions[] = {
      {"lStrStrip", 1},
      {"rStrStrip", 1},
      {"findCase", 1},
      {"comPrefixLen", 1},
      {"findPrefix", 2},
      {"addEscape", 1},
      {"parseEscape", 1},
      {"replaceEscape", 1},
      {"getLenWithEscape", 1},
      {"joinString", 1},
      {"splitString_Escape", 2},
      {"isNum", 1},
      {"isNumber", 2},
      {"convertToNum", 1},
      {"format_num_str", 1},
      {"getUTF8CharByteNum", 1},
      {"getUTF8ChineseCharNum", 1},
      {"CCommon::split", 1},
      {"CCommon::splitUsingRegex", 1},
  };
  for (const Expected& f : functions) {
    EXPECT_EQ(functionCount(f.name), f.overloads) << f.name;
  }
}

TEST_F(TextExportsTest, ComparatorClassesCarryTheirTypeInformation) {
  for (const char* name :
       {"vtable for EqualCaseStr", "vtable for EqualCaseChar", "vtable for CStrEqualPred",
        "typeinfo for EqualCaseStr", "typeinfo for CStrEqualPred", "vtable for vequal_to<char>"}) {
    EXPECT_TRUE(mentions(name)) << name;
  }
}

TEST_F(TextExportsTest, HelpersStayHidden) {
  for (const char* name :
       {"findInList", "leadByteLength", "unescape", "Pcre2CodeFree", "errorPosition"}) {
    EXPECT_FALSE(mentions(name)) << name;
  }
}

}  // namespace
