// The session token read by one rule on the real gateway: the session check
// and the logout find it alike, in whichever Cookie line the client put it;
// and refused uploads are counted under the reason of their code.
#include <gtest/gtest.h>
#include <httplib.h>

#include <string>

#include "e2e_support.h"
#include "raw_client.h"

namespace {

constexpr long long kErrNotLoggedIn = 0x03000011;

class SessionTokenE2E : public LiveGatewayTest {
 protected:
  // The token in a Cookie line of its own, after another one, as a client
  // that splits its cookies sends it.
  static httplib::Headers secondCookieLine(const std::string& token) {
    return httplib::Headers{{"Cookie", "theme=dark; lang=en"},
                            {"Cookie", "NOX_SESSION=" + token},
                            {"X-Requested-With", "nox-console"}};
  }
};

TEST_F(SessionTokenE2E, ATokenInTheSecondCookieLineLogsOut) {
  const std::string token = login();
  ASSERT_FALSE(token.empty());
  const httplib::Headers cookies = secondCookieLine(token);
  auto tasks = client_->Get("/kestrel_task", cookies);
  ASSERT_TRUE(tasks);
  EXPECT_EQ(tasks->status, 200) << tasks->body;

  auto out = client_->Delete("/sessions", cookies);
  ASSERT_TRUE(out);
  EXPECT_EQ(out->status, 200) << out->body;
  EXPECT_EQ(out->get_header_value("Set-Cookie"),
            "NOX_SESSION=; Max-Age=0; Path=/; HttpOnly; SameSite=Strict");
  // The session is gone: neither the cookie nor the header finds it.
  expectEnvelope(client_->Get("/kestrel_task", cookies), 401, kErrNotLoggedIn);
  expectEnvelope(client_->Get("/kestrel_task", auth(token)), 401, kErrNotLoggedIn);
}

TEST_F(SessionTokenE2E, RefusedUploadsAreCountedByTheirCode) {
  const std::string token = login();
  ASSERT_FALSE(token.empty());
  // A form without a file part.
  httplib::MultipartFormDataItems noFile = {{"note", "no file here", "", ""}};
  ASSERT_EQ(client_->Post("/kestrel_cert/import_cert", auth(token), noFile)->status, 400);
  // One byte over what the import takes, well under the gateway's body limit.
  ASSERT_EQ(uploadFile(*client_, token, "/kestrel_cert/import_crl", "big.crl",
                       std::string(1048577, 'x'))
                ->status,
            413);
  // The session cookie without the console's header.
  httplib::MultipartFormDataItems file = {{"file", "x", "ca.pem", "application/octet-stream"}};
  ASSERT_EQ(client_
                ->Post("/kestrel_cert/import_cert",
                       httplib::Headers{{"Cookie", "NOX_SESSION=" + token}}, file)
                ->status,
            403);

  auto res = client_->Get("/metrics");
  ASSERT_TRUE(res);
  const std::string text = "\n" + res->body;
  EXPECT_EQ(metricSample(text, "nox_uploads_refused_total{reason=\"no_file\"}"), 1) << text;
  EXPECT_EQ(metricSample(text, "nox_uploads_refused_total{reason=\"too_large\"}"), 1);
  EXPECT_EQ(metricSample(text, "nox_uploads_refused_total{reason=\"console_header\"}"), 1);
  EXPECT_EQ(metricSample(text, "nox_uploads_refused_total{reason=\"refused_by_check\"}"), 0);
}

// A body over the gateway's own limit is refused before any route sees it;
// on an upload route the refusal still counts as an upload too large, on
// another route it does not.
TEST_F(SessionTokenE2E, BodiesOverTheTransportLimitAreCountedOnUploadRoutesOnly) {
  const std::string token = login();
  ASSERT_FALSE(token.empty());
  auto tooLarge = [&](const std::string& path) {
    RawClient raw(gateway_.port());
    EXPECT_TRUE(raw.connected());
    // The length alone says it: nothing of the body is sent or read.
    raw.send("POST " + path + " HTTP/1.1\r\nHost: x\r\nX-Auth-Token: " + token +
             "\r\nContent-Type: application/json\r\nContent-Length: 1073741824\r\n\r\n");
    const std::string answer = raw.readAnswer();
    EXPECT_EQ(answer.compare(0, 12, "HTTP/1.1 413"), 0) << answer;
    EXPECT_NE(answer.find("50332163"), std::string::npos) << answer;  // 0x03000203
  };
  tooLarge("/kestrel_cert/import_cert");
  tooLarge("/sessions");

  auto res = client_->Get("/metrics");
  ASSERT_TRUE(res);
  const std::string text = "\n" + res->body;
  EXPECT_EQ(metricSample(text, "nox_uploads_refused_total{reason=\"too_large\"}"), 1) << text;
}

}  // namespace
