// The answers below /console: files with their validator and 304, the
// redirect with a body, and the session question that never answers 401.
#include "console_assets.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <stdexcept>
#include <string>

#include "builtin_paths.h"
#include "error_table.h"
#include "qpn_exception.h"
#include "request_decoding.h"
#include "state_store.h"

namespace {

using gw::HttpInput;
using gw::HttpOutput;

const std::map<std::string, std::string> kFiles = {
    {"index.html", "<!doctype html>"}, {"js/app.js", "export {};"}};

// Knows the token "good"; "broken" stands for a session store that cannot
// answer.
bool lookup(const std::string& token, CSessionInfo& info) {
  if (token == "broken") throw QPNExceptionWithErrCode_(kErrStateUnavailable, "state_store", __LINE__, false, nullptr);
  if (token != "good") return false;
  info.getUserContext().userName_ = "apiuser";
  return true;
}

HttpOutput get(const std::string& path, gw::HeaderList headers = {}, const char* method = "GET") {
  HttpInput in;
  in.method = method;
  in.target = path;
  in.headers = std::move(headers);
  in.clientAddress = "127.0.0.1";
  gw::BuiltInContent content;
  content.console = kFiles;
  content.consoleSession = lookup;
  std::string route;
  std::optional<HttpOutput> out = gw::serveBuiltIn(content, in, path, &route);
  EXPECT_TRUE(out.has_value()) << path;
  EXPECT_EQ(route, "/console");
  return out.value_or(HttpOutput());
}

std::string header(const HttpOutput& out, const char* name) {
  return gw::headerValue(out.headers, name);
}

TEST(ConsoleETagTest, IsTheDigestOfTheBytesInQuotes) {
  EXPECT_EQ(gw::consoleETag(""), "\"cbf29ce484222325\"");   // FNV-1a's offset basis
  EXPECT_EQ(gw::consoleETag("a"), "\"af63dc4c8601ec8c\"");  // the published value for "a"
  EXPECT_NE(gw::consoleETag("export {};"), gw::consoleETag("export {}; "));
}

TEST(ConsoleAnswerTest, FilesCarryAValidatorAndAnswer304WhenItMatches) {
  const HttpOutput first = get("/console/js/app.js");
  ASSERT_EQ(first.status, 200);
  const std::string tag = header(first, "ETag");
  EXPECT_EQ(tag, gw::consoleETag("export {};"));
  EXPECT_EQ(header(first, "Cache-Control"), "no-cache");
  EXPECT_EQ(header(first, "Content-Security-Policy"), gw::kConsolePolicy);
  EXPECT_EQ(first.body, "export {};");

  struct Case {
    std::string ifNoneMatch;
    int status;
  } cases[] = {
      {tag, 304},
      {"W/" + tag, 304},                  // a weak comparison is enough for GET
      {"\"0000000000000000\", " + tag, 304},  // one of a list
      {"*", 304},
      {"\"0000000000000000\"", 200},      // another version
      {"", 200},
  };
  for (const Case& c : cases) {
    const HttpOutput out = get("/console/js/app.js", {{"If-None-Match", c.ifNoneMatch}});
    EXPECT_EQ(out.status, c.status) << c.ifNoneMatch;
    EXPECT_EQ(out.body.empty(), c.status == 304) << c.ifNoneMatch;
    EXPECT_EQ(header(out, "ETag"), tag) << c.ifNoneMatch;
    EXPECT_EQ(header(out, "Cache-Control"), "no-cache") << c.ifNoneMatch;
  }
  EXPECT_EQ(get("/console/", {{"if-none-match", header(get("/console/"), "ETag")}}, "HEAD").status,
            304);
}

TEST(ConsoleAnswerTest, TheBareConsoleRedirectsWithAnHtmlBody) {
  const HttpOutput out = get("/console");
  EXPECT_EQ(out.status, 301);
  EXPECT_EQ(header(out, "Location"), "/console/");
  EXPECT_EQ(out.contentType, "text/html; charset=utf-8");
  EXPECT_NE(out.body.find("<a href=\"/console/\">"), std::string::npos) << out.body;
}

TEST(ConsoleAnswerTest, TheSessionQuestionAnswers200EitherWay) {
  struct Case {
    gw::HeaderList headers;
    const char* body;
  } cases[] = {
      {{}, R"({"data":{"signedIn":false},"error":{"code":0,"description":"0"}})"},
      {{{"Cookie", "NOX_SESSION=stale"}},
       R"({"data":{"signedIn":false},"error":{"code":0,"description":"0"}})"},
      {{{"Cookie", "NOX_SESSION=good"}},
       R"({"data":{"signedIn":true},"error":{"code":0,"description":"0"}})"},
      {{{"X-Auth-Token", "good"}},
       R"({"data":{"signedIn":true},"error":{"code":0,"description":"0"}})"},
  };
  for (const Case& c : cases) {
    const HttpOutput out = get(gw::kConsoleSessionPath, c.headers);
    EXPECT_EQ(out.status, 200) << c.body;
    EXPECT_EQ(out.contentType, "application/json");
    EXPECT_EQ(out.body, c.body);
    EXPECT_EQ(header(out, "ETag"), "");  // an answer of the moment, never reused
  }
  // A store that cannot say is not "signed out".
  const HttpOutput broken = get(gw::kConsoleSessionPath, {{"X-Auth-Token", "broken"}});
  EXPECT_EQ(broken.status, 503);
}

TEST(ConsoleAnswerTest, OnlyReadsOfKnownFiles) {
  EXPECT_EQ(get("/console/missing.js").status, 404);
  EXPECT_EQ(get("/console/js/app.js", {}, "POST").status, 405);
  EXPECT_EQ(get(gw::kConsoleSessionPath, {}, "DELETE").status, 405);
}

}  // namespace
