// VerifyCodeStore: one-time challenges, their expiry, and the code's picture.
#include "verify_code.h"

#include <gd.h>
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

// A PNG read back with libgd; null when libgd cannot read it.
class DecodedPng {
 public:
  explicit DecodedPng(const std::string& png)
      : image_(
            gdImageCreateFromPngPtr(static_cast<int>(png.size()), const_cast<char*>(png.data()))) {}
  ~DecodedPng() {
    if (image_ != nullptr) gdImageDestroy(image_);
  }
  DecodedPng(const DecodedPng&) = delete;
  DecodedPng& operator=(const DecodedPng&) = delete;
  bool ok() const { return image_ != nullptr; }
  gdImagePtr get() const { return image_; }

 private:
  gdImagePtr image_;
};

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
  EXPECT_EQ(store.redeem(id, code), CodeVerdict::kAccepted);
  EXPECT_EQ(store.redeem(id, code), CodeVerdict::kWrongOrUsed);
  EXPECT_EQ(store.size(), 0u);
}

TEST_F(VerifyCodeStoreTest, WrongAnswerUsesTheChallengeUp) {
  const char* wrongs[] = {"", "A", "AAAAAAA", "222222x"};
  for (const char* wrong : wrongs) {
    std::string id;
    std::string code;
    store.issue(&id, &code);
    EXPECT_EQ(store.redeem(id, wrong), CodeVerdict::kWrongOrUsed) << wrong;
    EXPECT_EQ(store.redeem(id, code), CodeVerdict::kWrongOrUsed) << "spent by the wrong answer";
  }
}

TEST_F(VerifyCodeStoreTest, AnswersIgnoreCase) {
  std::string id;
  std::string code;
  store.issue(&id, &code);
  for (char& c : code) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_EQ(store.redeem(id, code), CodeVerdict::kAccepted);
}

TEST_F(VerifyCodeStoreTest, ChallengeLivesFor120SecondsAndSaysWhen) {
  std::string early, earlyCode, late, lateCode;
  time_t expiresAt = 0;
  store.issue(&early, &earlyCode, &expiresAt);
  EXPECT_EQ(expiresAt, g_testNow + 120);
  store.issue(&late, &lateCode);
  g_testNow += 119;
  EXPECT_EQ(store.redeem(early, earlyCode), CodeVerdict::kAccepted);
  g_testNow += 1;
  EXPECT_EQ(store.redeem(late, lateCode), CodeVerdict::kExpired);
}

// An answer to a dead challenge is told apart from a wrong one, whatever it
// says, but only for a challenge that was issued, and only once.
TEST_F(VerifyCodeStoreTest, ExpiredIsToldApartOnlyForARealChallengeOnce) {
  std::string id, code, other, otherCode;
  store.issue(&id, &code);
  store.issue(&other, &otherCode);
  g_testNow += 120;
  EXPECT_EQ(store.redeem(id, "WRONG1"), CodeVerdict::kExpired) << "the code is not looked at";
  EXPECT_EQ(store.redeem(id, code), CodeVerdict::kWrongOrUsed) << "used up by the first answer";
  EXPECT_EQ(store.redeem("0123456789abcdef0123456789abcdef", code), CodeVerdict::kWrongOrUsed)
      << "never issued";
  EXPECT_EQ(store.redeem("", code), CodeVerdict::kWrongOrUsed);
  g_testNow += VerifyCodeStore::kKeptAfterExpiry - 1;
  EXPECT_EQ(store.redeem(other, otherCode), CodeVerdict::kExpired) << "still known";
}

TEST_F(VerifyCodeStoreTest, ExpiredChallengesAreForgottenLater) {
  std::string id, code;
  store.issue(&id, &code);
  g_testNow += 120 + VerifyCodeStore::kKeptAfterExpiry;
  EXPECT_EQ(store.redeem(id, code), CodeVerdict::kWrongOrUsed);
}

TEST_F(VerifyCodeStoreTest, LifetimeCanBeSetForNewChallenges) {
  EXPECT_EQ(store.lifetime(), VerifyCodeStore::kDefaultLifetime);
  std::string before, beforeCode, after, afterCode;
  store.issue(&before, &beforeCode);
  store.setLifetime(5);
  EXPECT_EQ(store.lifetime(), 5);
  time_t expiresAt = 0;
  store.issue(&after, &afterCode, &expiresAt);
  EXPECT_EQ(expiresAt, g_testNow + 5);
  g_testNow += 5;
  EXPECT_EQ(store.redeem(after, afterCode), CodeVerdict::kExpired);
  EXPECT_EQ(store.redeem(before, beforeCode), CodeVerdict::kAccepted) << "keeps its 120 s";
  store.setLifetime(0);
  EXPECT_EQ(store.lifetime(), VerifyCodeStore::kDefaultLifetime);
}

