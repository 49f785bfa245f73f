// The event-driven transport with real sockets: idle and slow clients hold
// no thread, so a fresh client is answered while a thousand connections sit
// idle and another sends its header a byte a second; the limits end slow
// clients with their own answer; a full line of waiting requests is refused
// with 503; SIGTERM lets the requests in flight finish and takes no new ones.
//
// Orders are forced by what the gateway does (a login holds its worker for a
// second, by design), never by timed assertions; "within one second" is the
// client's own time-out.
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"
#include "error_table.h"
#include "raw_client.h"

namespace {

// Idle connections held open at once in the first test.
constexpr int kIdle = 1000;

std::string loginRequest(const std::string& password) {
  Json::Value body;
  body["username"] = "apiuser";
  body["password"] = password;
  body["scope"] = "4";
  body["language"] = "en";
  const std::string json = Json::FastWriter().write(body);
  return "POST /sessions HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
         "Content-Length: " +
         std::to_string(json.size()) + "\r\n\r\n" + json;
}

std::string statusLine(const std::string& answer) { return answer.substr(0, answer.find("\r\n")); }

long long codeOf(const std::string& answer) {
  const size_t body = answer.find("\r\n\r\n");
  if (body == std::string::npos) return -1;
  return parseJson(answer.substr(body + 4))["error"]["code"].asInt64();
}

// The value of the sample `name` in the gateway's /metrics, or -1.
double metric(httplib::Client& client, const std::string& name) {
  auto res = client.Get("/metrics");
  return res && res->status == 200 ? metricSample(res->body, name) : -1;
}

// Waits (at most 30 s) until `condition` holds.
template <class Condition>
bool eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

// Room for the idle connections on both ends of the loopback.
void raiseOpenFileLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

TEST(TransportE2E, IdleConnectionsAndASlowHeaderBlockNoOne) {
  raiseOpenFileLimit();
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--header-timeout", "4"})) << gateway.output();
  httplib::Client setup("127.0.0.1", gateway.port());
  const std::string token = loginToken(setup, gateway.password());
  ASSERT_FALSE(token.empty());

  // The slow client: its header, one byte a second, longer than the
  // header time-out allows.
  const std::string slowHeader = "GET /healthz HTTP/1.1\r\nHost: slow\r\n\r\n";
  RawClient slow(gateway.port());
  ASSERT_TRUE(slow.connected());
  std::atomic<size_t> sent{0};
  std::atomic<bool> cut{false};
  std::thread dripper([&] {
    for (char c : slowHeader) {
      if (cut || !slow.send(std::string(1, c))) return;
      ++sent;
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
  });

  std::vector<std::unique_ptr<RawClient>> idle;
  for (int i = 0; i < kIdle; ++i) {
    idle.push_back(std::make_unique<RawClient>(gateway.port()));
    ASSERT_TRUE(idle.back()->connected()) << "connection " << i;
  }

  // A fresh client, answered within one second for each request.
  httplib::Client fresh("127.0.0.1", gateway.port());
  recordExchanges(fresh);
  fresh.set_connection_timeout(1);
  fresh.set_read_timeout(1);
  auto health = fresh.Get("/healthz");
  ASSERT_TRUE(health) << httplib::to_string(health.error());
  EXPECT_EQ(health->status, 200);
  auto tasks = fresh.Get("/kestrel_task?limit=10", httplib::Headers{{"X-Auth-Token", token}});
  ASSERT_TRUE(tasks) << httplib::to_string(tasks.error());
  EXPECT_EQ(tasks->status, 200);
  EXPECT_GE(metric(fresh, "nox_open_connections"), kIdle) << "the idle ones are all held";

  // The slow header is cut off at the time-out with 408, before it is whole.
  std::string answer;
  EXPECT_TRUE(slow.waitForClose(20000, &answer));
  cut = true;
  dripper.join();
  EXPECT_LT(sent.load(), slowHeader.size());
  EXPECT_EQ(statusLine(answer), "HTTP/1.1 408 Request Timeout") << answer;
  EXPECT_EQ(codeOf(answer), gw::kErrRequestTimeout);
  EXPECT_NE(answer.find("The request header did not arrive in time."), std::string::npos);
  EXPECT_NE(answer.find("\r\nConnection: close\r\n"), std::string::npos);
  // The idle ones, which never sent a byte, are closed without an answer.
  std::string idleAnswer;
  EXPECT_TRUE(idle.front()->waitForClose(20000, &idleAnswer));
  EXPECT_EQ(idleAnswer, "");
  // Its request line never came whole: no method or path to log.
  EXPECT_NE(gateway.accessLog().find(" 127.0.0.1 - - 408 "), std::string::npos)
      << gateway.accessLog();
  EXPECT_EQ(gateway.stop(), 0) << gateway.output();
}

TEST(TransportE2E, AClientThatStopsReadingHoldsNoWorker) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--threads", "1", "--write-timeout", "2"})) << gateway.output();
  httplib::Client client("127.0.0.1", gateway.port());
  recordExchanges(client);
  const std::string token = loginToken(client, gateway.password());
  ASSERT_FALSE(token.empty());

  // Each asks for the API document (100 KiB) forty times at once, with a
  // small receive window, and reads nothing: the gateway's writes to them
  // stall.
  std::string pipelined;
  for (int i = 0; i < 40; ++i) pipelined += "GET /openapi.json HTTP/1.1\r\nHost: x\r\n\r\n";
  std::vector<std::unique_ptr<RawClient>> stalled;
  for (int i = 0; i < 4; ++i) {
    stalled.push_back(std::make_unique<RawClient>(gateway.port(), 4096));
    ASSERT_TRUE(stalled.back()->connected());
    ASSERT_TRUE(stalled.back()->send(pipelined));
  }
  // More stalled clients than there are workers of any kind, and the
  // gateway still answers: its health, and an operation on the one worker.
  client.set_read_timeout(5);
  auto health = client.Get("/healthz");
  ASSERT_TRUE(health);
  EXPECT_EQ(health->status, 200);
  auto count = client.Get("/kestrel_task/count", httplib::Headers{{"X-Auth-Token", token}});
  ASSERT_TRUE(count);
  EXPECT_EQ(count->status, 200);
  EXPECT_EQ(metric(client, "nox_workers_busy"), 0) << "no worker waits on a stalled client";
  // The write time-out ends each stalled connection.
  for (auto& raw : stalled) EXPECT_TRUE(raw->waitForClose(30000));
  EXPECT_EQ(gateway.stop(), 0) << gateway.output();
}

TEST(TransportE2E, HealthNeverWaitsForOperationsAndAFullLineIsRefused) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--threads", "1", "--login-threads", "1", "--queue", "0"}))
      << gateway.output();
  httplib::Client client("127.0.0.1", gateway.port());
  recordExchanges(client);
  const std::string token = loginToken(client, gateway.password());
  // A login holds its thread for a second: the only login thread is busy.
  RawClient login(gateway.port());
  ASSERT_TRUE(login.send(loginRequest(gateway.password())));
  ASSERT_TRUE(eventually([&] { return metric(client, "nox_workers_busy") == 1; }))
      << login.readAnswer() << gateway.accessLog();
  auto health = client.Get("/healthz");
  ASSERT_TRUE(health);
  EXPECT_EQ(health->status, 200);
  EXPECT_FALSE(login.readable()) << "the health check waited for the login";
  // Logins have threads of their own: an operation still has its worker.
  auto count = client.Get("/kestrel_task/count", httplib::Headers{{"X-Auth-Token", token}});
  ASSERT_TRUE(count);
  EXPECT_EQ(count->status, 200) << count->body;
  EXPECT_FALSE(login.readable()) << "the operation waited for the login";
  // No login thread free and no room in line: refused at once, with a hint.
  auto refused = client.Post("/sessions", "{}", "application/json");
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->status, 503);
  EXPECT_EQ(refused->get_header_value("Retry-After"), "1");
  EXPECT_EQ(parseJson(refused->body)["error"]["code"].asInt64(), gw::kErrBusy);
  EXPECT_EQ(parseJson(refused->body)["error"]["description"].asString(),
            "The gateway is busy. Try again shortly.");
  EXPECT_EQ(statusLine(login.readAnswer()), "HTTP/1.1 200 OK");
  EXPECT_EQ(gateway.stop(), 0) << gateway.output();
}

