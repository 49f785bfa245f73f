// GET /events end to end: the real nox-gateway (with its in-process backend,
// or nox-backend, Redis and nginx in front of two gateways) streams the
// backend's changes as server-sent events. A stream needs a session and the
// access table's word, ends with its session, stays within its limits, and a
// client that reconnects with Last-Event-ID (to the same gateway after a
// restart, or to another one) gets every event exactly once.
#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"
#include "gateway_process.h"
#include "raw_client.h"
#include "redis_server.h"

namespace {

constexpr long long kErrNotLoggedIn = 0x03000011;
constexpr long long kErrScopeForbidden = 0x03000208;
constexpr long long kErrMethodNotAllowed = 0x03000202;
constexpr long long kErrTooManyStreams = 0x0300020A;

httplib::Headers auth(const std::string& token) { return {{"X-Auth-Token", token}}; }

struct SseEvent {
  long long id = -1;
  std::string name;
  std::string data;
};

// A client of one stream over a raw connection: sends the request, then
// reads what comes and splits it into the answer's head and its events.
class SseClient {
 public:
  SseClient(int port, const std::string& token, const std::string& target = "/events",
            const std::string& extraHeaders = "")
      : raw_(port) {
    raw_.send("GET " + target + " HTTP/1.1\r\nHost: x\r\nAccept: text/event-stream\r\n" +
              (token.empty() ? std::string() : "X-Auth-Token: " + token + "\r\n") + extraHeaders +
              "\r\n");
  }

  // Reads until at least `count` events came, the server closed or
  // `timeoutMs` passed; true when the events are there.
  bool waitForEvents(size_t count, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (events_.size() < count && !closed_ && std::chrono::steady_clock::now() < deadline) {
      readFor(200);
    }
    return events_.size() >= count;
  }
  // Reads until a comment line `text` came (true) or `timeoutMs` pass.
  bool waitForComment(const std::string& text, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (comments_.find(text) == std::string::npos && !closed_ &&
           std::chrono::steady_clock::now() < deadline) {
      readFor(200);
    }
    return comments_.find(text) != std::string::npos;
  }
  // Reads until the server closes (true) or `timeoutMs` pass.
  bool waitForClose(int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!closed_ && std::chrono::steady_clock::now() < deadline) readFor(200);
    return closed_;
  }
  void close() { raw_.close(); }

  const std::string& head() const { return head_; }
  const std::vector<SseEvent>& events() const { return events_; }
  const std::string& comments() const { return comments_; }

 private:
  void readFor(int ms) {
    std::string got;
    closed_ = raw_.waitForClose(ms, &got) || closed_;
    wire_ += got;
    if (head_.empty()) {
      const size_t end = wire_.find("\r\n\r\n");
      if (end == std::string::npos) return;
      head_ = wire_.substr(0, end + 4);
      wire_.erase(0, end + 4);
      chunked_ = head_.find("Transfer-Encoding: chunked") != std::string::npos;
    }
    if (chunked_) {
      unchunk();
    } else {
      buffer_ += wire_;
      wire_.clear();
    }
    for (size_t end = buffer_.find("\n\n"); end != std::string::npos; end = buffer_.find("\n\n")) {
      parseBlock(buffer_.substr(0, end));
      buffer_.erase(0, end + 2);
    }
  }

  // A proxy (nginx) passes the stream on in chunks; the last one, of size
  // 0, ends it as a close would.
  void unchunk() {
    for (;;) {
      const size_t line = wire_.find("\r\n");
      if (line == std::string::npos) return;
      const size_t size = std::strtoul(wire_.substr(0, line).c_str(), nullptr, 16);
      if (size == 0) {
        closed_ = true;
        return;
      }
      if (wire_.size() < line + 2 + size + 2) return;
      buffer_ += wire_.substr(line + 2, size);
      wire_.erase(0, line + 2 + size + 2);
    }
  }

  void parseBlock(const std::string& block) {
    SseEvent event;
    size_t at = 0;
    while (at <= block.size()) {
      const size_t nl = std::min(block.find('\n', at), block.size());
      const std::string line = block.substr(at, nl - at);
      at = nl + 1;
      if (line.compare(0, 1, ":") == 0) comments_ += line + "\n";
      if (line.compare(0, 4, "id: ") == 0) event.id = std::atoll(line.c_str() + 4);
      if (line.compare(0, 7, "event: ") == 0) event.name = line.substr(7);
      if (line.compare(0, 6, "data: ") == 0) event.data = line.substr(6);
    }
    if (!event.name.empty()) events_.push_back(event);
  }

