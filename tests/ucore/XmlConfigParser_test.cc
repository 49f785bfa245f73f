// The catalogue's loading (messages and enumerations files) and its lookups.
#include "xml_config_parser.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <tinyxml2.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "nox_constants.h"
#include "trace_capture.h"

namespace {

// A folder made with mkdtemp and removed with everything in it.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "nox_catalog_XXXXXX").string();
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    const char* made = mkdtemp(buf.data());
    if (made != nullptr) path_ = made;
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }
  std::string write(const std::string& name, const std::string& content) const {
    std::string file = path_ + "/" + name;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << content;
    return file;
  }

 private:
  std::string path_;
};

std::string messagesFile(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<catalogue>\n<messages>\n" + body +
         "</messages>\n</catalogue>\n";
}

std::string enumsFile(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<enumerations>\n<param_enum>\n" + body +
         "</param_enum>\n</enumerations>\n";
}

const char kLevelEnum[] =
    "<enum_type name=\"level\">"
    "<enum_member value=\"1\">Low</enum_member>"
    "<enum_member value=\"2\">High</enum_member>"
    "</enum_type>\n";

int tinyxmlLoadCode(const std::string& path) {
  tinyxml2::XMLDocument doc;
  return static_cast<int>(doc.LoadFile(path.c_str()));
}

std::string render(CXmlConfigParser<MessageInfo>& parser, const std::string& id,
                   const std::string& params, int* result = nullptr) {
  MessageInfo info;
  info.init();
  int r = parser.getXmlInfo(id, params, info, "#@#");
  if (result != nullptr) *result = r;
  return info.template_;
}

class CatalogTest : public ::testing::Test {
 protected:
  void load(const std::string& messages, const std::string& enums) {
    xml_ = dir_.write("msg.xml", messagesFile(messages));
    enum_ = dir_.write("enum.xml", enumsFile(enums));
    parser_.init(xml_, enum_);
  }
  // Renders one template under the identifier "1", with a parser of its own
  // (a second load into one parser would keep the first template).
  std::string renderTemplate(const std::string& tpl, const std::string& params) {
    std::string escaped;
    for (char c : tpl) {
      if (c == '"')
        escaped += "&quot;";
      else if (c == '&')
        escaped += "&amp;";
      else if (c == '<')
        escaped += "&lt;";
      else
        escaped += c;
    }
    std::string xml =
        dir_.write("one.xml", messagesFile("<message id=\"1\" template=\"" + escaped + "\"/>\n"));
    std::string enums = dir_.write("one_enum.xml", enumsFile(kLevelEnum));
    CXmlConfigParser<MessageInfo> parser;
    parser.init(xml, enums);
    return render(parser, "1", params);
  }

  TempDir dir_;
  std::string xml_;
  std::string enum_;
  CXmlConfigParser<MessageInfo> parser_;
};

// ---------------------------------------------------------------------------
// Records and construction

TEST(MessageInfoTest, InitSetsUpTheRouterInReadingOrder) {
  MessageInfo info;
  EXPECT_TRUE(info.router_.fields_.empty());  // not initialised: empty router
  info.init();
  EXPECT_EQ(info.router_.rootName_, "messages");
  EXPECT_EQ(info.router_.itemName_, "message");
  ASSERT_EQ(info.router_.fields_.size(), 2u);
  EXPECT_EQ(info.router_.fields_[0].name_, "id");
  EXPECT_TRUE(info.router_.fields_[0].target_ == &MessageInfo::id_);
  EXPECT_TRUE(info.router_.fields_[0].isKey_);
  EXPECT_EQ(info.router_.fields_[1].name_, "template");
  EXPECT_TRUE(info.router_.fields_[1].target_ == &MessageInfo::template_);
  EXPECT_FALSE(info.router_.fields_[1].isKey_);
}

TEST(CatalogParserTest, NewParserIsEmpty) {
  CXmlConfigParser<MessageInfo> parser;
  EXPECT_EQ(parser.xmlPath_, "");
  EXPECT_EQ(parser.enumPath_, "");
  EXPECT_TRUE(parser.infoMap_.empty());
  EXPECT_TRUE(parser.enumMap_.empty());
}

// ---------------------------------------------------------------------------
// init and the messages file

