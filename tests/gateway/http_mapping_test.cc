// The gateway's mapping between HTTP and the host framework, driven with
// plain values through fake operations: routing, sessions, bodies, the
// rendering of what an operation leaves, and every error answer.
#include <gtest/gtest.h>
#include <json/json.h>

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "audit.h"
#include "backend_protocol.h"
#include "error_table.h"
#include "http_mapping.h"

namespace {

using gw::Dispatcher;
using gw::HttpInput;
using gw::HttpOutput;

// What a fake operation saw of its last request.
struct Seen {
  int calls = 0;
  std::string method;
  std::string interfaceVersion;
  std::vector<std::string> resIDs;
  std::map<std::string, std::string> args;
  Json::Value json;
  std::vector<std::pair<std::string, std::string>> uploads;
  std::string language;
  std::string user;
  std::string clientAddress;
  std::string header;  // the request's "X-Test" header
  uint32_t uploadMark = 0;
};

// An operation whose isSupport and op do what the test says.
class FakeOp : public CSpecifyOp {
 public:
  using Body = std::function<int(CRequestMsg&, CResponseMsg&)>;
  FakeOp(Seen* seen, Body body, std::function<bool(const std::string&)> support = nullptr)
      : seen_(seen), body_(std::move(body)), support_(std::move(support)) {}

  bool isSupport(const std::string& action, const std::string&,
                 SpecifyOpPrivData& privData) override {
    privData.uploadMark_ = 1;
    seen_->uploadMark = privData.uploadMark_;
    return support_ ? support_(action) : true;
  }
  int op(const std::string& action, const std::string&, CRequestMsg& request,
         CResponseMsg& response) override {
    ++seen_->calls;
    seen_->method = action;
    seen_->interfaceVersion = request.getInterfaceVersion();
    seen_->resIDs = request.getResIDs();
    seen_->args.clear();
    for (const auto& arg : request.args()) seen_->args[arg.first] = arg.second.value_;
    seen_->json = request.getBody().json();
    std::vector<CRequestMsgBody::UploadFileAddr> files;
    request.getBody().getUploadFileAddr(request.getSessionInfo(), files);
    seen_->uploads.clear();
    for (const auto& f : files)
      seen_->uploads.emplace_back(f.fileName_, std::string(f.content_, f.length_));
    seen_->language = request.getSessionInfo().language();
    seen_->user = request.getSessionInfo().getUserContext().userName_;
    seen_->clientAddress = request.getSessionInfo().getUserContext().clientAddress_;
    seen_->header = request.getSessionInfo().getHttpConnection()->getHeader("X-Test");
    return body_ ? body_(request, response) : 0;
  }

 private:
  Seen* seen_;
  Body body_;
  std::function<bool(const std::string&)> support_;
};

int writeEnvelope(CRequestMsg&, CResponseMsg& response) {
  response.getJsonBody()["data"] = "x";
  return 0;
}

class MappingTest : public ::testing::Test {
 protected:
  MappingTest() {
    registry_.regReqProc("/sessions", new FakeOp(&seen_, writeEnvelope), true);
    registry_.regReqProc("/login", new FakeOp(&seen_, writeEnvelope), true);
    registry_.regReqProc("/kestrel_task",
                         new FakeOp(
                             &seen_,
                             [this](CRequestMsg& q, CResponseMsg& r) {
                               q.setMoType(proto::kTaskObjType);
                               return task_(q, r);
                             },
                             [](const std::string& m) { return m == "GET" || m == "get"; }),
                         false);
    const FakeOp::Body count = [](CRequestMsg& q, CResponseMsg& r) {
      r.getJsonBody()[q.getInterfaceVersion() == "v1" ? "count" : "COUNT"] = 7;
      r.setContentKind(CResponseMsg::kContentJson);
      return 0;
    };
    registry_.regReqProc("/alarm/historyalarm/count", new FakeOp(&seen_, count), true);
    registry_.regReqProcV1("/alarm/historyalarm/count", new FakeOp(&seen_, count), true);
    registry_.regReqProc(
        "/any", new FakeOp(&seen_, [this](CRequestMsg& q, CResponseMsg& r) { return any_(q, r); }),
        true);
  }

  HttpOutput run(const std::string& method, const std::string& target, gw::HeaderList headers = {},
                 const std::string& body = "") {
    HttpInput in;
    in.method = method;
    in.target = target;
    in.headers = std::move(headers);
    in.body = body;
    in.clientAddress = "127.0.0.1";
    return dispatcher().handle(in);
  }

  Dispatcher dispatcher() {
    gw::DispatchOptions options;
    options.maxBody = 1024;
    options.openApi = "{\"openapi\":\"3.0.3\"}";
    options.console = console_;
    options.health = health_;
    return Dispatcher(
        registry_,
        [](const std::string& token, CSessionInfo& info) {
          if (token != "good") return false;
          info.getUserContext().userName_ = "apiuser";
          // The administrator: every route, including those the access
          // table does not name ("/any").
          info.getUserContext().scope_ = "0";
          info.setLanguage("zh");
          return true;
        },
        options);
  }

  static Json::Value parse(const std::string& text) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << text;
    return value;
  }

  static std::string header(const HttpOutput& out, const std::string& name) {
    return gw::headerValue(out.headers, name);
  }

  Seen seen_;
  CSpecifyProc registry_;
  FakeOp::Body task_ = [](CRequestMsg&, CResponseMsg&) { return 0; };
  FakeOp::Body any_ = [](CRequestMsg&, CResponseMsg&) { return 0; };
  const gw::HeaderList auth_ = {{"X-Auth-Token", "good"}};
  std::map<std::string, std::string> console_;  // the console's files; empty: none
  std::function<bool(Json::Value&)> health_;  // unset: /healthz says only "status"
};

