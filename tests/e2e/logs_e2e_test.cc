// Logs for collectors: X-Request-Id on every answer, carried by the trace
// lines of the request, and the access log as one JSON object per line.
#include <gtest/gtest.h>
#include <httplib.h>

#include <regex>
#include <sstream>
#include <string>

#include "e2e_support.h"

namespace {

bool isNewId(const std::string& id) { return std::regex_match(id, std::regex("[0-9a-f]{32}")); }

TEST(LogsE2E, RequestIdsAndJsonAccessLines) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--log-format", "json"})) << gateway.output();
  httplib::Client client("127.0.0.1", gateway.port());
  recordExchanges(client);

  Json::Value body;
  body["username"] = "apiuser";
  body["password"] = gateway.password();
  body["scope"] = "4";
  auto login = client.Post("/sessions", {{"X-Request-Id", "login-1.A_b"}},
                           Json::FastWriter().write(body), "application/json");
  ASSERT_TRUE(login);
  ASSERT_EQ(login->status, 200) << login->body;
  // A sane identifier of the client's comes back as it is.
  EXPECT_EQ(login->get_header_value("X-Request-Id"), "login-1.A_b");
  const Json::Value data = parseJson(login->body)["data"];
  const std::string token = data["token"].asString();
  const std::string sessionId = data["sessionId"].asString();

  auto tasks = client.Get("/kestrel_task", {{"X-Auth-Token", token}});
  ASSERT_TRUE(tasks);
  const std::string taskId = tasks->get_header_value("X-Request-Id");
  EXPECT_TRUE(isNewId(taskId)) << taskId;
  auto odd = client.Get("/healthz", {{"X-Request-Id", "has blanks and {braces}"}});
  ASSERT_TRUE(odd);
  EXPECT_TRUE(isNewId(odd->get_header_value("X-Request-Id")));
  auto refused = client.Get("/kestrel_task");  // no session: an error answer has one too
  ASSERT_TRUE(refused);
  EXPECT_TRUE(isNewId(refused->get_header_value("X-Request-Id")));
  EXPECT_EQ(gateway.stop(), 0);

  // The login's trace line names its request.
  const std::string trace = gateway.traceLog();
  std::istringstream traceLines(trace);
  bool loginTraced = false;
  for (std::string line; std::getline(traceLines, line);) {
    if (line.find("user apiuser logged in") != std::string::npos) {
      loginTraced = line.find("[request login-1.A_b]") != std::string::npos;
    }
  }
  EXPECT_TRUE(loginTraced) << trace;

  // One JSON object per access line, with session id and request id, never the token.
  const std::string access = gateway.accessLog();
  EXPECT_EQ(access.find(token), std::string::npos);
  std::istringstream accessLines(access);
  int lines = 0;
  bool taskLine = false;
  for (std::string line; std::getline(accessLines, line);) {
    ++lines;
    const Json::Value entry = parseJson(line);
    for (const char* member : {"time", "client", "method", "path", "status", "bytes", "ms", "user",
                               "session", "requestId"}) {
      EXPECT_TRUE(entry.isMember(member)) << member << " missing in " << line;
    }
    if (entry["path"].asString() == "/kestrel_task" && entry["status"].asInt() == 200) {
      taskLine = true;
      EXPECT_EQ(entry["method"].asString(), "GET");
      EXPECT_EQ(entry["user"].asString(), "apiuser");
      EXPECT_EQ(entry["session"].asString(), sessionId);
      EXPECT_EQ(entry["requestId"].asString(), taskId);
      EXPECT_EQ(entry["client"].asString(), "127.0.0.1");
    }
  }
  EXPECT_EQ(lines, 4) << access;
  EXPECT_TRUE(taskLine) << access;
}

}  // namespace
