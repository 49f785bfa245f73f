// End-to-end: the GET /login challenge's picture and its expiry, on the real
// gateway. The picture is a PNG that carries no character of the code (the
// earlier SVG picture named every character in a <text> element); a right
// code logs in, a wrong or unknown one answers 0x03000014, and one whose
// challenge expired answers 0x03000015, with the memory store and with Redis.
#include <gd.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>
#include <openssl/evp.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"
#include "gateway_process.h"
#include "redis_server.h"
#include "verify_code.h"

namespace {

constexpr long long kErrVerifyCode = 0x03000014;
constexpr long long kErrVerifyCodeExpired = 0x03000015;
constexpr char kWrongText[] = "The verification code is missing, wrong or already used.";
constexpr char kExpiredText[] = "The verification code has expired. Ask for a new one.";
constexpr char kPngPrefix[] = "data:image/png;base64,";

std::string jsonText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

// The bytes of standard base64 text; "" when it is not base64.
std::string unbase64(const std::string& text) {
  if (text.empty() || text.size() % 4 != 0) return std::string();
  std::string out(text.size() / 4 * 3, '\0');
  const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                                reinterpret_cast<const unsigned char*>(text.data()),
                                static_cast<int>(text.size()));
  if (n < 0) return std::string();
  size_t padding = 0;
  while (padding < 2 && text[text.size() - 1 - padding] == '=') ++padding;
  out.resize(static_cast<size_t>(n) - padding);
  return out;
}

// The picture's width and height as libgd reads them; -1 when it cannot.
std::pair<int, int> pngSize(const std::string& png) {
  gdImagePtr image =
      gdImageCreateFromPngPtr(static_cast<int>(png.size()), const_cast<char*>(png.data()));
  if (image == nullptr) return {-1, -1};
  const std::pair<int, int> size = {gdImageSX(image), gdImageSY(image)};
  gdImageDestroy(image);
  return size;
}

// "2026-11-25T17:20:00.000Z" as seconds since the epoch; -1 when malformed.
time_t parseIsoUtc(const std::string& text) {
  if (!std::regex_match(text, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)"))) return -1;
  struct tm parts = {};
  if (strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts) == nullptr) return -1;
  return timegm(&parts);
}

// A gateway of its own per test, started with the code exposed (so that the
// test can answer right) and the arguments the test gives.
class CaptchaE2E : public LiveGatewayTest {
 protected:
  void SetUp() override {}  // each test starts the gateway with its options
  void TearDown() override {
    LiveGatewayTest::TearDown();
    redis_.stop();
  }

  Json::Value challenge() {
    auto res = client_->Get("/login");
    if (!res || res->status != 200) {
      ADD_FAILURE() << "GET /login: " << (res ? res->body : "no answer");
      return Json::Value();
    }
    return parseJson(res->body)["data"];
  }

  httplib::Result answer(const Json::Value& data, const std::string& code) {
    Json::Value body;
    body["username"] = "admin";
    body["password"] = gateway_.password();
    body["scope"] = "0";
    body["challengeId"] = data["challengeId"];
    body["verifyCode"] = code;
    return client_->Post("/login", jsonText(body), "application/json");
  }

  static void expectRefusal(const httplib::Result& res, long long code, const char* text) {
    expectEnvelope(res, 401, code);
    if (res) {
      EXPECT_EQ(parseJson(res->body)["error"]["description"].asString(), text);
    }
  }

  // Waits until a challenge with a lifetime of one second is dead.
  static void outliveOneSecond() { std::this_thread::sleep_for(std::chrono::milliseconds(1200)); }

  RedisServer redis_;
};