TEST(UrlDecodeTest, Table) {
  struct Case {
    const char* in;
    bool plus;
    const char* out;
  } cases[] = {
      {"a%2Fb", false, "a/b"},  // an encoded slash stays inside one segment
      {"a+b", true, "a b"},     // '+' is a blank in queries
      {"a+b", false, "a+b"},    // but not in paths
      {"%zz", false, "%zz"},    // malformed escapes are kept
      {"%4", false, "%4"},      // cut-off escape at the end
      {"%E4%B8%AD", false, "\xE4\xB8\xAD"},
      {"", false, ""},
  };
  for (const Case& c : cases) EXPECT_EQ(gw::urlDecode(c.in, c.plus), c.out) << c.in;
}

TEST(ParseQueryTest, DecodesAndSkipsEmptyPieces) {
  const auto args = gw::parseQuery("a=1&&b=x%20y&c&d=e=f");
  ASSERT_EQ(args.size(), 4u);
  EXPECT_EQ(args[0], std::make_pair(std::string("a"), std::string("1")));
  EXPECT_EQ(args[1], std::make_pair(std::string("b"), std::string("x y")));
  EXPECT_EQ(args[2], std::make_pair(std::string("c"), std::string("")));
  EXPECT_EQ(args[3], std::make_pair(std::string("d"), std::string("e=f")));
}

TEST(LanguageTest, AcceptLanguage) {
  EXPECT_EQ(gw::languageFromAcceptLanguage("zh-CN,zh;q=0.9"), "zh");
  EXPECT_EQ(gw::languageFromAcceptLanguage("ZH"), "zh");
  EXPECT_EQ(gw::languageFromAcceptLanguage("en-US,zh;q=0.5"), "en");
  EXPECT_EQ(gw::languageFromAcceptLanguage(""), "en");
}

TEST_F(MappingTest, RouteMatchTable) {
  struct Case {
    const char* path;
    const char* url;  // null: no route
    const char* version;
    std::vector<std::string> ids;
  } cases[] = {
      {"/sessions", "/sessions", "", {}},
      {"/session", nullptr, "", {}},        // only the plural is registered
      {"/sessions/abc", nullptr, "", {}},   // flag true: no identifiers below
      {"/v1/sessions", nullptr, "v1", {}},  // not registered on v1
      {"/alarm/historyalarm/count", "/alarm/historyalarm/count", "", {}},
      {"/v1/alarm/historyalarm/count", "/alarm/historyalarm/count", "v1", {}},
      {"/kestrel_task", "/kestrel_task", "", {}},
      {"/kestrel_task/", "/kestrel_task", "", {}},  // an empty segment is no identifier
      {"/kestrel_task/count", "/kestrel_task", "", {"count"}},
      {"/kestrel_task/T%2F1/x", "/kestrel_task", "", {"T/1", "x"}},
      {"/kestrel_taskx", nullptr, "", {}},
      {"/v1/kestrel_task", nullptr, "v1", {}},
      {"/", nullptr, "", {}},
      {"", nullptr, "", {}},
  };
  for (const Case& c : cases) {
    const gw::RouteMatch match = gw::matchRoute(registry_, c.path);
    if (c.url == nullptr) {
      EXPECT_EQ(match.route, nullptr) << c.path;
      continue;
    }
    ASSERT_NE(match.route, nullptr) << c.path;
    EXPECT_EQ(match.route->url, c.url) << c.path;
    EXPECT_EQ(match.interfaceVersion, c.version) << c.path;
    EXPECT_EQ(match.resIDs, c.ids) << c.path;
  }
}

// Answers that do not depend on the operations: status, content type, body.
TEST_F(MappingTest, FixedAnswers) {
  struct Case {
    const char* method;
    const char* target;
    bool auth;
    int status;
    const char* body;
  } cases[] = {
      {"GET", "/healthz", false, 200, "{\"status\":\"ok\"}"},
      {"HEAD", "/healthz", false, 200, "{\"status\":\"ok\"}"},
      {"POST", "/healthz", false, 405,
       "{\"data\":null,\"error\":{\"code\":50332162,\"description\":\"The path does not take this "
       "method.\"}}"},
      {"GET", "/openapi.json", false, 200, "{\"openapi\":\"3.0.3\"}"},
      {"GET", "/nothing", false, 404,
       "{\"data\":null,\"error\":{\"code\":50332161,\"description\":\"No such path.\"}}"},
      {"GET", "/nothing", true, 404,
       "{\"data\":null,\"error\":{\"code\":50332161,\"description\":\"No such path.\"}}"},
      {"GET", "/kestrel_task", false, 401,
       "{\"data\":null,\"error\":{\"code\":50331665,\"description\":\"A valid session is required. "
       "Log in first.\"}}"},
      {"DELETE", "/sessions", false, 401,
       "{\"data\":null,\"error\":{\"code\":50331665,\"description\":\"A valid session is required. "
       "Log in first.\"}}"},
      {"PUT", "/kestrel_task", true, 405,
       "{\"data\":null,\"error\":{\"code\":50332162,\"description\":\"The path does not take this "
       "method.\"}}"},
      {"GET", "/alarm/historyalarm/count", true, 200, "{\"COUNT\":7}"},
      {"GET", "/v1/alarm/historyalarm/count", true, 200, "{\"count\":7}"},
  };
  for (const Case& c : cases) {
    const HttpOutput out = run(c.method, c.target, c.auth ? auth_ : gw::HeaderList{});
    EXPECT_EQ(out.status, c.status) << c.method << " " << c.target;
    EXPECT_EQ(out.contentType, "application/json") << c.target;
    EXPECT_EQ(out.body, c.body) << c.method << " " << c.target;
  }
}

