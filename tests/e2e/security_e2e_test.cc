// End-to-end: what a hostile client can try against the gateway. Upload file
// names and URL paths that try to leave the data folder, requests beyond the
// size limits, a second request hidden in a refused body, session token
// handling and its traces in the logs, TLS versions and cipher suites, and the
// headers every answer carries.
#include <arpa/inet.h>
#include <dirent.h>
#include <ftw.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "e2e_support.h"
#include "test_pki.h"

namespace {

constexpr long long kErrBadRequest = 0x03000003;
constexpr long long kErrNotLoggedIn = 0x03000011;
constexpr long long kErrRouteNotFound = 0x03000201;
constexpr long long kErrMethodNotAllowed = 0x03000202;
constexpr long long kErrBodyTooLarge = 0x03000203;
constexpr long long kErrLoginThrottled = 0x03000013;
constexpr long long kErrCsrfHeaderMissing = 0x03000205;
// The header the console sends with every request.
const std::pair<std::string, std::string> kConsoleHeader = {"X-Requested-With", "nox-console"};

// The gateways here run with a small body limit; the transport allows 64 KiB
// more for multipart framing.
constexpr size_t kMaxBody = 4096;
constexpr size_t kTransportLimit = kMaxBody + 64 * 1024;

// ---------------------------------------------------------------------------
// Raw connections, for what httplib::Client would not send.

struct RawReply {
  std::string text;     // every byte the gateway sent
  bool closed = false;  // the gateway ended the connection
};

bool sendAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Sends `first` on a fresh connection; when `second` is not empty, sends it
// a moment later as its own segment (so that it cannot arrive together with
// `first`). Then reads until the gateway closes, or until it stays silent
// for `quietMs`.
RawReply exchange(int port, const std::string& first, const std::string& second = "",
                  int quietMs = 3000) {
  RawReply reply;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return reply;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    close(fd);
    return reply;
  }
  sendAll(fd, first);
  if (!second.empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    sendAll(fd, second);  // may fail: the gateway may have closed already
  }
  pollfd pfd = {fd, POLLIN, 0};
  while (poll(&pfd, 1, quietMs) > 0) {
    char buffer[8192];
    const ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
    if (n <= 0) {
      reply.closed = true;
      break;
    }
    reply.text.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  recordRawAnswer(first, reply.text);
  return reply;
}

// How many answers (status lines) a raw reply holds.
size_t answers(const std::string& text) {
  size_t count = 0;
  for (size_t at = text.find("HTTP/1.1 "); at != std::string::npos;
       at = text.find("HTTP/1.1 ", at + 1)) {
    if (at == 0 || text[at - 1] == '\n' || text[at - 1] == '}') ++count;
  }
  return count;
}

std::string statusLine(const std::string& text) { return text.substr(0, text.find("\r\n")); }

std::string chunked(const std::string& head, size_t size) {
  char line[32];
  snprintf(line, sizeof(line), "%zx\r\n", size);
  return head + "Transfer-Encoding: chunked\r\n\r\n" + line + std::string(size, 'a');
}

std::string loginJson(const std::string& user, const std::string& password) {
  Json::Value body;
  body["username"] = user;
  body["password"] = password;
  body["scope"] = "4";
  body["language"] = "en";
  return Json::FastWriter().write(body);
}

// ---------------------------------------------------------------------------
// Files, to prove that uploads stay inside the data folder.

std::set<std::string>* g_walk = nullptr;
int collect(const char* path, const struct stat*, int, struct FTW*) {
  g_walk->insert(path);
  return 0;
}
std::set<std::string> tree(const std::string& root) {
  std::set<std::string> paths;
  g_walk = &paths;
  nftw(root.c_str(), collect, 16, FTW_PHYS);
  g_walk = nullptr;
  return paths;
}
// Entries of `dir` (not recursive) whose name holds `marker`.
std::vector<std::string> entriesNamed(const std::string& dir, const std::string& marker) {
  std::vector<std::string> found;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return found;
  while (dirent* entry = readdir(d)) {
    if (std::string(entry->d_name).find(marker) != std::string::npos) {
      found.push_back(dir + "/" + entry->d_name);
    }
  }
  closedir(d);
  return found;
}
std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

// ---------------------------------------------------------------------------
// One plain-HTTP gateway shared by most tests here (starting one costs a
// second or two), with --max-body 4096.

class SecurityE2E : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    gateway_ = new GatewayProcess;
    if (!gateway_->start({"--max-body", std::to_string(kMaxBody)})) {
      FAIL() << gateway_->output();
    }
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(gateway_->stop(), 0) << gateway_->output();
    delete gateway_;
    gateway_ = nullptr;
  }
  void SetUp() override {
    ASSERT_GT(gateway_->port(), 0);
    client_ = std::make_unique<httplib::Client>("127.0.0.1", gateway_->port());
    recordExchanges(*client_);
    client_->set_read_timeout(30);
  }

  static int port() { return gateway_->port(); }

  std::string login() { return loginToken(*client_, gateway_->password()); }
  static httplib::Headers auth(const std::string& token) {
    return httplib::Headers{{"X-Auth-Token", token}};
  }
  // Whether `token` still opens a session.
  bool valid(const std::string& token) {
    auto res = client_->Get("/kestrel_task/count", auth(token));
    return res && res->status == 200;
  }

  static GatewayProcess* gateway_;
  std::unique_ptr<httplib::Client> client_;
};
GatewayProcess* SecurityE2E::gateway_ = nullptr;

// --- Upload file names -------------------------------------------------------

