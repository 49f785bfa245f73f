// Placeholder parsing and substitution of the message catalogue (StringUtil).
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "reference_substitution.h"
#include "xml_config_parser.h"

namespace {

// Stands in for the catalogue: records each enumeration lookup and answers
// "<name:value>".
class FakeEnums {
 public:
  std::string text(const std::string& name, const std::string& value) {
    calls.emplace_back(name, value);
    return "<" + name + ":" + value + ">";
  }
  std::vector<std::pair<std::string, std::string>> calls;
};

std::string substitute(const std::string& text, const std::vector<std::string>& params,
                       FakeEnums* enums = nullptr) {
  FakeEnums local;
  return StringUtil::replaceParameter(text, params, &FakeEnums::text, enums ? *enums : local);
}


const size_t kUnset = 777;  // `end` before a call, to see whether it was set

TEST(StringUtilReplaceTest, ReplacesOnlyTheFirstOccurrence) {
  struct Case {
    const char* text;
    const char* from;
    const char* to;
    const char* expected;
  } cases[] = {
      {"a-b-c", "-", "+", "a+b-c"},  // first only, on purpose
      {"abc", "x", "y", "abc"},      // absent: unchanged
      {"abc", "abc", "", ""},        // whole text
      {"aaa", "aa", "b", "ba"},      //
      {"abc", "", "X", "Xabc"},      // the empty text occurs at the start
      {"", "a", "b", ""},            //
      {"##0 ##0", "##0", "v", "v ##0"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(StringUtil::replace(c.text, c.from, c.to), c.expected) << c.text << " " << c.from;
  }
}

TEST(StringUtilGetParameterTest, Table) {
  struct Case {
    const char* text;
    size_t pos;
    int index;
    size_t end;
    const char* name;
  } cases[] = {
      {"##0", 0, 0, 3, ""},            // digits run to the end
      {"##0 ", 0, 0, 3, ""},           // end behind the digit
      {"x##12 y", 1, 12, 5, ""},       //
      {"##12345 ", 0, 12345, 7, ""},   // five digits
      {"##123456 ", 0, -1, 7, ""},     // a sixth digit: none (end behind the fifth)
      {"##00042 ", 0, 42, 7, ""},      // leading zeros
      {"## 1", 0, -1, kUnset, ""},     // no digit: end untouched
      {"##", 0, -1, kUnset, ""},       // "##" at the end
      {"##a", 0, -1, kUnset, ""},      //
      {"##0{e} ", 0, 0, 6, "e"},       // end behind "}"
      {"##0   {e} ", 0, 0, 9, "e"},    // blanks before "{"
      {"##0{  e  } ", 0, 0, 10, "e"},  // blanks inside
      {"##0{a b} ", 0, 0, 3, ""},      // two words: abandoned
      {"##0{e ", 0, 0, 3, ""},         // no "}": abandoned
      {"##0 x{e} ", 0, 0, 3, ""},      // something between: no reference
      {"##7{a}b}", 0, 7, 6, "a"},      // the first "}" closes
      {"##1{#x}", 0, 1, 7, "#x"},      // any non-blank characters form the name
  };
  for (const Case& c : cases) {
    size_t end = kUnset;
    std::string name;
    EXPECT_EQ(StringUtil::getParameter(c.text, c.pos, end, name), c.index) << c.text;
    EXPECT_EQ(end, c.end) << c.text;
    EXPECT_EQ(name, c.name) << c.text;
  }
}

TEST(StringUtilGetParameterTest, EmptyBracesNameTheTextFromItsStart) {
  // Kept: with nothing inside the braces no name start is recorded, so the
  // name runs from the first character of the text to "}".
  size_t end = kUnset;
  std::string name;
  EXPECT_EQ(StringUtil::getParameter("ab##0{} ", 2, end, name), 0);
  EXPECT_EQ(name, "ab##0{");
  EXPECT_EQ(end, 7u);
  name.clear();
  EXPECT_EQ(StringUtil::getParameter("##3{   } ", 0, end, name), 3);
  EXPECT_EQ(name, "##3{   ");
  EXPECT_EQ(end, 8u);
}

TEST(StringUtilGetEnumNameTest, Table) {
  struct Case {
    const char* text;
    size_t pos;
    size_t end;
    const char* name;
  } cases[] = {
      {"{e}", 0, 3, "e"},  //
      {"  { level }x", 0, 11, "level"},
      {"x{e}", 0, kUnset, ""},   // not "{" after the blanks
      {"   ", 0, kUnset, ""},    // only blanks
      {"{e", 0, kUnset, ""},     // not closed
      {"{a b}", 0, kUnset, ""},  // two words
      {"{e}", 3, kUnset, ""},    // at the end
      {"{e}", 9, kUnset, ""},    // past the end
      {"ab{}", 2, 4, "ab{"},     // empty braces: from the start of the text
      {"{ }", 0, 3, "{ "},       //
  };
  for (const Case& c : cases) {
    size_t end = kUnset;
    std::string name;
    StringUtil::getEnumName(c.text, c.pos, end, name);
    EXPECT_EQ(end, c.end) << c.text;
    EXPECT_EQ(name, c.name) << c.text;
  }
}

TEST(StringUtilReplaceParameterTest, Table) {
  struct Case {
    const char* text;
    std::vector<std::string> params;
    const char* expected;
  } cases[] = {
      {"", {"a"}, ""},  // empty text stays empty (no blank)
      {"Disk ##0 is full ", {"d1"}, "Disk d1 is full "},
      {"##0##1 ", {"a", "b"}, "ab "},
      {"##2 left ", {"x", "y"}, " left "},
      {"50## done ", {}, "50## done "},
      {"##123456 ", {}, "##123456 "},
      {"##0{e} ", {"2"}, "<e:2> "},
      {"##0 {e} ", {"2"}, "<e:2> "},
      {"##0{no such} ", {"2"}, "2{no such} "},
      {"##1{e} ", {"2"}, "<e:> "},           // missing value still goes through
      {"##0 ##1 ", {"##1", "z"}, "##1 z "},  // inserted text is not rescanned
      {"# ## ### ", {}, "# ## ### "},
      {"####0 ", {"v"}, "##v "},
      {"no placeholder", {}, "no placeholder"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(substitute(c.text, c.params), c.expected) << c.text;
  }
}

TEST(StringUtilReplaceParameterTest, PlaceholderAtTheVeryEndRepeatsTheLastCharacter) {
  // Kept: the pass keeps the last character of the text when a placeholder
  // reaches the end; the catalogue appends a blank so that this never shows.
  EXPECT_EQ(substitute("##0", {"a"}), "a0");
  EXPECT_EQ(substitute("x##0{e}", {"2"}), "x<e:2>}");
  EXPECT_EQ(substitute("##12", {}), "2");
}

TEST(StringUtilReplaceParameterTest, EnumerationTextOnlyForReferences) {
  FakeEnums enums;
  EXPECT_EQ(substitute("##0 ##1{kind} ##2{ unit } ", {"a", "3", "4"}, &enums),
            "a <kind:3> <unit:4> ");
  const std::vector<std::pair<std::string, std::string>> expected{{"kind", "3"}, {"unit", "4"}};
  EXPECT_EQ(enums.calls, expected);
}

TEST(StringUtilReplaceParameterTest, EmptyBracesNameTheRestAfterTheLastPlaceholder) {
  // Kept: the pass hands each placeholder the rest of the text behind the
  // previous one, and empty braces name that rest up to "}".
  FakeEnums enums;
  EXPECT_EQ(substitute("ab ##0 c ##1{} ", {"x", "y"}, &enums), "ab x c < c ##1{:y> ");
  ASSERT_EQ(enums.calls.size(), 1u);
  EXPECT_EQ(enums.calls[0].first, " c ##1{");
}

TEST(StringUtilReplaceParameterTest, AgreesWithTheCopyingPass) {
  // Texts over an alphabet dense in placeholder syntax, from a fixed seed.
  const char alphabet[] = "##0123456789 {}ab";
  unsigned state = 12345;
  auto next = [&state]() {
    state = state * 1103515245u + 12345u;
    return (state >> 16) & 0x7fff;
  };
  const std::vector<std::string> params{"p0", "##1", "", "3"};
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    size_t length = next() % 24;
    for (size_t i = 0; i < length; ++i) text += alphabet[next() % (sizeof(alphabet) - 1)];
    FakeEnums a;
    FakeEnums b;
    ASSERT_EQ(substitute(text, params, &a), referenceSubstitution(text, params, b))
        << "text: " << text;
    ASSERT_EQ(a.calls, b.calls) << "text: " << text;
  }
}

TEST(StringUtilReplaceParameterTest, LongTextIsOnePass) {
  std::string text;
  std::string expected;
  for (int i = 0; i < 2000; ++i) {
    text += "abc ##" + std::to_string(i % 3) + " ";
    expected += "abc " + std::string(1, static_cast<char>('a' + i % 3)) + " ";
  }
  EXPECT_EQ(substitute(text, {"a", "b", "c"}), expected);
}

}  // namespace