TEST_F(CatalogTest, InitLoadsBothFilesAndSetsThePaths) {
  TraceCapture trace;
  load("<message id=\"7\" template=\"Seven\"/>\n", kLevelEnum);
  EXPECT_EQ(parser_.xmlPath_, xml_);
  EXPECT_EQ(parser_.enumPath_, enum_);
  ASSERT_EQ(parser_.infoMap_.count("7"), 1u);
  EXPECT_EQ(parser_.infoMap_["7"].id_, "7");
  EXPECT_EQ(parser_.infoMap_["7"].template_, "Seven");
  ASSERT_EQ(parser_.enumMap_.count("level"), 1u);
  EXPECT_EQ(parser_.enumMap_["level"].name_, "level");
  EXPECT_EQ(parser_.enumMap_["level"].items_.at(2), "High");
  EXPECT_TRUE(trace.has(TraceLevel::kDebug,
                        "init begin XML path: " + xml_ + ", Enum path: " + enum_ + "."));
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "init end...."));
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "insert  into map, key=7"));
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "parseXmlCfgItems begin.."));
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "parseXmlCfgItems end.."));
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "parseXmlEnumItem ,enumName:level"));
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "parseXmlEnumItem ,convertToNum:2 "));
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "parseXmlEnumItem ,enumName:level :2,High"));
  EXPECT_TRUE(trace.logs(TraceLevel::kError).empty()) << trace.dump();
  const std::vector<std::string> traces = trace.traces();
  for (const char* name : {"init", "parseXmlCfg", "parseXmlCfgItems", "parseXmlEnum",
                           "parseXmlEnumItems", "parseXmlEnumItem"}) {
    EXPECT_NE(std::find(traces.begin(), traces.end(), std::string("enter ") + name + "..."),
              traces.end())
        << name;
    EXPECT_NE(std::find(traces.begin(), traces.end(), std::string("leave ") + name + ": OK"),
              traces.end())
        << name;
  }
  for (const TraceRecord& r : trace.records()) EXPECT_EQ(r.module, 18) << r.text;
}

TEST_F(CatalogTest, MissingMessagesFileFailsWithTheTinyxmlCode) {
  TraceCapture trace;
  std::string missing = dir_.path() + "/none.xml";
  enum_ = dir_.write("enum.xml", enumsFile(kLevelEnum));
  parser_.init(missing, enum_);
  std::string expected = "Open xml config file(" + missing +
                         ") failed.\nerrno: " + std::to_string(tinyxml2::XML_ERROR_FILE_NOT_FOUND) +
                         ").";
  EXPECT_TRUE(trace.has(TraceLevel::kError, expected)) << trace.dump();
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Parse xml configured file failed."));
  EXPECT_EQ(parser_.xmlPath_, "");
  EXPECT_EQ(parser_.enumPath_, "");
  EXPECT_TRUE(parser_.enumMap_.empty());  // the enumerations are not read at all
  EXPECT_TRUE(trace.hasText("leave parseXmlCfg: NOK"));
  EXPECT_TRUE(trace.hasText("leave init: NOK"));
}

TEST_F(CatalogTest, MalformedMessagesFileLogsTheTinyxmlErrorCode) {
  TraceCapture trace;
  std::string bad = dir_.write("bad.xml", "<catalogue><messages></catalogue>");
  EXPECT_EQ(parser_.parseXmlCfg(bad, "0"), -1);
  // "errno" is tinyxml2's code and the ")." closes nothing; the line is kept
  // as operators and log filters know it.
  std::string expected = "Open xml config file(" + bad +
                         ") failed.\nerrno: " + std::to_string(tinyxmlLoadCode(bad)) + ").";
  EXPECT_TRUE(trace.has(TraceLevel::kError, expected)) << trace.dump();
}

// A declaration (and a comment) but no element: tinyxml2 loads it, and the
// missing root is the parser's own failure, for both kinds of file.
TEST_F(CatalogTest, DocumentWithoutRootElementFails) {
  TraceCapture trace;
  std::string noRoot = dir_.write("noroot.xml", "<?xml version=\"1.0\"?>\n<!-- nothing -->\n");
  ASSERT_EQ(tinyxmlLoadCode(noRoot), 0);
  EXPECT_EQ(parser_.parseXmlCfg(noRoot, "0"), -1);
  EXPECT_EQ(trace.count(TraceLevel::kError, "Parse root element failed!"), 1) << trace.dump();
  EXPECT_EQ(parser_.parseXmlEnum(noRoot, ""), -1);
  EXPECT_EQ(trace.count(TraceLevel::kError, "Parse root element failed!"), 2) << trace.dump();
  std::string declarationOnly = dir_.write("decl.xml", "<?xml version=\"1.0\"?>");
  ASSERT_EQ(tinyxmlLoadCode(declarationOnly), 0);
  EXPECT_EQ(parser_.parseXmlCfg(declarationOnly, "0"), -1);
  EXPECT_EQ(trace.count(TraceLevel::kError, "Parse root element failed!"), 3) << trace.dump();
}