TEST_F(SecurityE2E, UploadFileNamesNeverBecomePaths) {
  // The backend names every stored upload itself; a client's file name is at
  // most looked at for its suffix. Whatever the name, no file appears outside
  // the data folder and no file is named after it.
  const std::string token = login();
  const std::string root = gateway_->dataDir();
  const std::string marker = "noxsec" + std::to_string(getpid());
  const std::string ca = makeCert(CertProfile("NOX Path CA")).pem();
  const std::vector<std::string> names = {
      "../../" + marker + ".pem",
      "../../../../../../tmp/" + marker + ".pem",
      "/tmp/" + marker + ".pem",
      root + "/" + marker + ".pem",
      std::string("a\0b", 3) + marker + ".pem",
      marker + std::string(1, '\0') + ".pem",
      std::string(4000, 'L') + marker + ".pem",
      "%2e%2e%2f%2e%2e%2f" + marker + ".pem",
      "..%2F..%2F" + marker + ".crl",
      "..\\..\\" + marker + ".pem",
      marker + "/../../x.pem",
  };
  const std::set<std::string> before = tree(root);
  for (const std::string& name : names) {
    for (const char* route : {"/kestrel_cert/import_cert", "/kestrel_cert/import_crl"}) {
      httplib::MultipartFormDataItems items = {{"file", ca, name, "application/octet-stream"}};
      auto res = client_->Post(route, auth(token), items);
      ASSERT_TRUE(res) << route;
      // Refused or imported, never a server failure, and the name is never
      // echoed back as a path.
      EXPECT_LT(res->status, 500) << route << " " << res->body;
      EXPECT_EQ(res->body.find(marker), std::string::npos) << res->body;
    }
  }
  const std::set<std::string> after = tree(root);
  for (const std::string& path : after) {
    EXPECT_EQ(path.find(marker), std::string::npos) << path;
    if (before.count(path) != 0) continue;
    EXPECT_EQ(path.compare(0, root.size() + 6, root + "/data/"), 0)
        << path << " is new and outside the data folder";
  }
  // What is inside is the gateway's alone: folders 0700, files without group
  // or other access.
  for (const std::string& path : tree(root + "/data")) {
    struct stat st;
    ASSERT_EQ(lstat(path.c_str(), &st), 0) << path;
    if (S_ISDIR(st.st_mode)) {
      EXPECT_EQ(st.st_mode & 0777, 0700u) << path;
    } else {
      EXPECT_EQ(st.st_mode & 0077, 0u) << path;
    }
  }
  // Nor next to the data folder's parent, in /tmp, or where the gateway runs.
  for (const std::string& dir : {folderOf(root), std::string("/tmp"),
                                 folderOf(NOX_GATEWAY_BIN), folderOf(folderOf(NOX_GATEWAY_BIN))}) {
    EXPECT_TRUE(entriesNamed(dir, marker).empty()) << dir;
  }
}

// --- URL paths ---------------------------------------------------------------

TEST_F(SecurityE2E, TraversalInPathsServesNoFile) {
  // The gateway serves no folder: every path is a route or 404. Dot segments
  // and encoded slashes in a resource identifier stay part of the
  // identifier.
  const std::string token = login();
  const std::vector<std::string> paths = {
      "/../../../../etc/passwd",
      "/%2e%2e/%2e%2e/%2e%2e/etc/passwd",
      "/kestrel_task/..%2f..%2f..%2fetc%2fpasswd",
      "/kestrel_task/../../../etc/passwd",
      "/kestrel_task/%2e%2e%2f%2e%2e%2fetc%2fpasswd",
      "/kestrel_task/..%5c..%5cetc%5cpasswd",
      "/healthz/../../etc/passwd",
      "/openapi.json/..%2f..%2fetc%2fpasswd",
      "/conf/",
      "/data/trace.log",
      "/gateway-selfsigned.key",
      "/kestrel_task/%00",
  };
  for (const std::string& path : paths) {
    const RawReply reply =
        exchange(port(), "GET " + path + " HTTP/1.1\r\nHost: x\r\nX-Auth-Token: " + token +
                             "\r\nConnection: close\r\n\r\n");
    EXPECT_NE(reply.text.find("\r\n\r\n{\"data\""), std::string::npos) << path << reply.text;
    EXPECT_EQ(reply.text.find("root:"), std::string::npos) << path;
    EXPECT_EQ(reply.text.find("PRIVATE KEY"), std::string::npos) << path;
    const std::string status = statusLine(reply.text);
    EXPECT_TRUE(status == "HTTP/1.1 404 Not Found" || status == "HTTP/1.1 400 Bad Request")
        << path << ": " << status;
  }
  expectEnvelope(client_->Get("/", auth(token)), 404, kErrRouteNotFound);
}

// --- Size limits -------------------------------------------------------------

