// End-to-end: what the real gateway answers below /console besides the
// files themselves: their validators (ETag, 304 for If-None-Match), the
// redirect of the bare /console with an HTML body, and the console's session
// question, which answers 200 signed in or not (never a 401 to log).
#include <gtest/gtest.h>

#include <string>

#include "e2e_support.h"

namespace {

using ConsoleE2E = LiveGatewayTest;

TEST_F(ConsoleE2E, FilesCarryAValidatorAndAnUnchangedOneIsAnswered304) {
  auto first = client_->Get("/console/js/app.js");
  ASSERT_TRUE(first);
  ASSERT_EQ(first->status, 200);
  const std::string tag = first->get_header_value("ETag");
  EXPECT_EQ(tag.size(), 18u) << tag;  // 16 hex digits in quotes
  EXPECT_EQ(first->get_header_value("Cache-Control"), "no-cache");

  auto again = client_->Get("/console/js/app.js", {{"If-None-Match", tag}});
  ASSERT_TRUE(again);
  EXPECT_EQ(again->status, 304);
  EXPECT_EQ(again->body, "");
  EXPECT_EQ(again->get_header_value("ETag"), tag);
  EXPECT_EQ(again->get_header_value("Cache-Control"), "no-cache");
  EXPECT_NE(again->get_header_value("Content-Security-Policy").find("default-src 'self'"),
            std::string::npos);

  // Another file, another tag; a stale tag gets the file.
  auto page = client_->Get("/console/");
  ASSERT_TRUE(page);
  EXPECT_NE(page->get_header_value("ETag"), tag);
  auto stale = client_->Get("/console/", {{"If-None-Match", tag}});
  ASSERT_TRUE(stale);
  EXPECT_EQ(stale->status, 200);
  EXPECT_EQ(stale->body, page->body);
}

TEST_F(ConsoleE2E, TheBareConsoleRedirectsWithAnHtmlBody) {
  // A client of its own that records nothing: the API document describes
  // the redirect with GET /console/ (a path of its own would need a 2xx).
  httplib::Client plain("127.0.0.1", gateway_.port());
  auto res = plain.Get("/console");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 301);
  EXPECT_EQ(res->get_header_value("Location"), "/console/");
  EXPECT_EQ(res->get_header_value("Content-Type"), "text/html; charset=utf-8");
  EXPECT_NE(res->body.find("<a href=\"/console/\">"), std::string::npos) << res->body;
}

TEST_F(ConsoleE2E, TheSessionQuestionNeverAnswers401) {
  const std::string signedOut = R"({"data":{"signedIn":false},"error":{"code":0,"description":"0"}})";
  const std::string signedIn = R"({"data":{"signedIn":true},"error":{"code":0,"description":"0"}})";
  auto none = client_->Get("/console/session");
  ASSERT_TRUE(none);
  EXPECT_EQ(none->status, 200);
  EXPECT_EQ(none->get_header_value("Cache-Control"), "no-store");
  EXPECT_EQ(none->body, signedOut);

  const std::string token = login();
  ASSERT_FALSE(token.empty());
  auto byCookie = client_->Get("/console/session", {{"Cookie", "NOX_SESSION=" + token}});
  ASSERT_TRUE(byCookie);
  EXPECT_EQ(byCookie->status, 200);
  EXPECT_EQ(byCookie->body, signedIn);
  auto byHeader = client_->Get("/console/session", auth(token));
  ASSERT_TRUE(byHeader);
  EXPECT_EQ(byHeader->body, signedIn);

  // After the logout the same cookie is a signed-out visitor's: 200 again.
  auto out = client_->Delete("/sessions", auth(token));
  ASSERT_TRUE(out);
  ASSERT_EQ(out->status, 200);
  auto stale = client_->Get("/console/session", {{"Cookie", "NOX_SESSION=" + token}});
  ASSERT_TRUE(stale);
  EXPECT_EQ(stale->status, 200);
  EXPECT_EQ(stale->body, signedOut);
  // Where GET /sessions says 401 for the same cookie.
  expectEnvelope(client_->Get("/sessions", {{"Cookie", "NOX_SESSION=" + token}}), 401,
                 0x03000011);
}

}  // namespace