// The enumeration record is the two members and nothing else.
TEST(XmlEnumTest, IsAPlainRecordOfNameAndItems) {
  EXPECT_FALSE(std::has_virtual_destructor<XmlEnum>::value);
  EXPECT_FALSE(std::is_polymorphic<XmlEnum>::value);
  EXPECT_EQ(sizeof(XmlEnum), sizeof(std::string) + sizeof(std::map<int32_t, std::string>));
  EXPECT_EQ(sizeof(XmlEnum), 80u);
}

// Codes beyond 32 bits, taken in the loader's order: the 64-bit conversion,
// then the -100 test on that value, then the 32-bit key. 4294967196 is not
// -100 when tested, so it is kept, and its key wraps to -100; 4294967298
// wraps to 2. The catalogue check (nox-catalog) is where such values are
// reported to authors.
TEST_F(CatalogTest, CodesBeyondThirtyTwoBitsWrapAtTheKey) {
  load("",
       "<enum_type name=\"e\">"
       "<enum_member value=\"4294967196\">wrapped to minus one hundred</enum_member>"
       "<enum_member value=\"4294967298\">wrapped to two</enum_member>"
       "</enum_type>");
  const std::map<int32_t, std::string> expected{{-100, "wrapped to minus one hundred"},
                                                {2, "wrapped to two"}};
  EXPECT_EQ(parser_.enumMap_["e"].items_, expected);
}

// A named load stops at the first enum_type of that name; a load-all keeps
// the last one.
TEST_F(CatalogTest, NamedLoadTakesTheFirstOfARepeatedName) {
  std::string file = dir_.write(
      "e.xml", enumsFile("<enum_type name=\"e\"><enum_member value=\"1\">first</enum_member>"
                         "</enum_type>"
                         "<enum_type name=\"e\"><enum_member value=\"1\">second</enum_member>"
                         "</enum_type>"));
  CXmlConfigParser<MessageInfo> named;
  EXPECT_EQ(named.parseXmlEnum(file, "e"), 0);
  EXPECT_EQ(named.enumMap_["e"].items_.at(1), "first");
  CXmlConfigParser<MessageInfo> all;
  EXPECT_EQ(all.parseXmlEnum(file, ""), 0);
  EXPECT_EQ(all.enumMap_["e"].items_.at(1), "second");
}

// Identifiers are taken as written: one that looks like a placeholder is an
// identifier like any other.
TEST_F(CatalogTest, IdentifierThatLooksLikeAPlaceholderIsKeptAsItIs) {
  load("<message id=\"##0\" template=\"t ##0\"/>", "");
  ASSERT_EQ(parser_.infoMap_.count("##0"), 1u);
  EXPECT_EQ(parser_.infoMap_["##0"].id_, "##0");
  EXPECT_EQ(parser_.infoMap_["##0"].template_, "t ##0");
}

// A member's text is what tinyxml2's GetText gives: the first child that is
// not a comment, when that child is text. A comment before the text is
// passed over; a member holding only a comment has no text and maps to "";
// an element before the text hides it.
TEST_F(CatalogTest, CommentsBeforeAMembersTextArePassedOver) {
  load("",
       "<enum_type name=\"e\">"
       "<enum_member value=\"1\"><!-- note -->after the comment</enum_member>"
       "<enum_member value=\"2\">before<!-- note --></enum_member>"
       "<enum_member value=\"3\"><!-- only a comment --></enum_member>"
       "<enum_member value=\"4\"><b/>after an element</enum_member>"
       "</enum_type>");
  const std::map<int32_t, std::string> expected{
      {1, "after the comment"}, {2, "before"}, {3, ""}, {4, ""}};
  EXPECT_EQ(parser_.enumMap_["e"].items_, expected);
}

TEST_F(CatalogTest, MessagesAsTheRootElementIsRejected) {
  // The messages element must be a child of the root, whatever the root's name.
  TraceCapture trace;
  std::string flat =
      dir_.write("flat.xml", "<messages><message id=\"1\" template=\"x\"/></messages>");
  EXPECT_EQ(parser_.parseXmlCfg(flat, "0"), -1);
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Parse event definition element failed!"));
  EXPECT_TRUE(trace.hasText("leave parseXmlCfgItems: NOK"));
  EXPECT_TRUE(parser_.infoMap_.empty());
}

TEST_F(CatalogTest, AnyRootNameIsAccepted) {
  std::string file = dir_.write("m.xml",
                                "<whatever><messages><message id=\"1\" template=\"x\"/>"
                                "</messages></whatever>");
  EXPECT_EQ(parser_.parseXmlCfg(file, "0"), 0);
  EXPECT_EQ(parser_.infoMap_.count("1"), 1u);
}