TEST_F(SecurityE2E, OversizedRequestPartsAreRefusedAndTheConnectionClosed) {
  struct Case {
    const char* what;
    std::string request;
    const char* status;
  };
  const std::string head = "POST /sessions HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n";
  std::string manyHeaders = "GET /healthz HTTP/1.1\r\nHost: x\r\n";
  for (int i = 0; i < 150; ++i) manyHeaders += "X-Filler-" + std::to_string(i) + ": v\r\n";
  // Twenty lines of 500 bytes: each short, together over the 8 KiB limit.
  std::string manyLongHeaders;
  for (int i = 0; i < 20; ++i) {
    manyLongHeaders += "X-Long-" + std::to_string(i) + ": " + std::string(500, 'l') + "\r\n";
  }
  const std::vector<Case> cases = {
      {"request line", "GET /" + std::string(9000, 'a') + " HTTP/1.1\r\nHost: x\r\n\r\n",
       "HTTP/1.1 414 URI Too Long"},
      {"header line", "GET /healthz HTTP/1.1\r\nHost: x\r\nX-Big: " + std::string(9000, 'b') +
                          "\r\n\r\n",
       "HTTP/1.1 431 Request Header Fields Too Large"},
      {"header lines", "GET /healthz HTTP/1.1\r\nHost: x\r\n" + manyLongHeaders + "\r\n",
       "HTTP/1.1 431 Request Header Fields Too Large"},
      {"header count", manyHeaders + "\r\n", "HTTP/1.1 431 Request Header Fields Too Large"},
      // Answered at once, without reading (or waiting for) the body.
      {"declared length", head + "Content-Length: 99999999999999999\r\n\r\n{}",
       "HTTP/1.1 413 Payload Too Large"},
      {"length not a number", head + "Content-Length: 12abc\r\n\r\n{}",
       "HTTP/1.1 400 Bad Request"},
      {"chunked body", chunked(head, kTransportLimit + 1) + "\r\n0\r\n\r\n",
       "HTTP/1.1 413 Payload Too Large"},
      {"length and chunks", head + "Content-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n",
       "HTTP/1.1 400 Bad Request"},
      {"two lengths", head + "Content-Length: 2\r\nContent-Length: 3\r\n\r\n{}",
       "HTTP/1.1 400 Bad Request"},
      {"unknown coding", head + "Transfer-Encoding: gzip, chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n",
       "HTTP/1.1 400 Bad Request"},
      {"two equal lengths", head + "Content-Length: 2\r\nContent-Length: 2\r\n\r\n{}",
       "HTTP/1.1 400 Bad Request"},
      {"bare CR", "GET /healthz HTTP/1.1\r\nHost: x\rX-Hidden: y\r\n\r\n",
       "HTTP/1.1 400 Bad Request"},
      {"blank before colon", "GET /healthz HTTP/1.1\r\nHost : x\r\n\r\n",
       "HTTP/1.1 400 Bad Request"},
      {"chunk size over 64 bits",
       head + "Transfer-Encoding: chunked\r\n\r\n10000000000000000\r\n{}\r\n0\r\n\r\n",
       "HTTP/1.1 400 Bad Request"},
      {"chunk size not hex", head + "Transfer-Encoding: chunked\r\n\r\n2x\r\n{}\r\n0\r\n\r\n",
       "HTTP/1.1 400 Bad Request"},
      {"unknown content coding", head + "Content-Encoding: compress\r\nContent-Length: 2\r\n\r\n{}",
       "HTTP/1.1 415 Unsupported Media Type"},
      {"TRACE", "TRACE /sessions HTTP/1.1\r\nHost: x\r\n\r\n", "HTTP/1.1 405 Method Not Allowed"},
      {"CONNECT", "CONNECT 127.0.0.1:22 HTTP/1.1\r\nHost: x\r\n\r\n",
       "HTTP/1.1 405 Method Not Allowed"},
  };
  for (const Case& c : cases) {
    const RawReply reply = exchange(port(), c.request);
    EXPECT_EQ(statusLine(reply.text), c.status) << c.what;
    EXPECT_NE(reply.text.find("\r\nConnection: close\r\n"), std::string::npos) << c.what;
    EXPECT_EQ(reply.text.find("Keep-Alive:"), std::string::npos) << c.what;
    EXPECT_TRUE(reply.closed) << c.what;
    EXPECT_NE(reply.text.find("{\"data\":null,\"error\":{\"code\":"), std::string::npos) << c.what;
  }
  // The refusals of sizes and codings say what was refused.
  const std::vector<std::pair<std::string, std::string>> described = {
      {cases[0].request, "The request target is too long."},
      {cases[1].request, "The request header is too large."},
      {cases[2].request, "The request header is too large."},
      {cases[3].request, "The request carries too many headers."},
      {head + "Content-Encoding: compress\r\nContent-Length: 2\r\n\r\n{}",
       "The request body's Content-Encoding is not supported."},
  };
  for (const auto& d : described) {
    const RawReply reply = exchange(port(), d.first);
    EXPECT_NE(reply.text.find("\"description\":\"" + d.second + "\""), std::string::npos)
        << reply.text;
  }
  // A header folded over two lines (obs-fold) is unfolded, as RFC 9112
  // allows, and the request served.
  const RawReply folded =
      exchange(port(), "GET /healthz HTTP/1.1\r\nHost: x\r\nX-Folded: a\r\n b\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(statusLine(folded.text), "HTTP/1.1 200 OK") << folded.text;
  // Within the limits, the same kinds of request are served.
  httplib::Headers fillers;
  for (int i = 0; i < 90; ++i) fillers.emplace("X-Filler-" + std::to_string(i), "v");
  auto res = client_->Get("/healthz", fillers);
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
}

TEST_F(SecurityE2E, JsonBodiesBeyondTheLimitOrTooDeep) {
  // Over --max-body but within the transport's allowance: the gateway's own
  // 413 envelope.
  expectEnvelope(client_->Post("/sessions", "{\"username\":\"" + std::string(kMaxBody, 'u') + "\"}",
                               "application/json"),
                 413, kErrBodyTooLarge);
  // Deep nesting is refused as unreadable JSON, not followed down.
  const std::string deep = std::string(1500, '[') + std::string(1500, ']');
  expectEnvelope(client_->Post("/sessions", deep, "application/json"), 400, kErrBadRequest);
  const std::string deepObject = "{\"a\":" + std::string(1200, '[') + std::string(1200, ']') + "}";
  expectEnvelope(client_->Post("/sessions", deepObject, "application/json"), 400, kErrBadRequest);
  auto health = client_->Get("/healthz");
  ASSERT_TRUE(health);
  EXPECT_EQ(health->status, 200);
}

TEST_F(SecurityE2E, RequestHiddenInARefusedBodyIsNeverServed) {
  // A chunked body over the limit is refused part-way. What follows on the
  // connection is the rest of that body, whatever it looks like: here a
  // logout of a live session and a login. The gateway answers 413 and closes
  // the connection, so neither is ever served.
  const std::string token = login();
  ASSERT_TRUE(valid(token));
  const std::string loginBody = loginJson("apiuser", gateway_->password());
  const std::string hidden =
      "DELETE /sessions HTTP/1.1\r\nHost: x\r\nX-Auth-Token: " + token +
      "\r\nContent-Length: 0\r\n\r\n"
      "POST /sessions HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\nContent-Length: " +
      std::to_string(loginBody.size()) + "\r\n\r\n" + loginBody;
  const std::string head = "POST /sessions HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n";
  // The first chunk ends exactly where the limit is crossed, so the hidden
  // requests start right where the gateway stops reading.
  const RawReply chunks = exchange(port(), chunked(head, kTransportLimit + 1), hidden);
  EXPECT_EQ(statusLine(chunks.text), "HTTP/1.1 413 Payload Too Large");
  EXPECT_EQ(answers(chunks.text), 1u) << chunks.text;
  EXPECT_NE(chunks.text.find("\r\nConnection: close\r\n"), std::string::npos);
  EXPECT_TRUE(chunks.closed);
  EXPECT_EQ(chunks.text.find("\"token\""), std::string::npos);
  EXPECT_TRUE(valid(token)) << "the hidden logout was served";

  // The same behind a declared length over the limit: the body is not read.
  const RawReply declared = exchange(
      port(), head + "Content-Length: " + std::to_string(kTransportLimit + 1) + "\r\n\r\n", hidden);
  EXPECT_EQ(statusLine(declared.text), "HTTP/1.1 413 Payload Too Large");
  EXPECT_EQ(answers(declared.text), 1u) << declared.text;
  EXPECT_TRUE(declared.closed);
  EXPECT_TRUE(valid(token)) << "the hidden logout was served";

  // And behind a refused method.
  const RawReply traced = exchange(port(), "TRACE / HTTP/1.1\r\nHost: x\r\n\r\n", hidden);
  EXPECT_EQ(answers(traced.text), 1u) << traced.text;
  EXPECT_TRUE(valid(token)) << "the hidden logout was served";

  // cpp-httplib reads no body of GET, HEAD or OPTIONS: such a request with a
  // body is refused and its connection closed, a HEAD answer (which has no
  // body) included.
  std::string fillers;
  for (int i = 0; i < 150; ++i) fillers += "X-Filler-" + std::to_string(i) + ": v\r\n";
  for (const std::string& method :
       {std::string("GET"), std::string("HEAD"), std::string("OPTIONS")}) {
    for (const std::string& extra : {std::string(), fillers}) {
      const RawReply bodied = exchange(port(), method + " /healthz HTTP/1.1\r\nHost: x\r\n" +
                                                   extra + "Content-Length: " +
                                                   std::to_string(hidden.size()) + "\r\n\r\n",
                                       hidden, 1000);
      EXPECT_EQ(answers(bodied.text), 1u) << method << bodied.text;
      EXPECT_EQ(statusLine(bodied.text),
                extra.empty() ? "HTTP/1.1 400 Bad Request"
                              : "HTTP/1.1 431 Request Header Fields Too Large")
          << method;
      EXPECT_TRUE(bodied.closed) << method;
      EXPECT_TRUE(valid(token)) << "the hidden logout was served after " << method;
    }
  }

  // Control: on a connection that is in order, the same logout is served.
  const RawReply inOrder = exchange(port(), hidden.substr(0, hidden.find("POST ")), "", 500);
  EXPECT_EQ(statusLine(inOrder.text), "HTTP/1.1 200 OK") << inOrder.text;
  EXPECT_FALSE(valid(token));
}

// `text` in gzip format.
std::string gzip(const std::string& text) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) !=
      Z_OK) {
    return std::string();
  }
  std::string out(deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(&out[0]);
  stream.avail_out = static_cast<uInt>(out.size());
  const int result = deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return result == Z_STREAM_END ? out : std::string();
}