// /healthz adds what the health callback says and answers 503 when it says
// the gateway cannot serve; the callback is asked for /healthz only.
TEST_F(MappingTest, HealthzAddsWhatTheHealthCallbackSays) {
  int asked = 0;
  bool serves = true;
  health_ = [&](Json::Value& health) {
    ++asked;
    health["backend"] = serves ? "reachable" : "unreachable";
    return serves;
  };
  HttpOutput out = run("GET", "/healthz");
  EXPECT_EQ(out.status, 200);
  EXPECT_EQ(out.body, "{\"backend\":\"reachable\",\"status\":\"ok\"}");
  serves = false;
  out = run("GET", "/healthz");
  EXPECT_EQ(out.status, 503);
  EXPECT_EQ(out.body, "{\"backend\":\"unreachable\",\"status\":\"unavailable\"}");
  // Not an error answer: no envelope, no Retry-After.
  EXPECT_EQ(header(out, "Retry-After"), "");
  EXPECT_EQ(asked, 2);
  run("GET", "/openapi.json");
  EXPECT_EQ(asked, 2);
}

// A 503 says when to try again, whichever service was missing; other
// errors do not.
TEST(ErrorOutputTest, ServiceUnavailableAnswersCarryRetryAfter) {
  for (long long code : {0x03000101LL, 0x03000105LL, 0x03000207LL}) {
    const HttpOutput out = gw::errorOutput(code, "x");
    EXPECT_EQ(out.status, 503) << std::hex << code;
    EXPECT_EQ(gw::headerValue(out.headers, "Retry-After"), gw::kRetryAfterSeconds)
        << std::hex << code;
  }
  EXPECT_STREQ(gw::kRetryAfterSeconds, "1");
  EXPECT_EQ(gw::headerValue(gw::errorOutput(0x03000102, "x").headers, "Retry-After"), "");
  EXPECT_EQ(gw::headerValue(gw::errorOutput(0x03000011, "x").headers, "Retry-After"), "");
}

TEST_F(MappingTest, InvalidTokenIsRefusedAndOperationNotCalled) {
  const HttpOutput out = run("GET", "/kestrel_task", {{"X-Auth-Token", "bad"}});
  EXPECT_EQ(out.status, 401);
  EXPECT_EQ(seen_.calls, 0);
  EXPECT_EQ(run("GET", "/kestrel_task", {{"Cookie", "NOX_SESSION=good"}}).status, 200);
}

// A page on another site can make the browser send the cookie, but cannot
// add a header: with the cookie, only reads go through without the console's
// header. The X-Auth-Token header and the logins are not affected.
TEST_F(MappingTest, CookieSessionsChangeNothingWithoutTheConsoleHeader) {
  const std::string cookie = "NOX_SESSION=good";
  const std::pair<std::string, std::string> console = {"X-Requested-With", "nox-console"};
  struct Case {
    const char* method;
    const char* path;
    gw::HeaderList headers;
    int status;
  } cases[] = {
      {"POST", "/any", {{"Cookie", cookie}}, 403},          // the cookie alone
      {"DELETE", "/sessions", {{"Cookie", cookie}}, 403},   // a forced logout too
      {"PUT", "/any", {{"Cookie", cookie}}, 403},
      {"PATCH", "/any", {{"Cookie", cookie}}, 403},
      {"OPTIONS", "/any", {{"Cookie", cookie}}, 403},       // only GET and HEAD are reads
      {"POST", "/any", {{"Cookie", cookie}, {"X-Requested-With", "XMLHttpRequest"}}, 403},
      {"POST", "/any", {{"Cookie", cookie}, {"X-Requested-With", "NOX-CONSOLE"}}, 403},
      {"POST", "/any", {{"Cookie", cookie}, console}, 200},
      {"post", "/any", {{"Cookie", cookie}, {"x-requested-with", "nox-console"}}, 200},
      {"DELETE", "/sessions", {{"Cookie", cookie}, console}, 200},
      {"GET", "/any", {{"Cookie", cookie}}, 200},           // reads need no header
      {"HEAD", "/any", {{"Cookie", cookie}}, 200},
      {"POST", "/any", {{"X-Auth-Token", "good"}}, 200},    // the API's header form
      {"POST", "/any", {{"X-Auth-Token", "good"}, {"Cookie", cookie}}, 200},
      {"POST", "/sessions", {{"Cookie", cookie}}, 200},     // a login takes no session
      {"POST", "/login", {{"Cookie", cookie}}, 200},
      {"POST", "/any", {{"Cookie", "NOX_SESSION=bad"}}, 401},  // no session: as before
  };
  for (const Case& c : cases) {
    seen_.calls = 0;
    const HttpOutput out = run(c.method, c.path, c.headers);
    EXPECT_EQ(out.status, c.status) << c.method << " " << c.path << " " << out.body;
    if (c.status == 403) {
      EXPECT_EQ(seen_.calls, 0) << "the operation never ran";
      EXPECT_EQ(parse(out.body)["error"]["code"].asInt64(), gw::kErrCsrfHeaderMissing);
      EXPECT_EQ(parse(out.body)["error"]["description"].asString(),
                "A request that changes data with the session cookie must carry "
                "X-Requested-With: nox-console.");
      EXPECT_EQ(out.user, "apiuser");
    }
  }
}