TEST(TransportE2E, SigtermFinishesRequestsInFlightAndTakesNoNewOnes) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start()) << gateway.output();
  RawClient silent(gateway.port());  // connected, never sends
  RawClient kept(gateway.port());    // one answer, then idle on keep-alive
  ASSERT_TRUE(kept.send("GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n"));
  ASSERT_EQ(statusLine(kept.readAnswer()), "HTTP/1.1 200 OK");
  RawClient inFlight(gateway.port());
  ASSERT_TRUE(inFlight.send(loginRequest(gateway.password())));
  httplib::Client probe("127.0.0.1", gateway.port());
  ASSERT_TRUE(eventually([&] { return metric(probe, "nox_workers_busy") == 1; }));

  gateway.terminate();
  // The idle connections are closed at once, without an answer...
  std::string nothing;
  EXPECT_TRUE(silent.waitForClose(10000, &nothing));
  EXPECT_TRUE(kept.waitForClose(10000, &nothing));
  EXPECT_EQ(nothing, "");
  // ... while the login, which takes a second, is still being served: new
  // connections are refused meanwhile.
  EXPECT_FALSE(inFlight.readable());
  RawClient late(gateway.port());
  EXPECT_FALSE(late.connected());
  // The login is answered in full, with the connection's end announced.
  const std::string answer = inFlight.readAnswer();
  EXPECT_EQ(statusLine(answer), "HTTP/1.1 200 OK") << answer;
  EXPECT_NE(answer.find("\r\nConnection: close\r\n"), std::string::npos) << answer;
  EXPECT_NE(answer.find("\"token\""), std::string::npos);
  EXPECT_EQ(gateway.stop(), 0) << gateway.output();
}