  RawClient raw_;
  std::string wire_;    // as received, after the head
  bool chunked_ = false;
  std::string buffer_;  // the stream's text
  std::string head_;
  std::string comments_;
  std::vector<SseEvent> events_;
  bool closed_ = false;
};

// Every id once, each one more than the one before.
void expectConsecutive(const std::vector<long long>& ids) {
  for (size_t i = 1; i < ids.size(); ++i) {
    EXPECT_EQ(ids[i], ids[i - 1] + 1) << "at " << i;
  }
}

std::vector<long long> idsOf(const std::vector<SseEvent>& events) {
  std::vector<long long> ids;
  for (const SseEvent& e : events) ids.push_back(e.id);
  return ids;
}

class EventsE2E : public ::testing::Test {
 protected:
  void start(const std::vector<std::string>& extra = {}) {
    std::vector<std::string> args = {"--simulate", "0.1"};
    args.insert(args.end(), extra.begin(), extra.end());
    ASSERT_TRUE(gateway_.start(args)) << gateway_.output();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", gateway_.port());
    client_->set_read_timeout(30);
    recordExchanges(*client_);
  }
  void TearDown() override {
    client_.reset();
    EXPECT_EQ(gateway_.stop(), 0) << gateway_.output();
  }

  GatewayProcess gateway_;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(EventsE2E, TaskEventsCarryTheBackendsIdAndTheTaskListsRow) {
  start();
  const std::string token = loginToken(*client_, gateway_.password());
  SseClient stream(gateway_.port(), token);
  ASSERT_TRUE(stream.waitForEvents(5, 30000)) << stream.head();
  EXPECT_EQ(stream.head().compare(0, 15, "HTTP/1.1 200 OK"), 0) << stream.head();
  EXPECT_NE(stream.head().find("Content-Type: text/event-stream"), std::string::npos);
  EXPECT_NE(stream.head().find("X-Accel-Buffering: no"), std::string::npos);
  expectConsecutive(idsOf(stream.events()));
  bool sawTask = false;
  for (const SseEvent& e : stream.events()) {
    const Json::Value data = parseJson(e.data);
    ASSERT_TRUE(data.isObject()) << e.data;
    if (e.name != "task") {
      EXPECT_EQ(e.name, "alarm");
      EXPECT_TRUE(data.isMember("severity")) << e.data;
      continue;
    }
    sawTask = true;
    EXPECT_EQ(data["id"], data["taskId"]) << e.data;
    for (const char* member : {"status", "progress", "name", "type", "startTime", "detail"}) {
      EXPECT_TRUE(data.isMember(member)) << member << " in " << e.data;
    }
    // The task list answers the same task with the same members ("id" aside).
    auto list = client_->Get("/kestrel_task?start=0&limit=200", auth(token));
    ASSERT_TRUE(list);
    for (const Json::Value& row : parseJson(list->body)["data"]) {
      if (row["taskId"] != data["id"]) continue;
      Json::Value members = data;
      members.removeMember("id");
      EXPECT_EQ(row.getMemberNames(), members.getMemberNames()) << list->body;
    }
  }
  EXPECT_TRUE(sawTask);
}

TEST_F(EventsE2E, AStreamNeedsASessionAndTheAccessTablesWord) {
  const std::string table = gateway_.dataDir() + "/access.json";
  {
    std::ifstream in(std::string(NOX_SOURCE_DIR) + "/conf/access.json");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string rule = R"({"path": "/events", "methods": ["GET"], "scopes": ["0", "1", "4"]})";
    const size_t at = text.find(rule);
    ASSERT_NE(at, std::string::npos);
    text.replace(at, rule.size(), R"({"path": "/events", "methods": ["GET"], "scopes": ["0"]})");
    std::ofstream(table) << text;
  }
  start({"--access", table});
  expectEnvelope(client_->Get("/events"), 401, kErrNotLoggedIn);
  const std::string token = loginToken(*client_, gateway_.password());
  expectEnvelope(client_->Get("/events", auth(token)), 403, kErrScopeForbidden);
  // The stream is read only; no other method opens it or reaches a route.
  expectEnvelope(client_->Post("/events", auth(token), "", "text/plain"), 405,
                 kErrMethodNotAllowed);
  expectEnvelope(client_->Delete("/v1/events", auth(token)), 405, kErrMethodNotAllowed);
  // The v1 path has its own rule, which still lets scope 4 in.
  SseClient v1(gateway_.port(), token, "/v1/events");
  EXPECT_TRUE(v1.waitForEvents(1, 30000)) << v1.head();
}

TEST_F(EventsE2E, LastEventIdResumesWithoutGapAndTooFarBackIsAReset) {
  start({"--events-backlog", "40"});
  const std::string token = loginToken(*client_, gateway_.password());
  std::vector<long long> ids;
  {
    SseClient first(gateway_.port(), token);
    ASSERT_TRUE(first.waitForEvents(3, 30000));
    ids = idsOf(first.events());
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // events go on meanwhile
  SseClient resumed(gateway_.port(), token, "/events",
                    "Last-Event-ID: " + std::to_string(ids.back()) + "\r\n");
  ASSERT_TRUE(resumed.waitForEvents(3, 30000));
  for (long long id : idsOf(resumed.events())) ids.push_back(id);
  expectConsecutive(ids);
  // The same with the query argument of EventSource polyfills.
  SseClient byQuery(gateway_.port(), token, "/events?lastEventId=" + std::to_string(ids.back()));
  ASSERT_TRUE(byQuery.waitForEvents(1, 30000));
  EXPECT_EQ(byQuery.events()[0].id, ids.back() + 1);
  // Once more than the backlog of 40 came after id 1, a client at 1 is told
  // to reload, at the newest id.
  while (byQuery.events().back().id < 60) {
    ASSERT_TRUE(byQuery.waitForEvents(byQuery.events().size() + 1, 30000));
  }
  SseClient behind(gateway_.port(), token, "/events", "Last-Event-ID: 1\r\n");
  ASSERT_TRUE(behind.waitForEvents(1, 30000));
  EXPECT_EQ(behind.events()[0].name, "reset");
  EXPECT_GE(behind.events()[0].id, 60);
  EXPECT_EQ(parseJson(behind.events()[0].data)["reason"].asString(),
            "The events after the given id are no longer kept: reload, then go on.");
  EXPECT_EQ(parseJson(behind.events()[0].data)["lastEventId"].asInt64(), behind.events()[0].id);
  // After the reset, the stream goes on with the next change.
  ASSERT_TRUE(behind.waitForEvents(2, 30000));
  EXPECT_EQ(behind.events()[1].id, behind.events()[0].id + 1);
  const std::string metrics = client_->Get("/metrics")->body;
  EXPECT_GE(metricSample(metrics, "nox_event_stream_resets_total"), 1) << metrics;
}

TEST_F(EventsE2E, AStreamEndsWithItsSession) {
  start();
  const std::string token = loginToken(*client_, gateway_.password());
  SseClient stream(gateway_.port(), token);
  ASSERT_TRUE(stream.waitForEvents(1, 30000));
  auto logout = client_->Delete("/sessions", auth(token));
  ASSERT_TRUE(logout);
  EXPECT_EQ(logout->status, 200);
  EXPECT_TRUE(stream.waitForClose(10000)) << "the stream outlived its session";
}

// A quiet stream (no simulation: nothing changes) still says it is alive,
// so that proxies and clients do not time it out.
TEST(EventsQuietE2E, AQuietStreamGetsAHeartbeatEveryFifteenSeconds) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start()) << gateway.output();
  httplib::Client client("127.0.0.1", gateway.port());
  const std::string token = loginToken(client, gateway.password());
  SseClient stream(gateway.port(), token);
  const auto opened = std::chrono::steady_clock::now();
  EXPECT_TRUE(stream.waitForComment(": ping\n", 20000)) << stream.head();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - opened).count();
  std::printf("first heartbeat after %.1f s\n", seconds);
  EXPECT_TRUE(stream.events().empty());
  EXPECT_EQ(gateway.stop(), 0);
}

