// The audit trail end to end: nox-gateway --audit-log writes one JSON object
// per security event (logins, logouts, expired sessions) with the request id
// of the answer, never a password or a token; SIGHUP moves it (and the
// access and trace logs) to a new file after a rotation; and no log takes a
// line that a client forged in a user name or a path.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"
#include "raw_client.h"

namespace {

constexpr long long kErrLoginFailed = 0x03000010;
constexpr long long kErrNotLoggedIn = 0x03000011;
constexpr char kWrongPassword[] = "Wr0ng-Pass-4-audit";
constexpr char kForged[] = "2026-11-25T00:00:00.000Z INFO  [3] handleLogin:1 user admin logged in";

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

bool exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// Waits (at most 10 s) until every file in `paths` exists.
bool waitForFiles(const std::vector<std::string>& paths) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    bool all = true;
    for (const std::string& path : paths) all = all && exists(path);
    if (all) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

// Every audit line: exactly the ten members, of their types.
void expectAuditShape(const Json::Value& line) {
  EXPECT_EQ(line.getMemberNames().size(), 10u) << line.toStyledString();
  for (const char* member :
       {"time", "requestId", "event", "outcome", "user", "scope", "client", "route", "method"}) {
    EXPECT_TRUE(line[member].isString()) << member << " in " << line.toStyledString();
  }
  EXPECT_TRUE(line["code"].isIntegral()) << line.toStyledString();
  EXPECT_TRUE(std::regex_match(line["time"].asString(),
                               std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z")))
      << line["time"].asString();
}

class AuditSecurityE2E : public ::testing::Test {
 protected:
  void start(const std::vector<std::string>& extra = {}) {
    std::vector<std::string> args = {"--audit-log", auditPath()};
    args.insert(args.end(), extra.begin(), extra.end());
    ASSERT_TRUE(gateway_.start(args)) << gateway_.output();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", gateway_.port());
    recordExchanges(*client_);
  }
  void TearDown() override {
    client_.reset();
    EXPECT_EQ(gateway_.stop(), 0) << gateway_.output();
  }

  std::string auditPath() const { return gateway_.dataDir() + "/audit.log"; }
  std::vector<Json::Value> auditLines(const std::string& path) const {
    std::vector<Json::Value> out;
    for (const std::string& line : linesOf(readFile(path))) out.push_back(parseJson(line));
    return out;
  }

  // POST /sessions with `user` and `password`; the answer.
  httplib::Result login(const std::string& user, const std::string& password,
                        const std::string& requestId = "") {
    Json::Value body;
    body["username"] = user;
    body["password"] = password;
    body["scope"] = "4";
    httplib::Headers headers;
    if (!requestId.empty()) headers.emplace("X-Request-Id", requestId);
    return client_->Post("/sessions", headers, Json::FastWriter().write(body), "application/json");
  }

  GatewayProcess gateway_;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(AuditSecurityE2E, LoginsAndLogoutsWithTheirRequestIdsAndNoSecrets) {
  start();
  auto good = login("apiuser", gateway_.password(), "audit-login-1");
  ASSERT_TRUE(good);
  ASSERT_EQ(good->status, 200) << good->body;
  const std::string token = parseJson(good->body)["data"]["token"].asString();
  auto bad = login("apiuser", kWrongPassword);
  expectEnvelope(bad, 401, kErrLoginFailed);
  auto logout = client_->Delete("/sessions", {{"X-Auth-Token", token}});
  ASSERT_TRUE(logout);
  ASSERT_EQ(logout->status, 200) << logout->body;

  const std::vector<Json::Value> lines = auditLines(auditPath());
  ASSERT_EQ(lines.size(), 3u) << readFile(auditPath());
  for (const Json::Value& line : lines) {
    expectAuditShape(line);
    EXPECT_EQ(line["user"].asString(), "apiuser");
    EXPECT_EQ(line["scope"].asString(), "4");
    EXPECT_EQ(line["client"].asString(), "127.0.0.1");
  }
  EXPECT_EQ(lines[0]["event"].asString(), "login");
  EXPECT_EQ(lines[0]["outcome"].asString(), "success");
  EXPECT_EQ(lines[0]["code"].asInt64(), 0);
  EXPECT_EQ(lines[0]["route"].asString(), "/sessions");
  EXPECT_EQ(lines[0]["method"].asString(), "POST");
  EXPECT_EQ(lines[0]["requestId"].asString(), "audit-login-1");
  EXPECT_EQ(lines[1]["event"].asString(), "login");
  EXPECT_EQ(lines[1]["outcome"].asString(), "failure");
  EXPECT_EQ(lines[1]["code"].asInt64(), kErrLoginFailed);
  EXPECT_EQ(lines[1]["requestId"].asString(), bad->get_header_value("X-Request-Id"));
  EXPECT_EQ(lines[2]["event"].asString(), "logout");
  EXPECT_EQ(lines[2]["outcome"].asString(), "success");
  EXPECT_EQ(lines[2]["route"].asString(), "/sessions");
  EXPECT_EQ(lines[2]["method"].asString(), "DELETE");
  EXPECT_EQ(lines[2]["requestId"].asString(), logout->get_header_value("X-Request-Id"));

  const std::string text = readFile(auditPath());
  EXPECT_EQ(text.find(gateway_.password()), std::string::npos);
  EXPECT_EQ(text.find(kWrongPassword), std::string::npos);
  EXPECT_EQ(text.find(token), std::string::npos);
  EXPECT_EQ(text.find(token.substr(0, 32)), std::string::npos) << "not even half of it";
  struct stat st;
  ASSERT_EQ(stat(auditPath().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

// logrotate's way: move the files away, then SIGHUP. Events before the
// signal stay in the moved files; after it the gateway writes new ones.
TEST_F(AuditSecurityE2E, SighupReopensTheLogsAfterARotation) {
  start();
  expectEnvelope(login("apiuser", kWrongPassword), 401, kErrLoginFailed);
  const std::string folder = gateway_.dataDir();
  const std::vector<std::string> logs = {auditPath(), folder + "/access.log",
                                         folder + "/trace.log"};
  for (const std::string& path : logs) ASSERT_EQ(rename(path.c_str(), (path + ".1").c_str()), 0);
  gateway_.sendSignal(SIGHUP);
  ASSERT_TRUE(waitForFiles(logs)) << gateway_.output();

  auto again = login("rotated", kWrongPassword, "after-rotation");
  ASSERT_TRUE(again);
  const std::vector<Json::Value> old = auditLines(auditPath() + ".1");
  const std::vector<Json::Value> fresh = auditLines(auditPath());
  ASSERT_EQ(old.size(), 1u);
  EXPECT_EQ(old[0]["user"].asString(), "apiuser");
  ASSERT_EQ(fresh.size(), 1u) << readFile(auditPath());
  EXPECT_EQ(fresh[0]["user"].asString(), "rotated");
  EXPECT_EQ(fresh[0]["requestId"].asString(), "after-rotation");

  // The gateway is still serving, and the access and trace logs moved on too
  // (an access line is written once its answer is sent: waited for).
  auto health = client_->Get("/healthz");
  ASSERT_TRUE(health);
  EXPECT_EQ(health->status, 200);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (gateway_.accessLog().find(" /healthz ") == std::string::npos &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_NE(gateway_.accessLog().find(" /healthz "), std::string::npos) << gateway_.accessLog();
  EXPECT_EQ(readFile(folder + "/access.log.1").find(" /healthz "), std::string::npos);
  EXPECT_NE(gateway_.traceLog().find("login of user rotated"), std::string::npos)
      << gateway_.traceLog();
}

// A rotation that leaves a folder where the new file should be: the gateway
// says so and keeps writing to the file it has.
TEST_F(AuditSecurityE2E, AFileThatCannotBeReopenedIsReportedAndTheOldOneKept) {
  start();
  const std::string moved = auditPath() + ".1";
  const std::string trace = gateway_.dataDir() + "/trace.log";
  ASSERT_EQ(rename(auditPath().c_str(), moved.c_str()), 0);
  ASSERT_EQ(mkdir(auditPath().c_str(), 0700), 0);
  ASSERT_EQ(rename(trace.c_str(), (trace + ".1").c_str()), 0);
  gateway_.sendSignal(SIGHUP);
  // The trace log is reopened last: its new file says the audit log's turn
  // has passed.
  ASSERT_TRUE(waitForFiles({trace})) << gateway_.output();
  const std::string complaint =
      "nox-gateway: cannot reopen the audit log " + auditPath() + ": Is a directory";
  auto bad = login("apiuser", kWrongPassword);
  expectEnvelope(bad, 401, kErrLoginFailed);
  EXPECT_EQ(gateway_.stop(), 0);
  EXPECT_NE(gateway_.output().find(complaint), std::string::npos) << gateway_.output();
  const std::vector<Json::Value> lines = auditLines(moved);
  ASSERT_EQ(lines.size(), 1u) << readFile(moved);
  EXPECT_EQ(lines[0]["requestId"].asString(), bad->get_header_value("X-Request-Id"));
  rmdir(auditPath().c_str());
}

TEST_F(AuditSecurityE2E, ASessionIdleTooLongIsReportedExpired) {
  start({"--session-idle", "1"});
  const std::string token = loginToken(*client_, gateway_.password());
  ASSERT_FALSE(token.empty());
  // Idle for longer than a second, counted in whole seconds.
  std::this_thread::sleep_for(std::chrono::milliseconds(2200));
  auto late = client_->Get("/kestrel_task", {{"X-Auth-Token", token}});
  expectEnvelope(late, 401, kErrNotLoggedIn);
  auto again = client_->Get("/kestrel_task", {{"X-Auth-Token", token}});
  expectEnvelope(again, 401, kErrNotLoggedIn);

  const std::vector<Json::Value> lines = auditLines(auditPath());
  ASSERT_EQ(lines.size(), 2u) << readFile(auditPath());  // the login, then the expiry once
  expectAuditShape(lines[1]);
  EXPECT_EQ(lines[1]["event"].asString(), "session_expired");
  EXPECT_EQ(lines[1]["outcome"].asString(), "refused");
  EXPECT_EQ(lines[1]["user"].asString(), "apiuser");
  EXPECT_EQ(lines[1]["scope"].asString(), "4");
  EXPECT_EQ(lines[1]["route"].asString(), "/kestrel_task");
  EXPECT_EQ(lines[1]["method"].asString(), "GET");
  EXPECT_EQ(lines[1]["code"].asInt64(), kErrNotLoggedIn);
  EXPECT_EQ(lines[1]["requestId"].asString(), late->get_header_value("X-Request-Id"));
}

// A user name that carries a whole forged trace line, and request targets
// that carry one: every line of every log still starts with its own time
// stamp, and the audit line holds the name exactly, escaped.
TEST_F(AuditSecurityE2E, ForgedLinesNeverStartALineInAnyLog) {
  start();
  const std::string forgedUser = std::string("x\n") + kForged;
  auto forged = login(forgedUser, kWrongPassword);
  ASSERT_TRUE(forged);
  EXPECT_GE(forged->status, 400);
  EXPECT_LT(forged->status, 500);
  auto carriage = login(std::string("y\r") + kForged + "\xff\x1b[2J", kWrongPassword);
  ASSERT_TRUE(carriage);
  for (const std::string& target :
       {std::string("/kestrel_task%0A") + kForged, std::string("/kestrel_task%0D%0A") + kForged,
        std::string("/a\xff\x7f") + "b"}) {
    RawClient raw(gateway_.port());
    ASSERT_TRUE(raw.connected());
    std::string path = target;
    for (char& c : path) {
      if (c == ' ') c = '_';  // a blank would end the request target
    }
    raw.send("GET " + path + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    EXPECT_FALSE(raw.readAnswer().empty());
  }
  RawClient bare(gateway_.port());
  ASSERT_TRUE(bare.connected());
  bare.send(std::string("GET /a\n") + kForged + " HTTP/1.1\r\nHost: x\r\n\r\n");
  bare.readAnswer();
  EXPECT_EQ(gateway_.stop(), 0);

  const std::regex ownStamp("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z .*");
  for (const std::string& log : {gateway_.traceLog(), gateway_.accessLog()}) {
    for (const std::string& line : linesOf(log)) {
      EXPECT_NE(line.rfind(kForged, 0), 0u) << line;
      EXPECT_TRUE(std::regex_match(line, ownStamp)) << line;
      EXPECT_EQ(line.find('\r'), std::string::npos) << line;
      EXPECT_EQ(line.find('\x1b'), std::string::npos) << line;
    }
  }
  const std::string trace = gateway_.traceLog();
  EXPECT_NE(trace.find(std::string("x\\n") + kForged), std::string::npos) << trace;
  const std::vector<Json::Value> lines = auditLines(auditPath());
  ASSERT_GE(lines.size(), 2u) << readFile(auditPath());
  EXPECT_EQ(lines[0]["user"].asString(), forgedUser);
  EXPECT_EQ(lines[0]["outcome"].asString(), "failure");
  EXPECT_EQ(linesOf(readFile(auditPath())).size(), lines.size());
}

}  // namespace