TEST_F(CatalogTest, FirstMessageOfAnIdentifierWins) {
  // Kept: a repeated identifier never replaces the cached entry, in one file
  // or on a reload, so a text once shown stays the same.
  load("<message id=\"5\" template=\"first\"/>\n<message id=\"5\" template=\"second\"/>\n", "");
  EXPECT_EQ(parser_.infoMap_.size(), 1u);
  EXPECT_EQ(parser_.infoMap_["5"].template_, "first");
}

TEST_F(CatalogTest, MessageWithoutIdentifierIsSkippedButLogged) {
  TraceCapture trace;
  load(
      "<message template=\"no id\"/>\n<message id=\"\" template=\"empty id\"/>\n"
      "<message id=\"9\" template=\"nine\"/>\n",
      "");
  EXPECT_EQ(parser_.infoMap_.size(), 1u);
  EXPECT_EQ(trace.count(TraceLevel::kDebug, "insert  into map, key="), 2);
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "insert  into map, key=9"));
  EXPECT_TRUE(trace.logs(TraceLevel::kError).empty());
}

TEST_F(CatalogTest, MissingTemplateMeansEmptyText) {
  load("<message id=\"3\"/>\n", "");
  EXPECT_EQ(parser_.infoMap_["3"].template_, "");
  EXPECT_EQ(render(parser_, "3", ""), " ");  // an empty template gives one blank
}

TEST_F(CatalogTest, TextContentChildrenAndOtherElementsAreIgnored) {
  std::string file = dir_.write(
      "m.xml",
      "<r><messages><note id=\"1\" template=\"not a message\"/>"
      "<message id=\"2\" template=\"attr\">content<message id=\"3\" template=\"nested\"/></message>"
      "</messages><messages><message id=\"4\" template=\"second block\"/></messages></r>");
  EXPECT_EQ(parser_.parseXmlCfg(file, "0"), 0);
  EXPECT_EQ(parser_.infoMap_.size(), 1u);
  EXPECT_EQ(parser_.infoMap_["2"].template_, "attr");
}

TEST_F(CatalogTest, EmptyMessagesElementLoadsNothingButSucceeds) {
  TraceCapture trace;
  load("", kLevelEnum);
  EXPECT_TRUE(parser_.infoMap_.empty());
  EXPECT_EQ(parser_.xmlPath_, xml_);
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "parseXmlCfgItems end.."));
}

TEST_F(CatalogTest, IdentifierArgumentDoesNotNarrowTheLoad) {
  std::string file = dir_.write("m.xml", messagesFile("<message id=\"1\" template=\"a\"/>"
                                                      "<message id=\"2\" template=\"b\"/>"));
  EXPECT_EQ(parser_.parseXmlCfg(file, "2"), 0);
  EXPECT_EQ(parser_.infoMap_.size(), 2u);
}

// ---------------------------------------------------------------------------
// The enumerations file

TEST_F(CatalogTest, EnumerationsFileFailureKeepsTheMessages) {
  TraceCapture trace;
  xml_ = dir_.write("msg.xml", messagesFile("<message id=\"1\" template=\"one\"/>"));
  enum_ = dir_.write("enum.xml", "<enumerations><other/></enumerations>");
  parser_.init(xml_, enum_);
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Parse param enum element failed!"));
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Parse xml enum configured file failed."));
  EXPECT_EQ(parser_.xmlPath_, xml_);
  EXPECT_EQ(parser_.enumPath_, "");
  EXPECT_EQ(parser_.infoMap_.count("1"), 1u);
  EXPECT_FALSE(trace.has(TraceLevel::kDebug, "init end...."));
}

TEST_F(CatalogTest, MissingEnumerationsFileLogsOpenFailure) {
  TraceCapture trace;
  std::string missing = dir_.path() + "/no_enum.xml";
  EXPECT_EQ(parser_.parseXmlEnum(missing, ""), -1);
  EXPECT_TRUE(
      trace.has(TraceLevel::kError, "Open enum config file(" + missing + ") failed.\nerrno: " +
                                        std::to_string(tinyxml2::XML_ERROR_FILE_NOT_FOUND) + ")."))
      << trace.dump();
}

TEST_F(CatalogTest, LastEnumerationOfANameWins) {
  // Kept, the opposite of the messages rule: a later enum_type of the same
  // name replaces the earlier one with all its codes.
  load("",
       "<enum_type name=\"e\"><enum_member value=\"1\">one</enum_member>"
       "<enum_member value=\"2\">two</enum_member></enum_type>"
       "<enum_type name=\"e\"><enum_member value=\"3\">three</enum_member></enum_type>");
  ASSERT_EQ(parser_.enumMap_.count("e"), 1u);
  const std::map<int32_t, std::string> expected{{3, "three"}};
  EXPECT_EQ(parser_.enumMap_["e"].items_, expected);
}

