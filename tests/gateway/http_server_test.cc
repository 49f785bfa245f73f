// The server's connection logic, in process: keep-alive and pipelining, the
// transport's refusals (408, 413, 414, 431, 503) and what they close, HEAD,
// 100-continue, the choice of thread (the health check inline, logins on
// their own pool), the connection limit and the drain on stop. The
// operations are fakes that answer at once or wait for the test.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "access_log.h"
#include "http_mapping.h"
#include "http_server.h"

namespace {

using Clock = std::chrono::steady_clock;

// A gate the slow operation waits at until the test opens it.
class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void pass() {
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  // Waits until `count` callers wait at the gate (or passed it).
  bool reached(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return waiting_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
  int waiting_ = 0;
};

// Answers {"path": <resource>} at once, or after the gate opens.
class FakeOp : public CSpecifyOp {
 public:
  explicit FakeOp(Gate* gate = nullptr) : gate_(gate) {}
  bool isSupport(const std::string&, const std::string&, SpecifyOpPrivData&) override {
    return true;
  }
  int op(const std::string&, const std::string& resource, CRequestMsg&,
         CResponseMsg& response) override {
    if (gate_ != nullptr) gate_->pass();
    response.getJsonBody()["path"] = resource;
    response.setContentKind(CResponseMsg::kContentJson);
    return 0;
  }

 private:
  Gate* gate_;
};

const char kTable[] = R"({
  "scopes": {"0": "administrator"},
  "routes": [
    {"path": "/echo", "methods": ["*"], "public": true},
    {"path": "/slow", "methods": ["*"], "public": true},
    {"path": "/signin", "methods": ["*"], "public": true, "login": true}
  ]
})";

// Connects to 127.0.0.1:port; sends and reads raw bytes.
class Client {
 public:
  explicit Client(int port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  }
  ~Client() { close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool connected() const { return connected_; }
  bool send(const std::string& bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  // Everything until the server closes, or until `seconds` pass; *closed
  // says which.
  std::string readAll(int seconds, bool* closed = nullptr) {
    std::string text;
    const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
    bool ended = false;
    while (!ended && Clock::now() < end) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      char buffer[4096];
      const ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
      if (n <= 0) ended = true;
      else text.append(buffer, static_cast<size_t>(n));
    }
    if (closed != nullptr) *closed = ended;
    return text;
  }
  // Reads until `text` holds `needle` (or 10 s pass).
  std::string readUntil(const std::string& needle) {
    std::string text;
    const Clock::time_point end = Clock::now() + std::chrono::seconds(10);
    while (text.find(needle) == std::string::npos && Clock::now() < end) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      char buffer[4096];
      const ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
      if (n <= 0) break;
      text.append(buffer, static_cast<size_t>(n));
    }
    return text;
  }

 private:
  int fd_;
  bool connected_ = false;
};

size_t count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