TEST_F(MappingTest, ConsoleFilesAreServedWithTheirPolicy) {
  console_ = {{"index.html", "<!doctype html>"}, {"js/app.js", "export {};"},
              {"css/console.css", "body{}"}};
  const HttpOutput index = run("GET", "/console/");
  EXPECT_EQ(index.status, 200);
  EXPECT_EQ(index.body, "<!doctype html>");
  EXPECT_EQ(index.contentType, "text/html; charset=utf-8");
  EXPECT_EQ(header(index, "Content-Security-Policy"), gw::kConsolePolicy);
  EXPECT_EQ(header(index, "X-Frame-Options"), "DENY");
  EXPECT_EQ(header(index, "Referrer-Policy"), "no-referrer");
  EXPECT_EQ(header(index, "Cache-Control"), "no-cache");
  EXPECT_EQ(run("GET", "/console/index.html").body, "<!doctype html>");
  EXPECT_EQ(run("HEAD", "/console/js/app.js").contentType, "text/javascript; charset=utf-8");
  EXPECT_EQ(run("GET", "/console/css/console.css").contentType, "text/css; charset=utf-8");

  const HttpOutput bare = run("GET", "/console");
  EXPECT_EQ(bare.status, 301);
  EXPECT_EQ(header(bare, "Location"), "/console/");
  struct Case {
    const char* method;
    const char* target;
    int status;
  } refused[] = {
      {"GET", "/console/missing.js", 404},
      {"GET", "/console/js/../index.html", 404},  // paths are never resolved
      {"GET", "/console/js%2fapp.js", 404},       // nor decoded
      {"GET", "/console//index.html", 404},
      {"POST", "/console/", 405},
      {"DELETE", "/console/index.html", 405},
  };
  for (const Case& c : refused) {
    const HttpOutput out = run(c.method, c.target);
    EXPECT_EQ(out.status, c.status) << c.method << " " << c.target;
    EXPECT_EQ(out.contentType, "application/json") << c.target;
  }
  EXPECT_EQ(seen_.calls, 0);
}

TEST_F(MappingTest, NoConsoleWithoutFiles) {
  EXPECT_EQ(run("GET", "/console/").status, 404);
  EXPECT_EQ(run("GET", "/console").status, 404);
}

TEST(BuiltInPathTest, ChecksDocumentsAndRoutes) {
  EXPECT_EQ(gw::builtInPath("/healthz"), gw::BuiltInPath::kCheck);
  EXPECT_EQ(gw::builtInPath(gw::splitTarget("/metrics?x=1").path), gw::BuiltInPath::kCheck);
  EXPECT_EQ(gw::builtInPath("/openapi.json"), gw::BuiltInPath::kDocument);
  EXPECT_EQ(gw::builtInPath("/console"), gw::BuiltInPath::kDocument);
  EXPECT_EQ(gw::builtInPath("/console/js/app.js"), gw::BuiltInPath::kDocument);
  EXPECT_EQ(gw::builtInPath("/consoles"), gw::BuiltInPath::kNone);
  EXPECT_EQ(gw::builtInPath("/healthz/x"), gw::BuiltInPath::kNone);
  EXPECT_EQ(gw::builtInPath("/kestrel_task"), gw::BuiltInPath::kNone);
  EXPECT_EQ(gw::builtInPath(gw::splitTarget("/v1/alarm/historyalarm?healthz").path),
            gw::BuiltInPath::kNone);
}

TEST(ConsoleContentTypeTest, Table) {
  struct Case {
    const char* path;
    const char* type;
  } cases[] = {
      {"index.html", "text/html; charset=utf-8"},
      {"js/app.js", "text/javascript; charset=utf-8"},
      {"css/console.css", "text/css; charset=utf-8"},
      {"img/icon.svg", "image/svg+xml"},
      {"a.png", "image/png"},
      {"notes", "application/octet-stream"},  // no suffix
      {".js", "application/octet-stream"},    // a suffix alone is no name
      {"app.JS", "application/octet-stream"},  // suffixes compare exactly
  };
  for (const Case& c : cases) EXPECT_EQ(gw::consoleContentType(c.path), c.type) << c.path;
}

TEST_F(MappingTest, LoginRoutesNeedNoSession) {
  for (const char* method : {"POST", "GET"}) {
    for (const char* path : {"/sessions", "/login"}) {
      EXPECT_EQ(run(method, path).status, 200) << method << " " << path;
    }
  }
  EXPECT_EQ(seen_.calls, 4);
  EXPECT_EQ(seen_.user, "");
}

TEST_F(MappingTest, RequestSideFilledFromHttp) {
  run("GET", "/kestrel_task/T%201/b?start=0&limit=5&filter=%7B%22a%22%3A1%7D&start=9",
      {{"X-Auth-Token", "good"}, {"X-Test", "seen"}});
  EXPECT_EQ(seen_.calls, 1);
  EXPECT_EQ(seen_.method, "GET");
  EXPECT_EQ(seen_.resIDs, (std::vector<std::string>{"T 1", "b"}));
  EXPECT_EQ(seen_.args["start"], "0");  // the first of a repeated argument
  EXPECT_EQ(seen_.args["limit"], "5");
  EXPECT_EQ(seen_.args["filter"], "{\"a\":1}");
  EXPECT_EQ(seen_.user, "apiuser");
  EXPECT_EQ(seen_.clientAddress, "127.0.0.1");
  EXPECT_EQ(seen_.header, "seen");
  EXPECT_EQ(seen_.uploadMark, 1u);
}