TEST_F(CatalogTest, MembersWithoutUsableValueAreDropped) {
  // Kept: -100 stands for "not a number" in the conversion, so a real -100
  // code is dropped like the other unusable values.
  struct Case {
    const char* value;  // nullptr: no attribute
    bool kept;
    int32_t code;
  } cases[] = {
      {nullptr, false, 0},                // no value attribute
      {"", false, 0},                     // empty
      {"abc", false, 0},                  // not a number
      {"-100", false, 0},                 // the "not a number" marker itself
      {"-5", false, 0},                   // signs are not accepted
      {"+5", false, 0},                   //
      {" 5", false, 0},                   // a blank
      {"1234567890123456789", false, 0},  // 19 digits
      {"007", true, 7},                   // leading zeros
      {"0", true, 0},                     //
      {"42", true, 42},                   //
  };
  for (const Case& c : cases) {
    std::string member =
        c.value == nullptr ? std::string("<enum_member>x</enum_member>")
                           : std::string("<enum_member value=\"") + c.value + "\">x</enum_member>";
    CXmlConfigParser<MessageInfo> parser;
    std::string file =
        dir_.write("e.xml", enumsFile("<enum_type name=\"e\">" + member + "</enum_type>"));
    ASSERT_EQ(parser.parseXmlEnum(file, ""), 0);
    const XmlEnum& e = parser.enumMap_["e"];
    if (c.kept) {
      ASSERT_EQ(e.items_.size(), 1u) << (c.value ? c.value : "(none)");
      EXPECT_EQ(e.items_.begin()->first, c.code);
    } else {
      EXPECT_TRUE(e.items_.empty()) << (c.value ? c.value : "(none)");
    }
  }
}

TEST_F(CatalogTest, MemberWithoutTextMapsToEmptyAndLaterCodeReplaces) {
  load("",
       "<enum_type name=\"e\"><enum_member value=\"1\"/><enum_member value=\"2\">a</enum_member>"
       "<enum_member value=\"2\">b</enum_member><other value=\"3\">c</other></enum_type>");
  const std::map<int32_t, std::string> expected{{1, ""}, {2, "b"}};
  EXPECT_EQ(parser_.enumMap_["e"].items_, expected);
}

TEST_F(CatalogTest, BadEnumTypesAreLoggedAndSkipped) {
  TraceCapture trace;
  load("",
       "<enum_type><enum_member value=\"1\">x</enum_member></enum_type>"
       "<enum_type name=\"\"><enum_member value=\"1\">x</enum_member></enum_type>"
       "<enum_type name=\"good\"><enum_member value=\"1\">ok</enum_member></enum_type>");
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Enum name is null."));
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Enum name is empty."));
  EXPECT_EQ(parser_.enumMap_.size(), 1u);
  EXPECT_EQ(parser_.enumMap_["good"].items_.at(1), "ok");
  EXPECT_EQ(parser_.enumPath_, enum_);  // a bad enum_type does not fail the load
}

TEST_F(CatalogTest, NamedLoadReadsOnlyThatEnumeration) {
  std::string file = dir_.write(
      "e.xml",
      enumsFile("<enum_type name=\"a\"/>" + std::string(kLevelEnum) + "<enum_type name=\"b\"/>"));
  EXPECT_EQ(parser_.parseXmlEnum(file, "level"), 0);
  EXPECT_EQ(parser_.enumMap_.size(), 1u);
  EXPECT_EQ(parser_.enumMap_.count("level"), 1u);
}

TEST_F(CatalogTest, NamedLoadIsCaseSensitive) {
  TraceCapture trace;
  std::string file = dir_.write("e.xml", enumsFile(kLevelEnum));
  EXPECT_EQ(parser_.parseXmlEnum(file, "LEVEL"), -1);
  EXPECT_TRUE(parser_.enumMap_.empty());
}

TEST_F(CatalogTest, NamedLoadOfAnAbsentEnumerationIsNotFount) {
  TraceCapture trace;
  std::string file = dir_.write("e.xml", enumsFile(kLevelEnum));
  EXPECT_EQ(parser_.parseXmlEnum(file, "absent"), -1);
  // "Not fount" is the wording operators search the logs for.
  EXPECT_TRUE(trace.has(TraceLevel::kError,
                        "Parse param enum element failed! Not fount enum(absent) in enum file."));
}

TEST_F(CatalogTest, NamedLoadOfAMalformedEnumerationIsNotFount) {
  TraceCapture trace;
  // An enum_type whose name is missing cannot match: the name is not found.
  std::string file = dir_.write("e.xml", enumsFile("<enum_type nam=\"x\"/>"));
  EXPECT_EQ(parser_.parseXmlEnum(file, "x"), -1);
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Enum name is null."));
  EXPECT_TRUE(trace.has(TraceLevel::kError,
                        "Parse param enum element failed! Not fount enum(x) in enum file."));
}