TEST_F(CaptchaE2E, ThePictureIsAPngWithoutTheCodeAndTheChallengeSaysWhenItEnds) {
  startGateway();
  const time_t before = time(nullptr);
  const Json::Value data = challenge();
  const time_t after = time(nullptr);
  const std::string code = data["code"].asString();
  ASSERT_EQ(code.size(), 6u);
  const std::string image = data["image"].asString();
  ASSERT_EQ(image.rfind(kPngPrefix, 0), 0u) << image.substr(0, 40);
  const std::string png = unbase64(image.substr(sizeof(kPngPrefix) - 1));
  ASSERT_GT(png.size(), 8u);
  EXPECT_EQ(png.compare(0, 8, "\x89PNG\r\n\x1a\n"), 0);
  EXPECT_EQ(png.find(code), std::string::npos) << "the code's text is not in the picture";
  EXPECT_EQ(image.find(code), std::string::npos);
  EXPECT_EQ(pngSize(png), std::make_pair(kVerifyCodeImageWidth, kVerifyCodeImageHeight));

  EXPECT_EQ(data["expiresIn"].asInt(), 120);
  const time_t expiresAt = parseIsoUtc(data["expiresAt"].asString());
  EXPECT_GE(expiresAt, before + 120) << data["expiresAt"];
  EXPECT_LE(expiresAt, after + 120) << data["expiresAt"];
  EXPECT_NE(challenge()["image"].asString(), image) << "each challenge has its own picture";
}

TEST_F(CaptchaE2E, ARightCodeLogsInAWrongOneDoesNot) {
  startGateway();
  const Json::Value right = challenge();
  auto res = answer(right, right["code"].asString());
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200) << res->body;
  const std::string token = parseJson(res->body)["data"]["token"].asString();
  auto count = client_->Get("/alarm/historyalarm/count", {{"X-Auth-Token", token}});
  ASSERT_TRUE(count);
  EXPECT_EQ(count->status, 200);

  const Json::Value wrong = challenge();
  std::string guess = wrong["code"].asString();
  guess[0] = guess[0] == '2' ? '3' : '2';
  expectRefusal(answer(wrong, guess), kErrVerifyCode, kWrongText);
  expectRefusal(answer(wrong, wrong["code"].asString()), kErrVerifyCode, kWrongText);
  Json::Value unknown = challenge();
  unknown["challengeId"] = "0123456789abcdef0123456789abcdef";
  expectRefusal(answer(unknown, unknown["code"].asString()), kErrVerifyCode, kWrongText);
}

TEST_F(CaptchaE2E, AnExpiredCodeHasItsOwnAnswer) {
  startGateway({"--verify-code-lifetime", "1"});
  const Json::Value data = challenge();
  EXPECT_EQ(data["expiresIn"].asInt(), 1);
  outliveOneSecond();
  expectRefusal(answer(data, data["code"].asString()), kErrVerifyCodeExpired, kExpiredText);
  // The first answer used the challenge up.
  expectRefusal(answer(data, data["code"].asString()), kErrVerifyCode, kWrongText);
  EXPECT_EQ(gateway_.stop(), 0);
  EXPECT_NE(gateway_.traceLog().find("verification code for challenge " +
                                     data["challengeId"].asString() + " has expired"),
            std::string::npos)
      << gateway_.traceLog();
}

TEST_F(CaptchaE2E, AnExpiredCodeHasItsOwnAnswerWithRedisToo) {
  ASSERT_TRUE(redis_.start()) << redis_.error();
  startGateway({"--state", redis_.url(), "--verify-code-lifetime", "1"});
  const Json::Value expired = challenge();
  const Json::Value wrong = challenge();
  outliveOneSecond();
  expectRefusal(answer(expired, expired["code"].asString()), kErrVerifyCodeExpired, kExpiredText);
  expectRefusal(answer(expired, expired["code"].asString()), kErrVerifyCode, kWrongText);
  Json::Value unknown = wrong;
  unknown["challengeId"] = "0123456789abcdef0123456789abcdef";
  expectRefusal(answer(unknown, wrong["code"].asString()), kErrVerifyCode, kWrongText);
}

}  // namespace