TEST_F(SecurityE2E, CompressedBodiesCountAfterInflating) {
  // cpp-httplib inflates gzip bodies; the limit applies to what comes out,
  // so a small body that inflates to 32 MiB is refused, not unpacked.
  const std::string bomb = gzip("[" + std::string(32 * 1024 * 1024, ' ') + "]");
  ASSERT_FALSE(bomb.empty());
  ASSERT_LT(bomb.size(), kMaxBody * 16);
  const std::string head =
      "POST /sessions HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
      "Content-Encoding: gzip\r\nContent-Length: ";
  const RawReply refused = exchange(port(), head + std::to_string(bomb.size()) + "\r\n\r\n" + bomb);
  EXPECT_EQ(statusLine(refused.text), "HTTP/1.1 413 Payload Too Large");
  EXPECT_TRUE(refused.closed);
  // A compressed login within the limit is served.
  const std::string login = gzip(loginJson("apiuser", gateway_->password()));
  const RawReply served = exchange(
      port(), head + std::to_string(login.size()) + "\r\nConnection: close\r\n\r\n" + login);
  EXPECT_EQ(statusLine(served.text), "HTTP/1.1 200 OK") << served.text;
}

// --- Sessions ----------------------------------------------------------------

TEST_F(SecurityE2E, LoginAlwaysIssuesAFreshToken) {
  // A token the client brings to a login (fixation) is never adopted.
  const std::string planted(64, 'a');
  const std::string body = loginJson("apiuser", gateway_->password());
  auto res = client_->Post(
      "/sessions", {{"X-Auth-Token", planted}, {"Cookie", "NOX_SESSION=" + planted}}, body,
      "application/json");
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200) << res->body;
  const std::string first = parseJson(res->body)["data"]["token"].asString();
  EXPECT_NE(first, planted);
  EXPECT_FALSE(valid(planted));
  EXPECT_TRUE(valid(first));
  // A login while holding a live token gives another one.
  auto again = client_->Post("/sessions", auth(first), body, "application/json");
  ASSERT_TRUE(again);
  ASSERT_EQ(again->status, 200);
  const std::string second = parseJson(again->body)["data"]["token"].asString();
  EXPECT_NE(second, first);
  EXPECT_TRUE(valid(second));

  // The answer that carries a token is not to be cached; the cookie is out of
  // scripts' and other sites' reach.
  EXPECT_EQ(again->get_header_value("Cache-Control"), "no-store");
  const std::string cookie = again->get_header_value("Set-Cookie");
  EXPECT_NE(cookie.find("; HttpOnly"), std::string::npos) << cookie;
  EXPECT_NE(cookie.find("; SameSite=Strict"), std::string::npos) << cookie;
  EXPECT_NE(cookie.find("; Path=/"), std::string::npos) << cookie;
  EXPECT_EQ(cookie.find("Secure"), std::string::npos) << "plain HTTP: " << cookie;
}