// A stop that comes while idle connections are being closed for their
// header time-out: a connection may be closed on its own between being
// collected for the stop and being closed by it. Each round stops the
// gateway at a different moment around the time-outs; every stop is clean.
TEST(TransportE2E, AStopWhileIdleConnectionsTimeOutIsClean) {
  raiseOpenFileLimit();
  for (int round = 0; round < 6; ++round) {
    GatewayProcess gateway;
    ASSERT_TRUE(gateway.start({"--header-timeout", "1"})) << gateway.output();
    std::vector<std::unique_ptr<RawClient>> idle;
    for (int i = 0; i < 300; ++i) {
      idle.push_back(std::make_unique<RawClient>(gateway.port()));
      ASSERT_TRUE(idle.back()->connected()) << "connection " << i;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(900 + 40 * round));
    EXPECT_EQ(gateway.stop(), 0) << "round " << round << "\n" << gateway.output();
    EXPECT_EQ(gateway.traceLog().find("a connection was dropped"), std::string::npos)
        << gateway.traceLog();
  }
}

TEST(TransportE2E, ABodyThatArrivesTooSlowlyIsRefused) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--read-timeout", "1", "--min-body-rate", "1000"}))
      << gateway.output();
  RawClient slow(gateway.port());
  const std::string body(5000, ' ');
  ASSERT_TRUE(slow.send("POST /sessions HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
                        "Content-Length: 5000\r\n\r\n"));
  // Ten bytes every 200 ms: never silent for a second, but 50 bytes a
  // second against the thousand asked for.
  std::string answer;
  for (int i = 0; i < 100 && !slow.readable(); ++i) {
    if (!slow.send(body.substr(0, 10))) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  EXPECT_TRUE(slow.waitForClose(10000, &answer));
  EXPECT_EQ(statusLine(answer), "HTTP/1.1 408 Request Timeout") << answer;
  EXPECT_NE(answer.find("The request body arrives too slowly."), std::string::npos);
  EXPECT_EQ(codeOf(answer), gw::kErrRequestTimeout);
  EXPECT_EQ(gateway.stop(), 0) << gateway.output();
}

TEST(TransportE2E, ConnectionsBeyondTheCapAreClosedAndCounted) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--max-connections", "3"})) << gateway.output();
  RawClient first(gateway.port());
  RawClient second(gateway.port());
  RawClient third(gateway.port());
  httplib::Client probe("127.0.0.1", gateway.port());
  // The cap is full: a fourth connection is accepted by the kernel and closed
  // by the gateway at once.
  RawClient fourth(gateway.port());
  ASSERT_TRUE(fourth.connected());
  std::string nothing;
  EXPECT_TRUE(fourth.waitForClose(10000, &nothing));
  EXPECT_EQ(nothing, "");
  first.close();
  // With room again, requests are served, and the refusal was counted. (The
  // probe keeps its one connection.)
  probe.set_keep_alive(true);
  EXPECT_TRUE(eventually([&] { return metric(probe, "nox_connections_refused_total") >= 1; }));
  EXPECT_EQ(gateway.stop(), 0) << gateway.output();
}

}  // namespace