TEST_F(EventsE2E, LimitsPerSessionAreKeptAndCounted) {
  start({"--events-per-session", "1"});
  const std::string token = loginToken(*client_, gateway_.password());
  SseClient first(gateway_.port(), token);
  ASSERT_TRUE(first.waitForEvents(1, 30000));
  auto second = client_->Get("/events", auth(token));
  expectEnvelope(second, 429, kErrTooManyStreams);
  EXPECT_EQ(parseJson(second->body)["error"]["description"].asString(),
            "Too many event streams are open. Close one and try again.");
  // Another session has its own.
  const std::string other = loginToken(*client_, gateway_.password());
  SseClient third(gateway_.port(), other);
  ASSERT_TRUE(third.waitForEvents(1, 30000));
  const std::string metrics = client_->Get("/metrics")->body;
  EXPECT_EQ(metricSample(metrics, "nox_event_streams_open"), 2) << metrics;
  EXPECT_EQ(metricSample(metrics, "nox_event_streams_refused_total"), 1) << metrics;
  EXPECT_GE(metricSample(metrics, "nox_event_streams_opened_total"), 2) << metrics;
  EXPECT_GE(metricSample(metrics, "nox_events_sent_total"), 2) << metrics;
}

TEST_F(EventsE2E, AlarmsAnswerInTheSessionsLanguage) {
  start();
  const std::string en = loginToken(*client_, gateway_.password(), "apiuser", "4", "en");
  const std::string zh = loginToken(*client_, gateway_.password(), "apiuser", "4", "zh");
  auto enList = client_->Get("/alarm/historyalarm?start=0&limit=5", auth(en));
  auto zhList = client_->Get("/alarm/historyalarm?start=0&limit=5", auth(zh));
  ASSERT_TRUE(enList && zhList);
  const Json::Value enRows = parseJson(enList->body)["data"]["alarms"];
  const Json::Value zhRows = parseJson(zhList->body)["data"]["alarms"];
  ASSERT_EQ(enRows.size(), 5u) << enList->body;
  ASSERT_EQ(zhRows.size(), 5u) << zhList->body;
  // The simulation may raise one between the two reads: compare by id.
  for (const Json::Value& z : zhRows) {
    const std::string name = z["name"].asString();
    ASSERT_FALSE(name.empty());
    EXPECT_GT(static_cast<unsigned char>(name[0]), 0x7F) << name << ": Chinese";
    for (const Json::Value& e : enRows) {
      if (e["id"] == z["id"]) {
        EXPECT_NE(e["name"], z["name"]);
      }
    }
  }
  // LANGUAGE names the language for one request.
  auto asked = client_->Get("/alarm/historyalarm?start=0&limit=1&LANGUAGE=en", auth(zh));
  ASSERT_TRUE(asked);
  const std::string name = parseJson(asked->body)["data"]["alarms"][0]["name"].asString();
  EXPECT_LT(static_cast<unsigned char>(name[0]), 0x80) << name;
}