TEST_F(SecurityE2E, LogoutEndsTheTokenInEitherForm) {
  const std::string byHeader = login();
  const std::string byCookie = login();
  ASSERT_TRUE(valid(byHeader));
  ASSERT_TRUE(valid(byCookie));
  auto out = client_->Delete("/sessions", auth(byHeader));
  ASSERT_TRUE(out);
  EXPECT_EQ(out->status, 200) << out->body;
  EXPECT_FALSE(valid(byHeader));
  expectEnvelope(client_->Get("/kestrel_task/count", {{"Cookie", "NOX_SESSION=" + byHeader}}), 401,
                 kErrNotLoggedIn);
  EXPECT_TRUE(valid(byCookie));

  // With the cookie, a logout (as every request that changes something) also
  // needs the console's header; without it the session goes on.
  expectEnvelope(client_->Delete("/sessions", {{"Cookie", "other=1; NOX_SESSION=" + byCookie}}),
                 403, kErrCsrfHeaderMissing);
  EXPECT_TRUE(valid(byCookie));
  auto cookieOut = client_->Delete(
      "/sessions", {{"Cookie", "other=1; NOX_SESSION=" + byCookie}, kConsoleHeader});
  ASSERT_TRUE(cookieOut);
  EXPECT_EQ(cookieOut->status, 200) << cookieOut->body;
  EXPECT_NE(cookieOut->get_header_value("Set-Cookie").find("Max-Age=0"), std::string::npos);
  EXPECT_FALSE(valid(byCookie));
  expectEnvelope(client_->Get("/kestrel_task/count", {{"Cookie", "NOX_SESSION=" + byCookie}}), 401,
                 kErrNotLoggedIn);
}

TEST_F(SecurityE2E, TokenInTheQueryStringIsNotAccepted) {
  // Query strings end up in browser histories and proxy logs; a token there
  // opens nothing.
  const std::string token = login();
  for (const std::string name : {"token", "X-Auth-Token", "NOX_SESSION"}) {
    expectEnvelope(client_->Get(("/kestrel_task/count?" + name + "=" + token).c_str()), 401,
                   kErrNotLoggedIn);
  }
}

TEST_F(SecurityE2E, RepeatedFailedLoginsAreSlowedDown) {
  // The fourth failure in a row has to wait; the answer says how long. The
  // waits grow, so at least one of these quick attempts meets one.
  bool throttled = false;
  for (int i = 0; i < 8 && !throttled; ++i) {
    auto res = client_->Post("/sessions", loginJson("auditor", "wrong-password"),
                             "application/json");
    ASSERT_TRUE(res);
    if (res->status == 429) {
      throttled = true;
      expectEnvelope(res, 429, kErrLoginThrottled);
      // Whole seconds, never 0 (login_security_e2e_test.cc checks the value).
      const std::string wait = res->get_header_value("Retry-After");
      ASSERT_FALSE(wait.empty());
      EXPECT_GE(std::stoi(wait), 1) << wait;
      EXPECT_EQ(std::to_string(std::stoi(wait)), wait);
    } else {
      EXPECT_EQ(res->status, 401) << res->body;
    }
  }
  EXPECT_TRUE(throttled);
}

// --- Answers -----------------------------------------------------------------

TEST_F(SecurityE2E, EveryAnswerCarriesTheProtectiveHeaders) {
  const std::string token = login();
  std::vector<httplib::Result> results;
  results.push_back(client_->Get("/healthz"));
  results.push_back(client_->Get("/openapi.json"));
  results.push_back(client_->Get("/kestrel_task/count", auth(token)));
  results.push_back(client_->Get("/no/such/path"));
  results.push_back(client_->Get("/kestrel_task/count"));
  results.push_back(client_->Post("/sessions", "not json", "application/json"));
  for (const httplib::Result& res : results) {
    ASSERT_TRUE(res);
    EXPECT_EQ(res->get_header_value("X-Content-Type-Options"), "nosniff") << res->status;
    EXPECT_EQ(res->get_header_value("Cache-Control"), "no-store") << res->status;
    EXPECT_EQ(res->get_header_value("Content-Security-Policy"),
              "default-src 'none'; frame-ancestors 'none'");
    EXPECT_FALSE(res->has_header("Server")) << "no version banner";
    EXPECT_FALSE(res->has_header("X-Powered-By"));
    EXPECT_FALSE(res->has_header("Access-Control-Allow-Origin")) << "no CORS";
    EXPECT_FALSE(res->has_header("Strict-Transport-Security")) << "plain HTTP";
  }
  // A login answer is not compressed over plain HTTP either.
  auto again = client_->Post("/sessions", {{"Accept-Encoding", "br, gzip"}},
                             loginJson("apiuser", gateway_->password()), "application/json");
  ASSERT_TRUE(again);
  EXPECT_EQ(again->status, 200) << again->body;
  EXPECT_FALSE(again->has_header("Content-Encoding"));
}