TEST_F(MappingTest, LanguageChoice) {
  struct Case {
    const char* query;
    bool session;
    const char* acceptLanguage;
    const char* language;
  } cases[] = {
      {"", false, "zh-CN", "zh"},  // Accept-Language without a session
      {"", false, "de", "en"},
      {"", true, "en", "zh"},              // the session's language beats Accept-Language
      {"?LANGUAGE=en", true, "zh", "en"},  // the argument beats both
      {"?LANGUAGE=zh", false, "en", "zh"},
      {"?LANGUAGE=ZH", false, "zh", "en"},  // only the exact "zh" is Chinese
      {"?LANGUAGE=", true, "en", "zh"},     // empty: as if absent
  };
  for (const Case& c : cases) {
    gw::HeaderList headers = {{"Accept-Language", c.acceptLanguage}};
    if (c.session) headers.push_back({"X-Auth-Token", "good"});
    run("POST", std::string("/sessions") + c.query, headers);
    EXPECT_EQ(seen_.language, c.language) << c.query << " " << c.acceptLanguage;
  }
}

TEST_F(MappingTest, JsonBodyBecomesMembers) {
  run("POST", "/sessions", {{"Content-Type", "application/json"}},
      "{\"username\":\"apiuser\",\"scope\":\"4\"}");
  EXPECT_EQ(seen_.json["username"].asString(), "apiuser");
  EXPECT_EQ(seen_.json["scope"].asString(), "4");
  run("POST", "/sessions", {}, "{\"username\":\"u2\"}");  // no type: read as JSON
  EXPECT_EQ(seen_.json["username"].asString(), "u2");
  run("POST", "/sessions",
      {{"Content-Type", "application/x-www-form-urlencoded"}, {"X-Requested-With", "nox-console"}},
      "username=u3&password=a%26b");
  EXPECT_EQ(seen_.json["password"].asString(), "a&b");
}

// A page of another site can post a form to a login and sign the browser in
// to the page's own account; only the console (which adds the header) may
// log in with a form. JSON logins need no header: a cross-site JSON request
// needs a CORS preflight that the gateway never grants.
TEST_F(MappingTest, LoginFormsNeedTheConsoleHeader) {
  const struct {
    const char* type;
    const char* body;
  } kForms[] = {
      {"application/x-www-form-urlencoded", "username=u&password=p&scope=4"},
      {"Application/X-WWW-Form-Urlencoded; charset=utf-8", "username=u&password=p&scope=4"},
  };
  for (const auto& form : kForms) {
    for (const char* route : {"/sessions", "/login"}) {
      const HttpOutput out = run("POST", route, {{"Content-Type", form.type}}, form.body);
      EXPECT_EQ(out.status, 403) << route << " " << form.type;
      EXPECT_EQ(out.body,
                "{\"data\":null,\"error\":{\"code\":50332169,\"description\":\"A login sent as a "
                "form must carry X-Requested-With: nox-console.\"}}");
      EXPECT_FALSE(out.compressible);
    }
  }
  // multipart/form-data is a form too.
  HttpInput in;
  in.method = "POST";
  in.target = "/sessions";
  in.multipart = true;
  in.parts.push_back(gw::FormPart{"username", "", "", "u"});
  in.clientAddress = "127.0.0.1";
  EXPECT_EQ(dispatcher().handle(in).code, gw::kErrFormLoginNeedsConsole);
  EXPECT_EQ(seen_.calls, 0);
  // A form elsewhere is no login: the console header is not asked for.
  run("POST", "/any", {{"X-Auth-Token", "good"}, {"Content-Type", "application/x-www-form-urlencoded"}},
      "a=1");
  EXPECT_EQ(seen_.calls, 1);
  EXPECT_EQ(seen_.json["a"].asString(), "1");
}

TEST_F(MappingTest, BrokenJsonIs400AndNoOperationRuns) {
  const HttpOutput out =
      run("POST", "/sessions", {{"Content-Type", "application/json"}}, "{\"a\":");
  EXPECT_EQ(out.status, 400);
  EXPECT_EQ(out.body,
            "{\"data\":null,\"error\":{\"code\":50331651,\"description\":\"The request body is not "
            "valid JSON.\"}}");
  EXPECT_EQ(seen_.calls, 0);
}

TEST_F(MappingTest, BodyOverTheLimitIs413BeforeAnyOperation) {
  const HttpOutput out = run("POST", "/sessions", {}, std::string(1025, ' '));
  EXPECT_EQ(out.status, 413);
  EXPECT_EQ(parse(out.body)["error"]["code"].asInt64(), gw::kErrBodyTooLarge);
  EXPECT_EQ(seen_.calls, 0);
  EXPECT_EQ(run("POST", "/sessions", {}, "{}" + std::string(1022, ' ')).status,
            200);  // exactly the limit
}

TEST_F(MappingTest, MultipartFilesInOrderAndFieldsAsMembers) {
  HttpInput in;
  in.method = "POST";
  in.target = "/any";
  in.headers = auth_;
  in.multipart = true;
  in.parts = {{"second", "b.pem", "application/octet-stream", "BBB"},
              {"note", "", "", "hello"},
              {"first", "a.crt", "", std::string("A\0A", 3)}};
  EXPECT_EQ(dispatcher().handle(in).status, 200);
  ASSERT_EQ(seen_.uploads.size(), 2u);
  EXPECT_EQ(seen_.uploads[0], std::make_pair(std::string("b.pem"), std::string("BBB")));
  EXPECT_EQ(seen_.uploads[1], std::make_pair(std::string("a.crt"), std::string("A\0A", 3)));
  EXPECT_EQ(seen_.json["note"].asString(), "hello");

  in.parts = {{"f", "big.pem", "", std::string(1025, 'x')}};
  seen_.calls = 0;
  EXPECT_EQ(dispatcher().handle(in).status, 413);
  EXPECT_EQ(seen_.calls, 0);
}