TEST_F(CatalogTest, ParseXmlEnumItemResults) {
  TraceCapture trace;
  tinyxml2::XMLDocument doc;
  ASSERT_EQ(doc.Parse("<enum_type name=\"n\"><enum_member value=\"1\">a</enum_member></enum_type>"),
            tinyxml2::XML_SUCCESS);
  tinyxml2::XMLElement* type = doc.FirstChildElement();
  EXPECT_EQ(parser_.parseXmlEnumItem(type, "n"), 101);    // asked for and stored
  EXPECT_EQ(parser_.parseXmlEnumItem(type, "other"), 0);  // another name: skipped
  EXPECT_EQ(parser_.parseXmlEnumItem(type, ""), 0);       // load-all: stored
  EXPECT_EQ(parser_.parseXmlEnumItem(nullptr, ""), -1);
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Parse enum type element failed!"));
  EXPECT_EQ(parser_.parseXmlEnumItems(nullptr, ""), -1);
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Parse param enum element failed!"));
}

// ---------------------------------------------------------------------------
// Lookup and substitution

TEST_F(CatalogTest, SubstitutionEdgeCases) {
  struct Case {
    const char* tpl;
    const char* params;
    const char* expected;
  } cases[] = {
      {"Disk ##0 is full", "d1", "Disk d1 is full "},
      {"##0##1", "a#@#b", "ab "},
      {"##2 left", "x#@#y", " left "},   // index past the end: empty text
      {"50## done", "p", "50## done "},  // no digit: both "#" copied
      {"##123456", "p", "##123456 "},    // six digits: no placeholder
      {"##12345", "p", " "},             // five digits: parameter 12345
      {"##00001", "a#@#b", "b "},        // leading zeros
      {"##0 {level}", "2", "High "},     // blanks before "{" consumed
      {"##0{ level }", "1", "Low "},     // blanks inside the braces
      {"##0{level}!", "2", "High! "},
      {"##0{no such}", "2", "2{no such} "},  // two words: abandoned
      {"##0{level", "2", "2{level "},        // never closed: abandoned
      {"##0{level}", "abc", " "},            // not a number
      {"##0{level}", "7", " "},              // unknown code
      {"##0{nope}", "2", " "},               // unknown enumeration
      {"plain text", "a", "plain text "},
      {"", "a", " "},
      {"#", "a", "# "},
      {"###0", "a", "#a "},
      {"a##0#b", "x", "ax#b "},
      {"##0 and ##0", "v", "v and v "},
      {"##1, ##0", "a#@#b", "b, a "},
      {"##0", "", " "},                  // empty parameter text: one empty value
      {"##0|##1|##2", "#@##@#", "|| "},  // empty values between separators
      {"##0|##1", "a#@#", "a| "},        // trailing separator: no value
      {"##0", "a##b#c", "a##b#c "},      // "##" and "#" in values are plain
      {"##0 ##1", "##1#@#z", "##1 z "},  // single pass: inserted text not rescanned
      {"中文##0文本", "值", "中文值文本 "},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(renderTemplate(c.tpl, c.params), c.expected) << "template: " << c.tpl;
  }
}

TEST_F(CatalogTest, EmptyBracesRenderEmptyText) {
  // Kept: empty braces take the text before them as the enumeration name,
  // which names nothing, so the value disappears instead of showing raw.
  TraceCapture trace;
  EXPECT_EQ(renderTemplate("v=##0{}", "2"), "v= ");
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "getEnumString begin: v=##0{ :2")) << trace.dump();
  EXPECT_EQ(renderTemplate("##0{ }", "2"), " ");
}

TEST_F(CatalogTest, EveryFinishedTextEndsWithOneBlank) {
  // Required: the blank lets a placeholder close the template; it stays.
  EXPECT_EQ(renderTemplate("ends with ##0", "x"), "ends with x ");
  EXPECT_EQ(renderTemplate("ends with ##0{level}", "2"), "ends with High ");
  EXPECT_EQ(renderTemplate("already blank ", ""), "already blank  ");
}

TEST_F(CatalogTest, InsertedValuesAreNotScannedAgain) {
  // Kept: one pass from left to right, so a value that looks like a
  // placeholder (a user's file name, say) is shown as it is.
  EXPECT_EQ(renderTemplate("File ##0, level ##1{level}", "##1{level}#@#2"),
            "File ##1{level}, level High ");
}