// The session cookie alone, as a page of another site could make a browser
// send it, changes nothing: uploads and logouts need the console's header.
TEST_F(SecurityE2E, CookieRequestsThatChangeDataNeedTheConsoleHeader) {
  const std::string token = login();
  const httplib::Headers cookie = {{"Cookie", "NOX_SESSION=" + token}};
  httplib::Headers withHeader = cookie;
  withHeader.insert(kConsoleHeader);
  const httplib::MultipartFormDataItems file = {{"file", "not a certificate", "ca.pem", ""}};
  auto forged = client_->Post("/kestrel_cert/import_cert", cookie, file);
  expectEnvelope(forged, 403, kErrCsrfHeaderMissing);
  expectEnvelope(client_->Delete("/sessions", cookie), 403, kErrCsrfHeaderMissing);
  EXPECT_TRUE(valid(token));
  // The same upload from the console reaches the backend, which judges it.
  expectEnvelope(client_->Post("/kestrel_cert/import_cert", withHeader, file), 422,
                 0x60E01D01);
  // Reads with the cookie, and requests with the X-Auth-Token header, are as before.
  auto read = client_->Get("/kestrel_task/count", cookie);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->status, 200);
  expectEnvelope(client_->Post("/kestrel_cert/import_cert", auth(token), file), 422, 0x60E01D01);
  auto out = client_->Delete("/sessions", withHeader);
  ASSERT_TRUE(out);
  EXPECT_EQ(out->status, 200) << out->body;
  EXPECT_FALSE(valid(token));
}

TEST_F(SecurityE2E, ConsoleIsServedWithItsOwnPolicy) {
  auto page = client_->Get("/console/");
  ASSERT_TRUE(page);
  EXPECT_EQ(page->status, 200);
  EXPECT_EQ(page->get_header_value("Content-Type"), "text/html; charset=utf-8");
  EXPECT_EQ(page->get_header_value_count("Content-Security-Policy"), 1u);
  const std::string policy = page->get_header_value("Content-Security-Policy");
  EXPECT_NE(policy.find("default-src 'self'"), std::string::npos) << policy;
  EXPECT_NE(policy.find("frame-ancestors 'none'"), std::string::npos) << policy;
  EXPECT_EQ(policy.find("unsafe"), std::string::npos) << policy;
  EXPECT_EQ(page->get_header_value("X-Content-Type-Options"), "nosniff");
  EXPECT_EQ(page->get_header_value("X-Frame-Options"), "DENY");
  EXPECT_NE(page->body.find("<script type=\"module\" src=\"js/app.js\">"), std::string::npos);
  auto script = client_->Get("/console/js/app.js");
  ASSERT_TRUE(script);
  EXPECT_EQ(script->status, 200);
  EXPECT_EQ(script->get_header_value("Content-Type"), "text/javascript; charset=utf-8");
  expectEnvelope(client_->Get("/console/../openapi.json"), 404, kErrRouteNotFound);
  expectEnvelope(client_->Get("/console/js/%2e%2e/index.html"), 404, kErrRouteNotFound);
  expectEnvelope(client_->Post("/console/", "", "text/plain"), 405, kErrMethodNotAllowed);
}

TEST_F(SecurityE2E, NoCrossOriginAccessAndNoEchoedInput) {
  // No CORS headers, not even for a preflight from another origin.
  for (const char* path : {"/sessions", "/kestrel_task"}) {
    auto res = client_->Options(path, {{"Origin", "https://evil.example"},
                                       {"Access-Control-Request-Method", "DELETE"}});
    ASSERT_TRUE(res);
    for (const auto& header : res->headers) {
      EXPECT_NE(header.first.rfind("Access-Control-", 0), 0u) << header.first;
    }
  }
  // Error answers are fixed texts: what the client sent is not repeated.
  const std::string probe = "<script>alert(1)</script>";
  std::vector<httplib::Result> results;
  results.push_back(client_->Get(("/" + probe).c_str()));
  results.push_back(client_->Get(("/kestrel_task/" + probe).c_str()));
  results.push_back(client_->Post(
      "/sessions", "{\"username\":\"" + probe + "\",\"password\":\"x\"}", "application/json"));
  results.push_back(client_->Post("/sessions", "{" + probe, "application/json"));
  for (const httplib::Result& res : results) {
    ASSERT_TRUE(res);
    EXPECT_EQ(res->body.find("<script"), std::string::npos) << res->body;
    EXPECT_EQ(res->get_header_value("Content-Type"), "application/json");
  }
}

// --- Logs (own gateway: its logs are read after it stopped) ----------------