// Coded exceptions and results: status and envelope by the gateway's table.
TEST_F(MappingTest, CodedFailures) {
  struct Case {
    long long code;
    bool thrown;
    const char* file;
    int status;
    const char* description;
  } cases[] = {
      {0x03000003, true, "src/ucore/NOXImportCert", 400, "Invalid argument."},
      {0x03000003, true, "The user scope is invalid.", 400, "The user scope is invalid."},
      {0x03000010, true, "host/login", 401, "The user name or password is wrong."},
      {0x03000013, true, "host/login", 429, "Too many failed logins. Try again later."},
      {0x03000015, true, "host/login", 401, "The verification code has expired. Ask for a new one."},
      {0x03000004, true, "x", 404, "The object does not exist."},
      {0x60E01D02, true, "x", 422, "The certificate is outside its validity dates."},
      {0x60E01D7F, true, "x", 422, "The certificate or CRL was refused."},
      {2000000001, true, "x", 413, "The file is larger than 1048576 bytes."},
      {1000005, true, "x", 500, "The file could not be written."},
      {0x03000101, true, "x", 503, "The backend is not available."},
      {0x03000102, true, "x", 504, "The backend did not answer in time."},
      {0x03000101, false, "", 503, "The backend is not available."},  // returned, not thrown
      {12345, false, "", 500, "The request failed."},
  };
  for (const Case& c : cases) {
    any_ = [&c](CRequestMsg&, CResponseMsg&) -> int {
      if (c.thrown) throw QPNExceptionWithErrCode_(c.code, c.file, 1, false, nullptr);
      return static_cast<int>(c.code);
    };
    const HttpOutput out = run("GET", "/any", auth_);
    EXPECT_EQ(out.status, c.status) << c.code;
    const Json::Value body = parse(out.body);
    EXPECT_TRUE(body["data"].isNull());
    EXPECT_EQ(body["error"]["code"].asInt64(), c.code);
    EXPECT_EQ(body["error"]["description"].asString(), c.description) << c.code;
  }
}

TEST_F(MappingTest, OtherExceptionsAre500AndServingGoesOn) {
  any_ = [](CRequestMsg&, CResponseMsg&) -> int { throw std::runtime_error("boom"); };
  EXPECT_EQ(run("GET", "/any", auth_).status, 500);
  any_ = [](CRequestMsg&, CResponseMsg&) -> int { throw 42; };
  const HttpOutput out = run("GET", "/any", auth_);
  EXPECT_EQ(out.status, 500);
  EXPECT_EQ(out.body,
            "{\"data\":null,\"error\":{\"code\":50332164,\"description\":\"Internal error.\"}}");
  any_ = [](CRequestMsg&, CResponseMsg&) -> int {
    throw QPNException("record don't exist, index is 0");
  };
  EXPECT_EQ(run("GET", "/any", auth_).status, 500);
  EXPECT_EQ(run("GET", "/healthz").status, 200);
}

TEST_F(MappingTest, MinusOneWithUntouchedResponseIs405) {
  any_ = [](CRequestMsg&, CResponseMsg&) { return -1; };
  EXPECT_EQ(run("PUT", "/any", auth_).status, 405);
  // -1 after the operation wrote its answer renders the answer.
  any_ = [](CRequestMsg&, CResponseMsg& r) {
    r.getJsonBody()["data"] = 1;
    return -1;
  };
  EXPECT_EQ(run("GET", "/any", auth_).status, 200);
}

TEST_F(MappingTest, TextContentKindKeepsTheOperationsTypeAndHeaders) {
  any_ = [](CRequestMsg& q, CResponseMsg& r) {
    r.getJsonBody()["data"]["CERT"] = "certPath";
    r.getJsonBody()["error"]["code"] = 0;
    r.getJsonBody()["error"]["description"] = "0";
    r.setContentKind(CResponseMsg::kContentText);
    q.getSessionInfo().getHttpConnection()->setResponseHeader("Content-Type",
                                                              "text/plain; charset=utf-8");
    q.getSessionInfo().getHttpConnection()->setResponseHeader("X-Auth-Token", "t");
    return 0;
  };
  const HttpOutput out = run("POST", "/any", auth_);
  EXPECT_EQ(out.status, 200);
  EXPECT_EQ(out.contentType, "text/plain; charset=utf-8");
  EXPECT_EQ(out.body,
            "{\"data\":{\"CERT\":\"certPath\"},\"error\":{\"code\":0,\"description\":\"0\"}}");
  EXPECT_EQ(header(out, "X-Auth-Token"), "t");
  EXPECT_EQ(header(out, "Content-Type"), "");
}

void addTask(CResponseMsg& r, const char* id, uint32_t status) {
  CR3MRecordV3& rec =
      r.addRecord(proto::moCommand(proto::kTaskObjType, proto::kMoList), proto::kWord);
  rec[proto::kTagTaskId].setString(proto::kTagTaskId, id);
  rec[proto::kTagTaskStatus].setUInt32(proto::kTagTaskStatus, status);
  rec[proto::kTagTaskStartTime].setUInt64(proto::kTagTaskStartTime, 1700000000000ULL);
  rec[proto::kTagTaskDetail].setString(proto::kTagTaskDetail, "");
  const std::string info = "{\"code\":\"7\",\"description\":\"disk full\"}";
  rec[proto::kTagTaskErrorInfo].set_i(CTLVCell::TLV_JSON, proto::kTagTaskErrorInfo,
                                      const_cast<char*>(info.data()), info.size());
  rec[200].setInt32(200, -5);
}

