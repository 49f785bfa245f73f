// Helpers shared by the end-to-end tests: JSON parsing of answers, the
// envelope checks, and a gateway per test whose client records its
// exchanges for the contract test.
#ifndef NOX_TESTS_E2E_E2E_SUPPORT_H_
#define NOX_TESTS_E2E_E2E_SUPPORT_H_

#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>

#include <memory>
#include <string>
#include <vector>

#include "exchange_recorder.h"
#include "gateway_process.h"

inline Json::Value parseJson(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    ADD_FAILURE() << "not JSON: " << text;
  }
  return value;
}

// Checks {"data": null, "error": {"code": code, "description": <non-empty>}}.
inline void expectEnvelope(const httplib::Result& res, int status, long long code) {
  ASSERT_TRUE(res) << "no answer";
  EXPECT_EQ(res->status, status) << res->body;
  const Json::Value body = parseJson(res->body);
  EXPECT_TRUE(body.isMember("data") && body["data"].isNull()) << res->body;
  EXPECT_TRUE(body["error"]["code"].isIntegral()) << res->body;
  EXPECT_EQ(body["error"]["code"].asInt64(), code) << res->body;
  EXPECT_TRUE(body["error"]["description"].isString() &&
              !body["error"]["description"].asString().empty())
      << res->body;
}

// The answer of an accepted certificate or CRL import.
constexpr char kImportedBody[] =
    R"({"data":{"CERT":"certPath"},"error":{"code":0,"description":"0"}})";

// Uploads `content` as the file part "file" named `fileName`
// (multipart/form-data) to the import route `path`, with the session `token`.
inline httplib::Result uploadFile(httplib::Client& client, const std::string& token,
                                  const std::string& path, const std::string& fileName,
                                  const std::string& content) {
  httplib::MultipartFormDataItems items = {
      {"file", content, fileName, "application/octet-stream"}};
  return client.Post(path.c_str(), httplib::Headers{{"X-Auth-Token", token}}, items);
}

// Checks an accepted import: 200, the operation's text body.
inline void expectImported(const httplib::Result& res) {
  ASSERT_TRUE(res) << "no answer";
  EXPECT_EQ(res->status, 200) << res->body;
  EXPECT_EQ(res->get_header_value("Content-Type"), "text/plain; charset=utf-8");
  EXPECT_EQ(res->body, kImportedBody);
}

// The value of the sample `line` (metric name and labels as written) in a
// /metrics text, or -1 when the text has none.
inline double metricSample(const std::string& text, const std::string& line) {
  const size_t at = text.find("\n" + line + " ");
  if (at == std::string::npos) return -1;
  return std::stod(text.substr(at + line.size() + 2));
}

// Logs in on "/sessions" through `client` and returns the session token
// ("" and a test failure when the login is refused).
inline std::string loginToken(httplib::Client& client, const std::string& password,
                              const std::string& user = "apiuser", const std::string& scope = "4",
                              const std::string& language = "en") {
  Json::Value body;
  body["username"] = user;
  body["password"] = password;
  body["scope"] = scope;
  body["language"] = language;
  auto res = client.Post("/sessions", Json::FastWriter().write(body), "application/json");
  if (!res || res->status != 200) {
    ADD_FAILURE() << "login failed: " << (res ? res->body : "no answer");
    return "";
  }
  return parseJson(res->body)["data"]["token"].asString();
}

// Logs in on "/login" with the verification code, which a gateway started
// with --expose-verify-code puts into its challenge: the console's way in,
// and the only one for the administrator (scope "0") and the auditor ("1").
// Returns the session token ("" and a test failure when refused).
inline std::string codeLoginToken(httplib::Client& client, const std::string& password,
                                  const std::string& user = "admin",
                                  const std::string& scope = "0") {
  auto challenge = client.Get("/login");
  if (!challenge || challenge->status != 200) {
    ADD_FAILURE() << "no challenge: " << (challenge ? challenge->body : "no answer");
    return "";
  }
  const Json::Value data = parseJson(challenge->body)["data"];
  Json::Value body;
  body["username"] = user;
  body["password"] = password;
  body["scope"] = scope;
  body["challengeId"] = data["challengeId"];
  body["verifyCode"] = data["code"];
  auto res = client.Post("/login", Json::FastWriter().write(body), "application/json");
  if (!res || res->status != 200) {
    ADD_FAILURE() << "login failed: " << (res ? res->body : "no answer");
    return "";
  }
  return parseJson(res->body)["data"]["token"].asString();
}

// A test with its own running gateway: started before the test body with
// --expose-verify-code, stopped after it, and the stop must end the process
// with status 0. A test that wants other options overrides SetUp() with a
// call of startGateway(options).
class LiveGatewayTest : public ::testing::Test {
 protected:
  void SetUp() override { startGateway(); }
  void TearDown() override {
    client_.reset();
    EXPECT_EQ(gateway_.stop(), 0) << gateway_.output();
  }

  // Starts the gateway with --expose-verify-code and `extra`, and a client
  // of it that records its exchanges.
  void startGateway(std::vector<std::string> extra = {}) {
    extra.insert(extra.begin(), "--expose-verify-code");
    ASSERT_TRUE(gateway_.start(extra)) << gateway_.output();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", gateway_.port());
    recordExchanges(*client_);
    client_->set_read_timeout(60);
  }

  // Logs in on "/sessions" and returns the token ("" on failure).
  std::string login(const std::string& user = "apiuser", const std::string& scope = "4",
                    const std::string& language = "en") {
    return loginToken(*client_, gateway_.password(), user, scope, language);
  }

  // Logs in as the administrator (or `user` with `scope`) on "/login".
  std::string adminLogin(const std::string& user = "admin", const std::string& scope = "0") {
    return codeLoginToken(*client_, gateway_.password(), user, scope);
  }

  static httplib::Headers auth(const std::string& token) {
    return httplib::Headers{{"X-Auth-Token", token}};
  }

  GatewayProcess gateway_;
  std::unique_ptr<httplib::Client> client_;
};

#endif  // NOX_TESTS_E2E_E2E_SUPPORT_H_