TEST_F(VerifyCodeStoreTest, ForgottenChallengesAreDroppedWhenNewOnesAreIssued) {
  std::string id, code;
  for (int i = 0; i < 5; ++i) store.issue(&id, &code);
  g_testNow += 120;
  store.issue(&id, &code);
  EXPECT_EQ(store.size(), 6u) << "expired ones are still known";
  g_testNow += VerifyCodeStore::kKeptAfterExpiry;
  store.issue(&id, &code);
  EXPECT_EQ(store.size(), 2u);
}

TEST_F(VerifyCodeStoreTest, KeptChallengesAreCapped) {
  std::string first, firstCode, id, code;
  store.issue(&first, &firstCode);
  for (size_t i = 1; i < VerifyCodeStore::kMaxLive + 5; ++i) store.issue(&id, &code);
  EXPECT_EQ(store.size(), VerifyCodeStore::kMaxLive);
  EXPECT_EQ(store.redeem(first, firstCode), CodeVerdict::kWrongOrUsed) << "the oldest made room";
  EXPECT_EQ(store.redeem(id, code), CodeVerdict::kAccepted);
}

TEST(ConstantTimeEqualTest, ComparesWholeTexts) {
  EXPECT_TRUE(constantTimeEqual("", ""));
  EXPECT_TRUE(constantTimeEqual("ABC234", "ABC234"));
  EXPECT_FALSE(constantTimeEqual("ABC234", "ABC235"));
  EXPECT_FALSE(constantTimeEqual("ABC234", "ABC23"));
  EXPECT_FALSE(constantTimeEqual("ABC23", "ABC234"));
  EXPECT_FALSE(constantTimeEqual(std::string("AB\0", 3), "AB"));
}

// The picture is a PNG of the fixed size that libgd reads back, and the
// code's text is nowhere in it: the earlier SVG picture had each character
// in a <text> element, which one regular expression read.
TEST(VerifyCodeImageTest, IsAPngDataUriWithoutTheCodesText) {
  const std::string code = "K7M2QZ";
  const std::string uri = verifyCodeImage(code);
  const std::string prefix = "data:image/png;base64,";
  ASSERT_EQ(uri.compare(0, prefix.size(), prefix), 0) << uri.substr(0, 40);
  const std::string png = unbase64(uri.substr(prefix.size()));
  EXPECT_EQ(png.compare(0, 8, "\x89PNG\r\n\x1a\n"), 0);
  std::string lower = code;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_EQ(png.find(code), std::string::npos);
  EXPECT_EQ(png.find(lower), std::string::npos);
  EXPECT_EQ(uri.find(code), std::string::npos);

  DecodedPng image(png);
  ASSERT_TRUE(image.ok());
  EXPECT_EQ(gdImageSX(image.get()), kVerifyCodeImageWidth);
  EXPECT_EQ(gdImageSY(image.get()), kVerifyCodeImageHeight);
  EXPECT_NE(verifyCodeImage(code), uri) << "each picture is drawn afresh";
}

// Dark ink on a light ground: most pixels are light, and the characters
// leave a good number of dark ones.
TEST(VerifyCodeImageTest, DrawsDarkCharactersOnALightGround) {
  DecodedPng image(unbase64(verifyCodeImage("WXYZ89").substr(22)));
  ASSERT_TRUE(image.ok());
  int light = 0;
  int dark = 0;
  for (int y = 0; y < kVerifyCodeImageHeight; ++y) {
    for (int x = 0; x < kVerifyCodeImageWidth; ++x) {
      const int p = gdImageGetTrueColorPixel(image.get(), x, y);
      const int sum = gdTrueColorGetRed(p) + gdTrueColorGetGreen(p) + gdTrueColorGetBlue(p);
      if (sum >= 3 * 200) ++light;
      if (sum <= 3 * 110) ++dark;
    }
  }
  const int all = kVerifyCodeImageWidth * kVerifyCodeImageHeight;
  EXPECT_GT(light, all / 2);
  EXPECT_GT(dark, all / 20);
  EXPECT_LT(dark, all / 3);
}

// An empty code or characters outside the font draw a picture all the same.
TEST(VerifyCodeImageTest, OddInputStillMakesAPicture) {
  for (const std::string& code :
       {std::string(), std::string("\xff\x01<&>"), std::string(40, 'W')}) {
    DecodedPng image(unbase64(verifyCodeImage(code).substr(22)));
    ASSERT_TRUE(image.ok()) << code;
    EXPECT_EQ(gdImageSX(image.get()), kVerifyCodeImageWidth);
  }
}

}  // namespace