TEST_F(MappingTest, GenericConversionOfTasks) {
  task_ = [](CRequestMsg& q, CResponseMsg& r) {
    if (q.getResIDs().empty()) {
      addTask(r, "T-1", 1);
      addTask(r, "T-2", 2);
    } else if (q.getResIDs()[0] == "COUNT") {
      r.addRecord(0, proto::kWord)[proto::kTagTotal].setUInt32(proto::kTagTotal, 23);
    } else {
      addTask(r, q.getResIDs()[0].c_str(), 3);
      r.getReplyTemplates()["extra"] = "kept";
    }
    return 0;
  };
  const char* errorOk = "\"error\":{\"code\":0,\"description\":\"0\"}";
  HttpOutput out = run("GET", "/kestrel_task", auth_);
  EXPECT_EQ(out.status, 200);
  EXPECT_EQ(out.body,
            std::string("{\"data\":[") +
                "{\"detail\":\"\",\"errorInfo\":{\"code\":\"7\",\"description\":\"disk full\"},"
                "\"startTime\":1700000000000,\"status\":1,\"tag200\":-5,\"taskId\":\"T-1\"},"
                "{\"detail\":\"\",\"errorInfo\":{\"code\":\"7\",\"description\":\"disk full\"},"
                "\"startTime\":1700000000000,\"status\":2,\"tag200\":-5,\"taskId\":\"T-2\"}]," +
                errorOk + "}");
  out = run("GET", "/kestrel_task/COUNT", auth_);
  EXPECT_EQ(out.body, std::string("{\"data\":{\"count\":23},") + errorOk + "}");
  out = run("GET", "/kestrel_task/T-9", auth_);
  const Json::Value one = parse(out.body);
  EXPECT_EQ(one["data"]["taskId"].asString(), "T-9");
  EXPECT_EQ(one["data"]["status"].asInt(), 3);
  EXPECT_EQ(one["extra"].asString(), "kept");  // reply templates join the answer
}

TEST_F(MappingTest, GenericConversionOfTheStorageConfiguration) {
  any_ = [](CRequestMsg&, CResponseMsg& r) {
    r.setCommandId(proto::moCommand(0x62, 0xDE));
    CR3MRecordV3& rec = r.addRecord(proto::moCommand(0x62, 0xDE), proto::kWord);
    rec[proto::kTagResultCode].setString(proto::kTagResultCode, "");
    rec[proto::kTagResultParams].setString(proto::kTagResultParams, "a#@#b");
    rec[proto::kTagStorageType].setUInt32(proto::kTagStorageType, 1);
    rec[proto::kTagStoragePath].setString(proto::kTagStoragePath, "/backup");
    rec[proto::kTagStorageCapacity].setUInt64(proto::kTagStorageCapacity, 5000000000ULL);
    return 0;
  };
  const HttpOutput out = run("GET", "/any", auth_);
  EXPECT_EQ(out.body,
            "{\"data\":{\"capacity\":5000000000,\"result\":\"\",\"resultParams\":\"a#@#b\","
            "\"storagePath\":\"/backup\",\"storageType\":1},"
            "\"error\":{\"code\":0,\"description\":\"0\"}}");
}

TEST(ErrorTableTest, StatusTable) {
  EXPECT_EQ(gw::httpStatusForCode(0x03000003), 400);
  EXPECT_EQ(gw::httpStatusForCode(0x03000011), 401);
  EXPECT_EQ(gw::httpStatusForCode(0x03000012), 403);
  EXPECT_EQ(gw::httpStatusForCode(0x60E01D0A), 422);
  EXPECT_EQ(gw::httpStatusForCode(0x60E01D12), 422);
  EXPECT_EQ(gw::httpStatusForCode(0x03000103), 502);
  EXPECT_EQ(gw::httpStatusForCode(-1), 500);
  EXPECT_EQ(gw::toCompactJson(gw::errorEnvelope(7, "x")),
            "{\"data\":null,\"error\":{\"code\":7,\"description\":\"x\"}}");
}

// Keeps every audit record, for the tests.
class AuditCapture : public AuditSink {
 public:
  void write(const AuditEvent& event) override { events.push_back(event); }
  std::vector<AuditEvent> events;
};

// The access table decides before any operation runs: the shipped table on
// routes registered as the plug-in registers them, with one session per
// scope.
class AccessMappingTest : public ::testing::Test {
 protected:
  AccessMappingTest() {
    for (const char* url : {"/kestrel_cert/import_crl", "/kestrel_task", "/sessions",
                            "/alarm/historyalarm/count"}) {
      registry_.regReqProc(url, new FakeOp(&seen_, writeEnvelope), true);
    }
    registry_.regReqProcV1("/alarm/historyalarm/count", new FakeOp(&seen_, writeEnvelope), true);
    setAuditSink(audit_);
  }
  ~AccessMappingTest() override { setAuditSink(nullptr); }

  // Token "scope-N" is a session of scope N, in Chinese for N = 1.
  HttpOutput run(const std::string& method, const std::string& target, const std::string& token,
                 const std::string& language = "") {
    gw::DispatchOptions options;
    options.access = std::make_shared<const AccessTable>(AccessTable::defaults());
    Dispatcher dispatcher(
        registry_,
        [](const std::string& t, CSessionInfo& info) {
          if (t.compare(0, 6, "scope-") != 0) return false;
          info.getUserContext().userName_ = "user" + t.substr(6);
          info.getUserContext().scope_ = t.substr(6);
          info.setLanguage(t == "scope-1" ? "zh" : "en");
          return true;
        },
        options);
    HttpInput in;
    in.method = method;
    in.target = target + (language.empty() ? "" : "?LANGUAGE=" + language);
    in.headers = {{"X-Auth-Token", token}};
    in.clientAddress = "10.0.0.9";
    return dispatcher.handle(in);
  }