TEST_F(CatalogTest, SeparatorIsARegularExpression) {
  load("<message id=\"1\" template=\"##0-##1-##2\"/>", "");
  MessageInfo info;
  info.init();
  ASSERT_EQ(parser_.getXmlInfo("1", "a,b;c", info, "[,;]"), 0);
  EXPECT_EQ(info.template_, "a-b-c ");
}

TEST_F(CatalogTest, LookupLogsEachStep) {
  load("<message id=\"1\" template=\"Level ##0{level}\"/>", kLevelEnum);
  TraceCapture trace;
  int r = 0;
  EXPECT_EQ(render(parser_, "1", "2", &r), "Level High ");
  EXPECT_EQ(r, 0);
  for (const char* text :
       {"xmlId=1,parameter=2", "Get xml info from cache begin.", "Get xml info from cache is ok.",
        "getXmlInfoFromCache 0-ok,-1-error :0", "getEnumString begin: level :2",
        "getEnumString getXmlEnum: level :2", "getEnumString to find value: level :2",
        "getEnumString end:level,  2 :High", "content : Level High ", "parseXml: end"}) {
    EXPECT_TRUE(trace.has(TraceLevel::kDebug, text)) << text << "\n" << trace.dump();
  }
  const std::vector<std::string> traces = trace.traces();
  for (const char* name :
       {"getXmlInfo", "getXmlInfoFromCache", "parseXml", "getXmlEnum", "getEnumString"}) {
    EXPECT_NE(std::find(traces.begin(), traces.end(), std::string("enter ") + name + "..."),
              traces.end())
        << name;
  }
  EXPECT_FALSE(trace.hasText("enter getXmlInfoFromFile..."));
}

TEST_F(CatalogTest, UnknownIdentifierReturnsMinusOneAndLeavesInfo) {
  load("<message id=\"1\" template=\"one\"/>", "");
  TraceCapture trace;
  MessageInfo info;
  info.init();
  info.id_ = "caller";
  info.template_ = "untouched";
  EXPECT_EQ(parser_.getXmlInfo("404", "", info, "#@#"), -1);
  EXPECT_EQ(info.id_, "caller");
  EXPECT_EQ(info.template_, "untouched");
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "getXmlInfoFromCache 0-ok,-1-error :-1"));
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "getXmlInfoFromFile 0-ok,-1-error :-1"));
  EXPECT_TRUE(trace.logs(TraceLevel::kError).empty());
  EXPECT_TRUE(trace.logs(TraceLevel::kWarn).empty());
  // An unknown identifier costs a full read of the messages file.
  EXPECT_TRUE(trace.hasText("enter parseXmlCfg..."));
}

TEST_F(CatalogTest, ZeroAndEmptyIdentifiersNeverReadTheFile) {
  // "0" is the identifier init loads with and means success to the callers;
  // neither it nor the empty identifier may cost a file read.
  load("<message id=\"1\" template=\"one\"/>", "");
  for (const char* id : {"0", ""}) {
    TraceCapture trace;
    MessageInfo info;
    info.init();
    EXPECT_EQ(parser_.getXmlInfo(id, "", info, "#@#"), -1);
    EXPECT_FALSE(trace.hasText("enter parseXmlCfg...")) << id;
    EXPECT_TRUE(trace.hasText("enter getXmlInfoFromFile...")) << id;
  }
}

TEST_F(CatalogTest, CachedZeroIdentifierIsFound) {
  load("<message id=\"0\" template=\"zero\"/>", "");
  EXPECT_EQ(render(parser_, "0", ""), "zero ");
}

TEST_F(CatalogTest, CacheMissReloadsAndFindsAnAppendedIdentifier) {
  // Kept: a message added to the file while the gateway runs is found on the
  // first request for it, without a restart.
  const std::string first = "<message id=\"1\" template=\"one\"/>\n";
  load(first, kLevelEnum);
  ASSERT_EQ(parser_.infoMap_.count("2"), 0u);

  // An operator appends a message (and edits the first one) after init.
  dir_.write("msg.xml", messagesFile("<message id=\"1\" template=\"changed\"/>\n"
                                     "<message id=\"2\" template=\"two ##0\"/>\n"));
  TraceCapture trace;
  int r = -2;
  EXPECT_EQ(render(parser_, "2", "x", &r), "two x ");
  EXPECT_EQ(r, 0);
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "Get xml info from file is ok."));
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "getXmlInfoFromFile 0-ok,-1-error :0"));
  // The entry cached first stays as it was.
  EXPECT_EQ(render(parser_, "1", ""), "one ");
}