// A gateway in front of nox-backend, whose tasks run on while the gateway
// is away.
TEST(EventsRestartE2E, AStreamResumedAfterAGatewayRestartMissesNothing) {
  BackendProcess backend;
  ASSERT_TRUE(backend.start({"--simulate", "0.1"})) << backend.output();
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--backend", backend.url()})) << gateway.output();
  httplib::Client client("127.0.0.1", gateway.port());
  const std::string token = loginToken(client, backend.password());
  std::vector<long long> ids;
  {
    SseClient stream(gateway.port(), token);
    ASSERT_TRUE(stream.waitForEvents(3, 30000));
    ids = idsOf(stream.events());
  }
  ASSERT_EQ(gateway.stop(), 0) << gateway.output();
  std::this_thread::sleep_for(std::chrono::seconds(1));  // changes go on meanwhile
  ASSERT_TRUE(gateway.start({"--backend", backend.url()})) << gateway.output();
  httplib::Client again("127.0.0.1", gateway.port());
  const std::string token2 = loginToken(again, backend.password());
  SseClient resumed(gateway.port(), token2, "/events",
                    "Last-Event-ID: " + std::to_string(ids.back()) + "\r\n");
  ASSERT_TRUE(resumed.waitForEvents(8, 30000));
  EXPECT_EQ(resumed.events()[0].id, ids.back() + 1);
  for (long long id : idsOf(resumed.events())) ids.push_back(id);
  expectConsecutive(ids);
  EXPECT_EQ(gateway.stop(), 0);
  EXPECT_EQ(backend.stop(), 0);
}