  CSpecifyProc registry_;
  Seen seen_;
  std::shared_ptr<AuditCapture> audit_ = std::make_shared<AuditCapture>();
};

TEST_F(AccessMappingTest, EachScopeCallsWhatTheTableAllows) {
  const struct {
    const char* method;
    const char* path;
    const char* token;
    int status;
  } kCases[] = {
      {"POST", "/kestrel_cert/import_crl", "scope-0", 200},
      {"POST", "/kestrel_cert/import_crl", "scope-4", 200},
      {"POST", "/kestrel_cert/import_crl", "scope-1", 403},  // the auditor reads only
      {"POST", "/kestrel_cert/import_crl", "scope-7", 403},  // a scope nobody named
      {"GET", "/kestrel_task", "scope-1", 200},
      {"HEAD", "/kestrel_task", "scope-1", 200},
      {"GET", "/kestrel_task", "scope-4", 200},
      {"GET", "/alarm/historyalarm/count", "scope-1", 200},
      {"GET", "/v1/alarm/historyalarm/count", "scope-4", 200},
      {"POST", "/alarm/historyalarm/count", "scope-1", 403},  // not a read
      {"POST", "/v1/alarm/historyalarm/count", "scope-4", 403},
      {"POST", "/alarm/historyalarm/count", "scope-0", 200},
      {"DELETE", "/sessions", "scope-1", 200},  // everyone may sign out
      {"DELETE", "/sessions", "scope-4", 200},
      {"PUT", "/sessions", "scope-1", 403},  // no rule: the administrator's only
      {"PUT", "/sessions", "scope-0", 200},
      {"POST", "/sessions", "", 200},  // logins are public
      {"POST", "/kestrel_cert/import_crl", "", 401},  // no session comes first
  };
  for (const auto& c : kCases) {
    seen_.calls = 0;
    const HttpOutput out = run(c.method, c.path, c.token);
    EXPECT_EQ(out.status, c.status) << c.method << " " << c.path << " " << c.token << " "
                                    << out.body;
    EXPECT_EQ(seen_.calls, c.status == 200 ? 1 : 0) << c.method << " " << c.path;
  }
}

TEST_F(AccessMappingTest, ARefusalHasItsOwnCodeAndTextInBothLanguages) {
  HttpOutput out = run("POST", "/kestrel_cert/import_crl", "scope-4", "zh");
  EXPECT_EQ(out.status, 200);
  out = run("POST", "/kestrel_cert/import_crl", "scope-1");  // the session is Chinese
  EXPECT_EQ(out.status, 403);
  EXPECT_EQ(out.code, gw::kErrScopeForbidden);
  EXPECT_EQ(out.body,
            "{\"data\":null,\"error\":{\"code\":50332168,\"description\":\"当前用户的角色不允许此"
            "操作，请联系管理员。\"}}");
  EXPECT_EQ(out.user, "user1");  // the access log names who was refused
  out = run("POST", "/kestrel_cert/import_crl", "scope-1", "en");
  EXPECT_EQ(out.body,
            "{\"data\":null,\"error\":{\"code\":50332168,\"description\":\"The signed-in user's "
            "scope does not allow this call. Ask an administrator.\"}}");
}

TEST_F(AccessMappingTest, RefusalsAndChangesAreAudited) {
  run("GET", "/kestrel_task", "scope-1");  // a read: not audited
  run("POST", "/kestrel_cert/import_crl", "scope-1");
  run("POST", "/kestrel_cert/import_crl", "scope-4");
  ASSERT_EQ(audit_->events.size(), 2U);
  const AuditEvent& denied = audit_->events[0];
  EXPECT_EQ(denied.event, "denied");
  EXPECT_EQ(denied.outcome, "refused");
  EXPECT_EQ(denied.user, "user1");
  EXPECT_EQ(denied.scope, "1");
  EXPECT_EQ(denied.client, "10.0.0.9");
  EXPECT_EQ(denied.route, "/kestrel_cert/import_crl");
  EXPECT_EQ(denied.method, "POST");
  EXPECT_EQ(denied.code, gw::kErrScopeForbidden);
  EXPECT_GT(denied.timeMs, 0);
  const AuditEvent& change = audit_->events[1];
  EXPECT_EQ(change.event, "change");
  EXPECT_EQ(change.outcome, "success");
  EXPECT_EQ(change.scope, "4");
  EXPECT_EQ(change.code, 0);
}

TEST(ErrorTableTest, ChineseTextsWhereThereIsOne) {
  EXPECT_EQ(gw::describeCode(gw::kErrScopeForbidden, "en"), gw::describeCode(gw::kErrScopeForbidden));
  EXPECT_EQ(gw::describeCode(gw::kErrScopeForbidden, "zh"),
            "当前用户的角色不允许此操作，请联系管理员。");
  // Codes without a Chinese text keep their English one.
  EXPECT_EQ(gw::describeCode(gw::kErrRouteNotFound, "zh"), "No such path.");
  EXPECT_EQ(gw::httpStatusForCode(gw::kErrScopeForbidden), 403);
  EXPECT_EQ(gw::httpStatusForCode(gw::kErrFormLoginNeedsConsole), 403);
}

}  // namespace
