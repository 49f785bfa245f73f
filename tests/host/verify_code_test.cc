// VerifyCodeStore: one-time challenges, their expiry, and the code's picture.
#include "verify_code.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "login_test_rig.h"

namespace {

std::string unbase64(const std::string& in) {
  static const std::string kTable =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  unsigned value = 0;
  int bits = 0;
  for (char c : in) {
    if (c == '=') break;
    const size_t v = kTable.find(c);
    if (v == std::string::npos) return "<bad base64>";
    value = (value << 6) | static_cast<unsigned>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((value >> bits) & 0xFF));
    }
  }
  return out;
}

class VerifyCodeStoreTest : public LoginTestBase {
 protected:
  VerifyCodeStore& store = VerifyCodeStore::instance();
};

TEST_F(VerifyCodeStoreTest, ChallengesHaveRandomIdsAndCodesFromTheAlphabet) {
  std::set<std::string> ids;
  std::set<std::string> codes;
  for (int i = 0; i < 100; ++i) {
    std::string id;
    std::string code;
    store.issue(&id, &code);
    EXPECT_TRUE(std::regex_match(id, std::regex("[0-9a-f]{32}"))) << id;
    // No 0/O or 1/I/L: nothing the user has to guess at.
    EXPECT_TRUE(std::regex_match(code, std::regex("[2-9A-HJKMNP-Z]{6}"))) << code;
    ids.insert(id);
    codes.insert(code);
  }
  EXPECT_EQ(ids.size(), 100u);
  EXPECT_GT(codes.size(), 95u);
}

TEST_F(VerifyCodeStoreTest, RightAnswerIsAcceptedOnce) {
  std::string id;
  std::string code;
  store.issue(&id, &code);
  EXPECT_TRUE(store.redeem(id, code));
  EXPECT_FALSE(store.redeem(id, code));
  EXPECT_EQ(store.size(), 0u);
}

TEST_F(VerifyCodeStoreTest, WrongAnswerUsesTheChallengeUp) {
  const char* wrongs[] = {"", "A", "AAAAAAA", "222222x"};
  for (const char* wrong : wrongs) {
    std::string id;
    std::string code;
    store.issue(&id, &code);
    EXPECT_FALSE(store.redeem(id, wrong)) << wrong;
    EXPECT_FALSE(store.redeem(id, code)) << "spent by the wrong answer";
  }
}

TEST_F(VerifyCodeStoreTest, AnswersIgnoreCase) {
  std::string id;
  std::string code;
  store.issue(&id, &code);
  for (char& c : code) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_TRUE(store.redeem(id, code));
}

TEST_F(VerifyCodeStoreTest, ChallengeLivesFor120Seconds) {
  std::string early, earlyCode, late, lateCode;
  store.issue(&early, &earlyCode);
  store.issue(&late, &lateCode);
  g_testNow += 119;
  EXPECT_TRUE(store.redeem(early, earlyCode));
  g_testNow += 1;
  EXPECT_FALSE(store.redeem(late, lateCode));
}

TEST_F(VerifyCodeStoreTest, DeadChallengesAreDroppedWhenNewOnesAreIssued) {
  std::string id, code;
  for (int i = 0; i < 5; ++i) store.issue(&id, &code);
  g_testNow += 120;
  store.issue(&id, &code);
  EXPECT_EQ(store.size(), 1u);
}

TEST_F(VerifyCodeStoreTest, LiveChallengesAreCapped) {
  std::string first, firstCode, id, code;
  store.issue(&first, &firstCode);
  for (size_t i = 1; i < VerifyCodeStore::kMaxLive + 5; ++i) store.issue(&id, &code);
  EXPECT_EQ(store.size(), VerifyCodeStore::kMaxLive);
  EXPECT_FALSE(store.redeem(first, firstCode)) << "the oldest made room";
  EXPECT_TRUE(store.redeem(id, code));
}

TEST(ConstantTimeEqualTest, ComparesWholeTexts) {
  EXPECT_TRUE(constantTimeEqual("", ""));
  EXPECT_TRUE(constantTimeEqual("ABC234", "ABC234"));
  EXPECT_FALSE(constantTimeEqual("ABC234", "ABC235"));
  EXPECT_FALSE(constantTimeEqual("ABC234", "ABC23"));
  EXPECT_FALSE(constantTimeEqual("ABC23", "ABC234"));
  EXPECT_FALSE(constantTimeEqual(std::string("AB\0", 3), "AB"));
}

TEST(VerifyCodeImageTest, IsAnSvgDataUriDrawingEachCharacter) {
  const std::string uri = verifyCodeImage("K7M2QZ");
  const std::string prefix = "data:image/svg+xml;base64,";
  ASSERT_EQ(uri.compare(0, prefix.size(), prefix), 0);
  const std::string svg = unbase64(uri.substr(prefix.size()));
  EXPECT_EQ(svg.rfind("<svg xmlns=\"http://www.w3.org/2000/svg\"", 0), 0u) << svg;
  EXPECT_EQ(svg.substr(svg.size() - 6), "</svg>");
  for (char c : std::string("K7M2QZ")) {
    EXPECT_NE(svg.find(std::string(">") + c + "</text>"), std::string::npos) << c;
  }
  EXPECT_NE(verifyCodeImage("K7M2QZ"), uri) << "each picture is drawn afresh";
}

}  // namespace