TEST(SecurityLogsE2E, TokensAndPasswordsNeverReachTheLogs) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--log-level", "trace"})) << gateway.output();
  httplib::Client client("127.0.0.1", gateway.port());
  recordExchanges(client);
  std::vector<std::string> secrets = {gateway.password()};
  const std::string body = loginJson("apiuser", gateway.password());
  for (int i = 0; i < 2; ++i) {
    auto res = client.Post("/sessions", body, "application/json");
    ASSERT_TRUE(res);
    ASSERT_EQ(res->status, 200);
    secrets.push_back(parseJson(res->body)["data"]["token"].asString());
  }
  const std::string a = secrets[1];
  const std::string b = secrets[2];
  EXPECT_TRUE(client.Get("/kestrel_task/count", {{"X-Auth-Token", a}}));
  EXPECT_TRUE(client.Get("/kestrel_task?LANGUAGE=zh", {{"Cookie", "NOX_SESSION=" + b}}));
  EXPECT_TRUE(client.Get(("/kestrel_task/count?token=" + a).c_str()));
  // Failed lookups, with a made-up token in each form.
  const std::string bogus = "f00dcafe" + std::string(56, '7');
  secrets.push_back(bogus);
  EXPECT_TRUE(client.Get("/kestrel_task/count", {{"X-Auth-Token", bogus}}));
  EXPECT_TRUE(client.Delete("/sessions", {{"Cookie", "NOX_SESSION=" + bogus}}));
  // A wrong password is not logged either.
  const std::string wrong = "Wrong-" + gateway.password();
  secrets.push_back(wrong);
  EXPECT_TRUE(client.Post("/sessions", loginJson("apiuser", wrong), "application/json"));
  EXPECT_TRUE(client.Post("/login", "username=apiuser&password=" + wrong,
                          "application/x-www-form-urlencoded"));
  EXPECT_TRUE(client.Delete("/sessions", {{"X-Auth-Token", a}}));
  EXPECT_TRUE(client.Delete("/sessions", {{"Cookie", "NOX_SESSION=" + b},
                                          {"X-Requested-With", "nox-console"}}));
  EXPECT_EQ(gateway.stop(), 0);

  const std::string trace = gateway.traceLog();
  const std::string access = gateway.accessLog();
  ASSERT_NE(trace.find("logged in"), std::string::npos) << "the trace log was written";
  ASSERT_NE(access.find("DELETE /sessions 200"), std::string::npos) << access;
  for (const std::string& secret : secrets) {
    ASSERT_FALSE(secret.empty());
    EXPECT_EQ(trace.find(secret), std::string::npos) << secret;
    EXPECT_EQ(access.find(secret), std::string::npos) << secret;
    // The console names the demo password once, at the first start; never a
    // token.
    if (secret != gateway.password()) {
      EXPECT_EQ(gateway.output().find(secret), std::string::npos) << secret;
    }
  }
}

// --- TLS ---------------------------------------------------------------------

struct Handshake {
  bool ok = false;
  std::string cipher;
  bool ticket = false;
  bool compressed = false;
};

// One TLS handshake offering `version` only and, for TLS 1.2, `ciphers`.
Handshake handshake(int port, int version, const char* ciphers) {
  Handshake result;
  SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_min_proto_version(ctx, version);
  SSL_CTX_set_max_proto_version(ctx, version);
  SSL_CTX_set_security_level(ctx, 0);  // let the client offer what the test wants
  if (ciphers != nullptr && SSL_CTX_set_cipher_list(ctx, ciphers) != 1) {
    SSL_CTX_free(ctx);
    ERR_clear_error();
    ADD_FAILURE() << "the client library cannot offer " << ciphers;
    return result;
  }
  BIO* bio = BIO_new_ssl_connect(ctx);
  BIO_set_conn_hostname(bio, ("127.0.0.1:" + std::to_string(port)).c_str());
  if (BIO_do_connect(bio) == 1 && BIO_do_handshake(bio) == 1) {
    result.ok = true;
    SSL* ssl = nullptr;
    BIO_get_ssl(bio, &ssl);
    result.cipher = SSL_get_cipher_name(ssl);
    SSL_SESSION* session = SSL_get_session(ssl);
    result.ticket = session != nullptr && SSL_SESSION_has_ticket(session) == 1;
    result.compressed = SSL_get_current_compression(ssl) != nullptr;
  }
  BIO_free_all(bio);
  SSL_CTX_free(ctx);
  ERR_clear_error();
  return result;
}

// Opens a TLS 1.2 connection and asks to renegotiate it. Returns whether the
// server refused with OpenSSL's "no renegotiation".
bool renegotiationRefused(int port) {
  SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  SSL_CTX_set_max_proto_version(ctx, TLS1_2_VERSION);
  BIO* bio = BIO_new_ssl_connect(ctx);
  BIO_set_conn_hostname(bio, ("127.0.0.1:" + std::to_string(port)).c_str());
  bool refused = false;
  SSL* ssl = nullptr;
  if (BIO_do_connect(bio) == 1 && BIO_do_handshake(bio) == 1 && BIO_get_ssl(bio, &ssl) == 1 &&
      SSL_renegotiate(ssl) == 1) {
    ERR_clear_error();
    // The new hello goes out; the server's answer is an alert, read here or
    // by the read that follows.
    char byte = 0;
    if (SSL_do_handshake(ssl) == 1) SSL_read(ssl, &byte, 1);
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
      if (ERR_GET_REASON(error) == SSL_R_NO_RENEGOTIATION) refused = true;
    }
  }
  BIO_free_all(bio);
  SSL_CTX_free(ctx);
  ERR_clear_error();
  return refused;
}

