// nox-catalog: each kind of catalogue fault is found in a fixture made for it,
// and render prints what the library renders.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <vector>

#include "xml_config_parser.h"

namespace {

struct ToolRun {
  int status = -1;
  std::string out;
};

std::string quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) {
    if (c == '\'')
      q += "'\\''";
    else
      q += c;
  }
  return q + "'";
}

ToolRun run(const std::vector<std::string>& args, bool withStderr = false) {
  std::string cmd = quote(NOX_CATALOG_TOOL);
  for (const std::string& a : args) cmd += " " + quote(a);
  cmd += withStderr ? " 2>&1" : " 2>/dev/null";
  ToolRun r;
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return r;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), p)) > 0) r.out.append(buf, n);
  int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

std::string fixture(const std::string& name) {
  return std::string(NOX_CATALOG_FIXTURES) + "/" + name;
}

TEST(NoxCatalogCheckTest, ShippedCataloguesPass) {
  ToolRun r = run({"check", NOX_SOURCE_CONF});
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("no findings"), std::string::npos) << r.out;
}

TEST(NoxCatalogCheckTest, GoodFixturesPass) {
  for (const char* name : {"good", "good_intended_literal"}) {
    ToolRun r = run({"check", fixture(name)});
    EXPECT_EQ(r.status, 0) << name << "\n" << r.out;
  }
}

TEST(NoxCatalogCheckTest, EachFaultIsFound) {
  struct Case {
    const char* fixture;
    const char* finding;  // "FILE:LINE: ID: start of the text"
  } cases[] = {
      {"malformed_xml", "task_extra_info_en.xml:3: -: not well-formed XML"},
      {"missing_file", "enum_zh.xml:0: -: not well-formed XML or unreadable"},
      {"messages_as_root", "task_extra_info_zh.xml:2: -: no <messages> element under the root"},
      {"no_param_enum", "enum_en.xml:2: -: no <param_enum> element under the root"},
      {"repeated_id", "task_extra_info_en.xml:7: 1001: repeated message id: the entry at line 5"},
      {"message_without_id", "task_extra_info_zh.xml:7: -: message without an id"},
      {"text_content", "task_extra_info_en.xml:6: 1002: text or elements inside <message>"},
      {"id_missing_in_zh", "task_extra_info_en.xml:7: 1003: missing from task_extra_info_zh.xml"},
      {"placeholder_mismatch",
       "task_extra_info_zh.xml:6: 1002: placeholders ##1 ##2 differ from "
       "task_extra_info_en.xml:6 (##0 ##1)"},
      {"enum_reference_mismatch",
       "task_extra_info_zh.xml:5: 1001: enumeration references 1{data_unit} differ from "
       "task_extra_info_en.xml:5 (1{task_status})"},
      {"enum_missing",
       "task_extra_info_en.xml:7: 1003: references enumeration \"backup_level\", which "
       "enum_en.xml lacks"},
      {"enum_missing_in_one_language",
       "enum_en.xml:12: backup_level: enumeration missing from enum_zh.xml"},
      {"enum_codes_differ", "enum_zh.xml:8: data_unit: codes 0,2 differ from enum_en.xml:8 (0,1)"},
      {"enum_value_dropped", "enum_en.xml:11: data_unit: enum_member without a value is dropped"},
      {"enum_value_dropped", "enum_en.xml:12: data_unit: enum_member value \"three\" is dropped"},
      {"enum_value_dropped", "enum_en.xml:13: data_unit: enum_member value \"-100\" is dropped"},
      {"repeated_enum", "enum_zh.xml:12: task_status: repeated enumeration: this one replaces"},
      {"enum_without_name", "enum_en.xml:12: -: enum_type without a name"},
      {"six_digits", "task_extra_info_en.xml:6: 1002: \"##123456\" has more than five digits"},
      {"two_word_braces",
       "task_extra_info_zh.xml:6: 1002: \"##1{data unit}\" is no enumeration reference (more "
       "than one word in braces)"},
      {"unclosed_braces",
       "task_extra_info_en.xml:6: 1002: \"##1{data_unit\" is no enumeration reference (braces "
       "never closed)"},
      {"empty_braces", "task_extra_info_en.xml:6: 1002: \"##1{ }\" has empty braces"},
  };
  for (const Case& c : cases) {
    ToolRun r = run({"check", fixture(c.fixture)});
    EXPECT_EQ(r.status, 1) << c.fixture << "\n" << r.out;
    std::string expected = fixture(c.fixture) + "/" + c.finding;
    bool found = false;
    size_t start = 0;
    while (start < r.out.size()) {
      size_t eol = r.out.find('\n', start);
      std::string line =
          r.out.substr(start, eol == std::string::npos ? std::string::npos : eol - start);
      if (line.compare(0, expected.size(), expected) == 0) found = true;
      if (eol == std::string::npos) break;
      start = eol + 1;
    }
    EXPECT_TRUE(found) << c.fixture << ": expected a line starting with\n  " << expected
                       << "\ngot:\n"
                       << r.out;
  }
}

TEST(NoxCatalogCheckTest, UsageErrors) {
  EXPECT_EQ(run({}).status, 2);
  EXPECT_EQ(run({"check"}).status, 2);
  EXPECT_EQ(run({"render", "1000"}).status, 2);                  // no language
  EXPECT_EQ(run({"render", "--lang", "fr", "1000"}).status, 2);  // unknown language
}

TEST(NoxCatalogRenderTest, PrintsTheFinishedText) {
  ToolRun r = run({"render", "--lang", "zh", "--conf", fixture("good"), "1001", "t1#@#2"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "任务 t1 的状态为完成。 \n");  // the finished text keeps its blank
  ToolRun none = run({"render", "--lang", "en", "--conf", fixture("good"), "9999"}, true);
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.out.find("no message 9999"), std::string::npos) << none.out;
}

TEST(NoxCatalogRenderTest, MatchesTheLibraryForEveryShippedMessage) {
  const std::string params = "p0#@#1#@#2#@#3#@#4#@#5#@#6";
  for (const char* lang : {"en", "zh"}) {
    std::string conf = NOX_SOURCE_CONF;
    CXmlConfigParser<MessageInfo> parser;
    parser.init(conf + "/task_extra_info_" + lang + ".xml", conf + "/enum_" + lang + ".xml");
    ASSERT_FALSE(parser.infoMap_.empty());
    std::vector<std::string> ids;
    for (const auto& entry : parser.infoMap_) ids.push_back(entry.first);
    // Every tenth message keeps the run short; the first and last are always in.
    for (size_t i = 0; i < ids.size(); i += (i + 10 < ids.size() ? 10 : 1)) {
      MessageInfo info;
      info.init();
      ASSERT_EQ(parser.getXmlInfo(ids[i], params, info, "#@#"), 0);
      ToolRun r = run({"render", "--lang", lang, "--conf", conf, ids[i], params});
      EXPECT_EQ(r.status, 0);
      EXPECT_EQ(r.out, info.template_ + "\n") << lang << " " << ids[i];
      if (i + 1 == ids.size()) break;
    }
  }
}

}  // namespace