std::string get(const std::string& path, const std::string& more = "") {
  return "GET " + path + " HTTP/1.1\r\nHost: t\r\n" + more + "\r\n";
}

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    registry_.regReqProc("/echo", new FakeOp(), false);  // and the paths below it
    registry_.regReqProc("/slow", new FakeOp(&gate_), true);
    registry_.regReqProc("/signin", new FakeOp(), true);
    auto table = std::make_shared<AccessTable>();
    std::string error;
    ASSERT_TRUE(AccessTable::parse(kTable, table.get(), &error)) << error;
    gw::DispatchOptions options;
    options.access = table;
    dispatcher_ = std::make_unique<gw::Dispatcher>(registry_, nullptr, options);
    // ctest runs the tests of this program side by side: a log of its own each.
    logPath_ = ::testing::TempDir() + "server_test_access_" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name() + "_" +
               std::to_string(getpid()) + ".log";
    std::remove(logPath_.c_str());
    log_ = gw::AccessLog::open(logPath_);
    ASSERT_NE(log_, nullptr);
    config_.port = 0;
    config_.ioThreads = 1;
    config_.workers = 1;
    config_.loginThreads = 1;
  }

  void TearDown() override {
    gate_.open();
    if (server_) server_->stop();
    if (thread_.joinable()) thread_.join();
    std::remove(logPath_.c_str());
  }

  void start() {
    server_ = std::make_unique<gw::HttpServer>(config_, *dispatcher_, *log_);
    std::string error;
    ASSERT_TRUE(server_->start(&error)) << error;
    thread_ = std::thread([this] { server_->run(); });
    const Clock::time_point end = Clock::now() + std::chrono::seconds(10);
    while (!server_->running() && Clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

  std::string accessLog() {
    std::ifstream in(logPath_);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  CSpecifyProc registry_;
  Gate gate_;
  std::unique_ptr<gw::Dispatcher> dispatcher_;
  std::string logPath_;
  std::unique_ptr<gw::AccessLog> log_;
  gw::ServerConfig config_;
  std::unique_ptr<gw::HttpServer> server_;
  std::thread thread_;
};

TEST_F(ServerTest, KeepAliveAnswersPipelinedRequestsInOrder) {
  start();
  Client client(server_->port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.send(get("/echo/one") + get("/echo/two") +
                          get("/echo/three", "Connection: close\r\n")));
  bool closed = false;
  const std::string text = client.readAll(10, &closed);
  EXPECT_TRUE(closed);
  EXPECT_EQ(count(text, "HTTP/1.1 200 OK"), 3u);
  const size_t one = text.find("\"/echo/one\"");
  const size_t two = text.find("\"/echo/two\"");
  const size_t three = text.find("\"/echo/three\"");
  ASSERT_NE(three, std::string::npos);
  EXPECT_LT(one, two);
  EXPECT_LT(two, three);
  server_->stop();
  thread_.join();
  const std::string log = accessLog();
  EXPECT_NE(log.find("GET /echo/one 200"), std::string::npos) << log;
  EXPECT_NE(log.find("GET /echo/three 200"), std::string::npos) << log;
}

TEST_F(ServerTest, HeadGivesTheLengthOfTheGetBodyAndNoBody) {
  start();
  Client client(server_->port());
  ASSERT_TRUE(client.send("HEAD /echo/x HTTP/1.1\r\nHost: t\r\nConnection: close\r\n\r\n"));
  const std::string text = client.readAll(10);
  const std::string body = "{\"path\":\"/echo/x\"}";
  EXPECT_NE(text.find("Content-Length: " + std::to_string(body.size())), std::string::npos)
      << text;
  EXPECT_EQ(text.substr(text.find("\r\n\r\n") + 4), "");
}

TEST_F(ServerTest, ExpectContinueIsAnsweredBeforeTheBody) {
  start();
  Client client(server_->port());
  ASSERT_TRUE(client.send(
      "POST /echo HTTP/1.1\r\nHost: t\r\nContent-Type: application/json\r\n"
      "Content-Length: 2\r\nExpect: 100-continue\r\n\r\n"));
  EXPECT_NE(client.readUntil("\r\n\r\n").find("HTTP/1.1 100 Continue"), std::string::npos);
  ASSERT_TRUE(client.send("{}"));
  EXPECT_NE(client.readUntil("}").find("HTTP/1.1 200 OK"), std::string::npos);
}

TEST_F(ServerTest, ABodyOverTheLimitIsRefusedUnreadAndTheConnectionClosed) {
  config_.maxBody = 1000;
  start();
  Client client(server_->port());
  // The transport takes room for the multipart framing beyond the limit.
  const size_t over = config_.maxBody + gw::kMultipartOverhead + 1;
  ASSERT_TRUE(client.send(
      "POST /echo HTTP/1.1\r\nHost: t\r\nContent-Type: application/json\r\n"
      "Content-Length: " + std::to_string(over) + "\r\n\r\n"));
  bool closed = false;
  const std::string text = client.readAll(10, &closed);
  EXPECT_EQ(text.compare(0, 12, "HTTP/1.1 413"), 0) << text;
  EXPECT_TRUE(closed);
}

TEST_F(ServerTest, ATargetOrHeaderTooLongIsRefused) {
  config_.maxHeaderBytes = 1024;
  start();
  {
    Client client(server_->port());
    ASSERT_TRUE(client.send(get("/echo/" + std::string(2000, 'a'))));
    EXPECT_EQ(client.readAll(10).compare(0, 12, "HTTP/1.1 414"), 0);
  }
  Client client(server_->port());
  ASSERT_TRUE(client.send(get("/echo", "X-Big: " + std::string(2000, 'b') + "\r\n")));
  EXPECT_EQ(client.readAll(10).compare(0, 12, "HTTP/1.1 431"), 0);
}

TEST_F(ServerTest, AHeaderThatDoesNotArriveInTimeGets408) {
  config_.headerTimeout = 1;
  start();
  Client client(server_->port());
  ASSERT_TRUE(client.send("GET /echo HTTP/1.1\r\nHost: t\r\n"));  // never finished
  bool closed = false;
  const std::string text = client.readAll(10, &closed);
  EXPECT_EQ(text.compare(0, 12, "HTTP/1.1 408"), 0) << text;
  EXPECT_TRUE(closed);
}

// One worker, held by a slow call, and no room in the queue: the next
// operation is refused with 503 and Retry-After, while the health check
// (answered on the I/O thread) and a login (its own threads) still answer.
TEST_F(ServerTest, AFullQueueRefusesOperationsButNotTheHealthCheckOrLogins) {
  config_.queueLimit = 0;
  start();
  Client slow(server_->port());
  ASSERT_TRUE(slow.send(get("/slow")));
  ASSERT_TRUE(gate_.reached(1));

  Client refused(server_->port());
  ASSERT_TRUE(refused.send(get("/echo", "Connection: close\r\n")));
  const std::string busy = refused.readAll(10);
  EXPECT_EQ(busy.compare(0, 12, "HTTP/1.1 503"), 0) << busy;
  EXPECT_NE(busy.find("Retry-After: 1"), std::string::npos);

  Client health(server_->port());
  ASSERT_TRUE(health.send(get("/healthz", "Connection: close\r\n")));
  EXPECT_EQ(health.readAll(10).compare(0, 12, "HTTP/1.1 200"), 0);

  Client login(server_->port());
  ASSERT_TRUE(login.send(get("/signin", "Connection: close\r\n")));
  const std::string signedIn = login.readAll(10);
  EXPECT_EQ(signedIn.compare(0, 12, "HTTP/1.1 200"), 0) << signedIn;
  EXPECT_NE(signedIn.find("\"/signin\""), std::string::npos);

  gate_.open();
  EXPECT_NE(slow.readUntil("\"/slow\"").find("HTTP/1.1 200 OK"), std::string::npos);
}

TEST_F(ServerTest, ConnectionsOverTheLimitAreClosedAtOnceAndCounted) {
  config_.maxConnections = 1;
  start();
  Client first(server_->port());
  ASSERT_TRUE(first.send(get("/echo")));
  EXPECT_NE(first.readUntil("\"/echo\"").find("200 OK"), std::string::npos);
  Client second(server_->port());
  bool closed = false;
  EXPECT_EQ(second.readAll(10, &closed), "");
  EXPECT_TRUE(closed);
  EXPECT_EQ(server_->counts().refusedConnections, 1u);
  EXPECT_EQ(server_->counts().openConnections, 1u);
}

// stop() answers the request in flight before run() returns, and closes
// the idle connection.
TEST_F(ServerTest, StopDrainsTheRequestInFlight) {
  start();
  Client idle(server_->port());
  ASSERT_TRUE(idle.send(get("/echo")));
  EXPECT_NE(idle.readUntil("\"/echo\"").find("200 OK"), std::string::npos);
  Client busy(server_->port());
  ASSERT_TRUE(busy.send(get("/slow")));
  ASSERT_TRUE(gate_.reached(1));
  server_->stop();
  bool idleClosed = false;
  idle.readAll(10, &idleClosed);
  EXPECT_TRUE(idleClosed);
  gate_.open();
  bool closed = false;
  const std::string text = busy.readAll(10, &closed);
  EXPECT_NE(text.find("\"/slow\""), std::string::npos) << text;
  EXPECT_NE(text.find("Connection: close"), std::string::npos) << text;
  EXPECT_TRUE(closed);
  thread_.join();
  EXPECT_FALSE(server_->running());
}

}  // namespace