// Over HTTPS every answer tells browsers to keep to HTTPS for a year
// (--hsts-max-age); the answers that carry a token, a session id or a
// verification code (/sessions, /login) are never compressed, whatever the
// client accepts, while other answers still are.
TEST(SecurityTlsE2E, StrictTransportSecurityAndNoCompressedSecrets) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--tls-self-signed", "--expose-verify-code"})) << gateway.output();
  httplib::SSLClient client("127.0.0.1", gateway.port());
  recordExchanges(client);
  client.set_ca_cert_path((gateway.dataDir() + "/data/tls/gateway-selfsigned.crt").c_str());
  client.enable_server_certificate_verification(true);
  const httplib::Headers accept{{"Accept-Encoding", "br, gzip, deflate"}};

  auto login = client.Post("/sessions", accept, loginJson("apiuser", gateway.password()),
                           "application/json");
  ASSERT_TRUE(login) << httplib::to_string(login.error());
  ASSERT_EQ(login->status, 200) << login->body;
  const std::string token = parseJson(login->body)["data"]["token"].asString();
  ASSERT_FALSE(token.empty());
  httplib::Headers withToken = accept;
  withToken.emplace("X-Auth-Token", token);

  struct Answer {
    const char* what;
    httplib::Result res;
  };
  std::vector<Answer> secrets;
  secrets.push_back({"login", std::move(login)});
  secrets.push_back({"session", client.Get("/sessions", withToken)});
  secrets.push_back({"challenge", client.Get("/login", accept)});
  secrets.push_back(
      {"refused login",
       client.Post("/sessions", accept, loginJson("apiuser", "wrong"), "application/json")});
  for (const Answer& answer : secrets) {
    ASSERT_TRUE(answer.res) << answer.what;
    EXPECT_FALSE(answer.res->has_header("Content-Encoding"))
        << answer.what << ": " << answer.res->get_header_value("Content-Encoding");
    EXPECT_EQ(answer.res->get_header_value("Strict-Transport-Security"), "max-age=31536000")
        << answer.what;
  }
  EXPECT_TRUE(parseJson(secrets[2].res->body)["data"]["code"].isString()) << "the code is there";

  // Answers without secrets are compressed as before, and carry the header
  // too, errors included.
  auto tasks = client.Get("/kestrel_task?limit=50", withToken);
  ASSERT_TRUE(tasks);
  EXPECT_EQ(tasks->status, 200);
  EXPECT_FALSE(tasks->get_header_value("Content-Encoding").empty());
  EXPECT_EQ(tasks->get_header_value("Strict-Transport-Security"), "max-age=31536000");
  auto missing = client.Get("/no/such/path", accept);
  ASSERT_TRUE(missing);
  EXPECT_EQ(missing->status, 404);
  EXPECT_EQ(missing->get_header_value("Strict-Transport-Security"), "max-age=31536000");
  EXPECT_EQ(gateway.stop(), 0);

  // --hsts-max-age 0: no header.
  GatewayProcess quiet;
  ASSERT_TRUE(quiet.start({"--tls-self-signed", "--hsts-max-age", "0"})) << quiet.output();
  httplib::SSLClient quietClient("127.0.0.1", quiet.port());
  recordExchanges(quietClient);
  quietClient.enable_server_certificate_verification(false);
  auto health = quietClient.Get("/healthz");
  ASSERT_TRUE(health) << httplib::to_string(health.error());
  EXPECT_EQ(health->status, 200);
  EXPECT_FALSE(health->has_header("Strict-Transport-Security"));
  EXPECT_EQ(quiet.stop(), 0);
}

TEST(SecurityTlsE2E, OnlyModernProtocolsAndSuites) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--tls-self-signed"})) << gateway.output();
  const int port = gateway.port();
  // No TLS 1.0 or 1.1, whatever the suite.
  EXPECT_FALSE(handshake(port, TLS1_VERSION, "ALL:@SECLEVEL=0").ok);
  EXPECT_FALSE(handshake(port, TLS1_1_VERSION, "ALL:@SECLEVEL=0").ok);
  // TLS 1.2: ECDHE with an AEAD only.
  const char* const refused[] = {
      // CBC with ECDHE, static RSA key exchange, finite-field DHE.
      "ECDHE-ECDSA-AES128-SHA", "ECDHE-ECDSA-AES256-SHA384", "ECDHE-RSA-AES128-SHA256",
      "AES128-GCM-SHA256", "AES256-SHA", "DHE-RSA-AES128-GCM-SHA256",
      // Anonymous and unencrypted suites (3DES, RC4 and export suites are
      // gone from the client library itself).
      "AECDH-AES128-SHA:@SECLEVEL=0", "NULL:eNULL:@SECLEVEL=0", "aNULL:@SECLEVEL=0",
  };
  for (const char* suite : refused) EXPECT_FALSE(handshake(port, TLS1_2_VERSION, suite).ok) << suite;
  for (const char* suite : {"ECDHE-ECDSA-AES128-GCM-SHA256", "ECDHE-ECDSA-AES256-GCM-SHA384",
                            "ECDHE-ECDSA-CHACHA20-POLY1305"}) {
    const Handshake accepted = handshake(port, TLS1_2_VERSION, suite);
    EXPECT_TRUE(accepted.ok) << suite;
    EXPECT_EQ(accepted.cipher, suite);
    EXPECT_FALSE(accepted.ticket) << "no session tickets";
    EXPECT_FALSE(accepted.compressed);
  }
  // The server's order wins over the client's.
  const Handshake chosen = handshake(
      port, TLS1_2_VERSION, "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-ECDSA-AES128-GCM-SHA256");
  EXPECT_EQ(chosen.cipher, "ECDHE-ECDSA-AES128-GCM-SHA256");
  EXPECT_TRUE(handshake(port, TLS1_3_VERSION, nullptr).ok);
  EXPECT_TRUE(renegotiationRefused(port));

  // Over HTTPS the session cookie is Secure.
  httplib::SSLClient client("127.0.0.1", port);
  recordExchanges(client);
  client.set_ca_cert_path((gateway.dataDir() + "/data/tls/gateway-selfsigned.crt").c_str());
  client.enable_server_certificate_verification(true);
  auto res = client.Post("/sessions", loginJson("apiuser", gateway.password()), "application/json");
  ASSERT_TRUE(res) << httplib::to_string(res.error());
  ASSERT_EQ(res->status, 200) << res->body;
  const std::string cookie = res->get_header_value("Set-Cookie");
  EXPECT_NE(cookie.find("; HttpOnly"), std::string::npos) << cookie;
  EXPECT_NE(cookie.find("; Secure"), std::string::npos) << cookie;
  auto out = client.Delete("/sessions", {{"X-Auth-Token", parseJson(res->body)["data"]["token"].asString()}});
  ASSERT_TRUE(out);
  EXPECT_NE(out->get_header_value("Set-Cookie").find("; Secure"), std::string::npos);
  EXPECT_EQ(gateway.stop(), 0);
}

}  // namespace