// nginx in front of two gateways (shared sessions in Redis, one nox-backend),
// as scripts/run-cluster.sh runs them.
class Nginx {
 public:
  Nginx() {
    char pattern[] = "/tmp/nox-e2e-nginx-XXXXXX";
    if (mkdtemp(pattern) != nullptr) dir_ = pattern;
  }
  ~Nginx() {
    stop();
    if (!dir_.empty()) std::system(("rm -rf " + dir_).c_str());
  }
  bool start(int port, const std::vector<int>& gateways) {
    port_ = port;
    std::string servers;
    for (int g : gateways) {
      servers += "    server 127.0.0.1:" + std::to_string(g) + " max_fails=1 fail_timeout=2s;\n";
    }
    std::ofstream(dir_ + "/nginx.conf")
        << "worker_processes 1;\n" << (geteuid() == 0 ? "user root;\n" : "")
        << "pid " << dir_ << "/nginx.pid;\nerror_log " << dir_ << "/error.log warn;\n"
        << "events { worker_connections 1024; }\nhttp {\n  access_log off;\n"
        << "  client_body_temp_path " << dir_ << "; proxy_temp_path " << dir_ << ";\n"
        << "  fastcgi_temp_path " << dir_ << "; uwsgi_temp_path " << dir_
        << "; scgi_temp_path " << dir_ << ";\n"
        << "  upstream gateways {\n" << servers << "    keepalive 16;\n  }\n"
        << "  server {\n    listen 127.0.0.1:" << port << ";\n"
        << "    location ~ ^(/v1)?/events$ {\n      proxy_pass http://gateways;\n"
        << "      proxy_http_version 1.1;\n      proxy_set_header Connection \"\";\n"
        << "      proxy_buffering off;\n      proxy_read_timeout 1h;\n    }\n"
        << "    location / {\n      proxy_pass http://gateways;\n      proxy_http_version 1.1;\n"
        << "      proxy_set_header Connection \"\";\n      proxy_next_upstream error timeout;\n"
        << "    }\n  }\n}\n";
    pid_ = fork();
    if (pid_ == 0) {
      execl("/usr/sbin/nginx", "nginx", "-c", (dir_ + "/nginx.conf").c_str(), "-g",
            "daemon off;", static_cast<char*>(nullptr));
      _exit(127);
    }
    for (int i = 0; i < 100; ++i) {
      httplib::Client probe("127.0.0.1", port);
      auto res = probe.Get("/healthz");
      if (res && res->status == 200) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }
  void stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
  }
  std::string errorLog() const {
    std::ifstream in(dir_ + "/error.log");
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }

 private:
  std::string dir_;
  int port_ = 0;
  pid_t pid_ = -1;
};

// A free loopback port (closed again, so a race is possible but unlikely).
int freePort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

TEST(EventsClusterE2E, AClientMovedToTheOtherGatewayThroughNginxGetsEveryEventOnce) {
  RedisServer redis;
  ASSERT_TRUE(redis.start()) << redis.error();
  BackendProcess backend;
  ASSERT_TRUE(backend.start({"--simulate", "0.1"})) << backend.output();
  const std::vector<std::string> shared = {
      "--state", "redis://127.0.0.1:" + std::to_string(redis.port()), "--backend", backend.url(),
      "--trusted-proxies", "127.0.0.1/32"};
  GatewayProcess a;
  GatewayProcess b;
  ASSERT_TRUE(a.start(shared)) << a.output();
  ASSERT_TRUE(b.start(shared)) << b.output();
  Nginx nginx;
  const int port = freePort();
  ASSERT_TRUE(nginx.start(port, {a.port(), b.port()})) << nginx.errorLog();
  httplib::Client front("127.0.0.1", port);
  const std::string token = loginToken(front, backend.password());

  std::vector<long long> ids;
  GatewayProcess* serving = nullptr;
  {
    SseClient stream(port, token);
    ASSERT_TRUE(stream.waitForEvents(3, 30000)) << stream.head();
    // Which gateway holds the stream: the one whose metrics count it.
    for (GatewayProcess* g : {&a, &b}) {
      httplib::Client direct("127.0.0.1", g->port());
      auto m = direct.Get("/metrics");
      if (m && metricSample(m->body, "nox_event_streams_open") == 1) serving = g;
    }
    ASSERT_NE(serving, nullptr);
    // That gateway goes: the stream ends, and the client comes back.
    serving->terminate();
    stream.waitForClose(20000);
    ids = idsOf(stream.events());
  }
  ASSERT_EQ(serving->stop(), 0) << serving->output();
  SseClient moved(port, token, "/events", "Last-Event-ID: " + std::to_string(ids.back()) + "\r\n");
  ASSERT_TRUE(moved.waitForEvents(5, 30000)) << moved.head() << nginx.errorLog();
  EXPECT_EQ(moved.events()[0].id, ids.back() + 1);
  for (long long id : idsOf(moved.events())) ids.push_back(id);
  expectConsecutive(ids);
  moved.close();
  nginx.stop();
  GatewayProcess* other = serving == &a ? &b : &a;
  EXPECT_EQ(other->stop(), 0) << other->output();
  EXPECT_EQ(backend.stop(), 0);
  redis.stop();
}

}  // namespace