TEST_F(CatalogTest, ReloadAfterFailedInitReadsTheEmptyPath) {
  TraceCapture trace;
  parser_.init(dir_.path() + "/absent.xml", dir_.path() + "/absent_enum.xml");
  trace.clear();
  MessageInfo info;
  info.init();
  EXPECT_EQ(parser_.getXmlInfo("1", "", info, "#@#"), -1);
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Open xml config file() failed.\nerrno: " +
                                                std::to_string(tinyxmlLoadCode("")) + ")."))
      << trace.dump();
}

TEST_F(CatalogTest, SubstitutionWorksOnACopyOfTheCachedEntry) {
  load("<message id=\"1\" template=\"v=##0\"/>", "");
  EXPECT_EQ(render(parser_, "1", "a"), "v=a ");
  EXPECT_EQ(render(parser_, "1", "b"), "v=b ");
  EXPECT_EQ(parser_.infoMap_["1"].template_, "v=##0");
}

TEST_F(CatalogTest, UninitialisedInfoGetsTheRawTemplate) {
  load("<message id=\"1\" template=\"v=##0\"/>", "");
  MessageInfo info;  // no router: no field to substitute
  EXPECT_EQ(parser_.getXmlInfo("1", "a", info, "#@#"), 0);
  EXPECT_EQ(info.id_, "1");
  EXPECT_EQ(info.template_, "v=##0");
}

TEST_F(CatalogTest, EnumerationMissFromTheCacheIsReadFromTheFile) {
  load("<message id=\"1\" template=\"##0{late}\"/>", kLevelEnum);
  dir_.write("enum.xml", enumsFile(std::string(kLevelEnum) +
                                   "<enum_type name=\"late\"><enum_member value=\"4\">four"
                                   "</enum_member></enum_type>"));
  EXPECT_EQ(render(parser_, "1", "4"), "four ");
  EXPECT_EQ(parser_.enumMap_.count("late"), 1u);
}

TEST_F(CatalogTest, GetXmlEnumCopiesAndRefusesEmptyName) {
  load("", kLevelEnum);
  XmlEnum out;
  EXPECT_EQ(parser_.getXmlEnum("level", out), 0);
  EXPECT_EQ(out.name_, "level");
  EXPECT_EQ(out.items_.size(), 2u);
  TraceCapture trace;
  XmlEnum none;
  EXPECT_EQ(parser_.getXmlEnum("", none), -1);
  EXPECT_FALSE(trace.hasText("enter parseXmlEnum..."));
  EXPECT_EQ(parser_.getXmlEnum("missing", none), -1);
  EXPECT_TRUE(trace.has(TraceLevel::kError,
                        "Parse param enum element failed! Not fount enum(missing) in enum file."));
}

TEST_F(CatalogTest, GetEnumStringResults) {
  load("", kLevelEnum);
  EXPECT_EQ(parser_.getEnumString("level", "2"), "High");
  EXPECT_EQ(parser_.getEnumString("level", "02"), "High");
  EXPECT_EQ(parser_.getEnumString("level", "3"), "");
  EXPECT_EQ(parser_.getEnumString("level", "x"), "");
  EXPECT_EQ(parser_.getEnumString("level", "-100"), "");
  EXPECT_EQ(parser_.getEnumString("nope", "2"), "");
}

// ---------------------------------------------------------------------------
// The catalogues shipped in conf/ (copied beside bin/ by the build)

TEST(ShippedCatalogTest, BothLanguagesLoadAndRender) {
  CXmlConfigParser<MessageInfo> en;
  CXmlConfigParser<MessageInfo> zh;
  en.init(TASK_EXTRA_INFO_EN_PATH, ENUM_EN_PATH);
  zh.init(TASK_EXTRA_INFO_ZH_PATH, ENUM_ZH_PATH);
  ASSERT_EQ(en.enumPath_, ENUM_EN_PATH);
  ASSERT_EQ(zh.enumPath_, ENUM_ZH_PATH);
  EXPECT_GE(en.infoMap_.size(), 60u);
  EXPECT_EQ(en.infoMap_.size(), zh.infoMap_.size());
  EXPECT_GE(en.enumMap_.size(), 8u);
  EXPECT_EQ(en.enumMap_.size(), zh.enumMap_.size());
  EXPECT_EQ(render(en, "1600000015", "daily-01#@#1520#@#3.2#@#3#@#95"),
            "Backup task daily-01 finished: 1520 files, 3.2 GB in 95 seconds. ");
  EXPECT_EQ(render(zh, "1600000015", "daily-01#@#1520#@#3.2#@#3#@#95"),
            "备份任务 daily-01 已完成：1520 个文件，3.2 GB，耗时 95 秒。 ");
  // The "not safe" certificate verdict, looked up by its code in decimal.
  EXPECT_NE(render(en, "1625300234", ""), " ");
  EXPECT_NE(render(zh, "1625300234", ""), " ");
}

}  // namespace
