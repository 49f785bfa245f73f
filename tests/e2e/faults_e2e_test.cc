// End-to-end faults around the real nox-gateway: clients that go away or
// stop sending, uploads cut off mid-body, a catalogue that is missing or
// broken, and a data folder that is full or read-only. In each case the
// gateway goes on answering the other clients, says in its log what
// happened, and keeps what it had stored.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <libgen.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"
#include "raw_client.h"
#include "error_table.h"
#include "test_pki.h"

namespace {

using gw::kErrBadRequest;


std::vector<std::string> folderEntries(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(d);
  return names;
}

// Waits (at most 60 s) until the gateway's trace log holds `text`.
bool waitForLog(const GatewayProcess& gateway, const std::string& text) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline) {
    if (gateway.traceLog().find(text) != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

// The head of a multipart certificate upload that promises `declared` bytes
// of body, and the first part of that body.
std::string cutUploadHead(int port, const std::string& token, size_t declared) {
  std::ostringstream head;
  head << "POST /kestrel_cert/import_cert HTTP/1.1\r\n"
       << "Host: 127.0.0.1:" << port << "\r\n"
       << "X-Auth-Token: " << token << "\r\n"
       << "Content-Type: multipart/form-data; boundary=cutcutcut\r\n"
       << "Content-Length: " << declared << "\r\n\r\n"
       << "--cutcutcut\r\n"
       << "Content-Disposition: form-data; name=\"file\"; filename=\"ca.pem\"\r\n"
       << "Content-Type: application/octet-stream\r\n\r\n"
       << "-----BEGIN CERTIFICATE-----\nMIIB";
  return head.str();
}

class FaultsE2E : public LiveGatewayTest {
 protected:
  httplib::Result upload(const std::string& token, const std::string& fileName,
                         const std::string& content) {
    return uploadFile(*client_, token, "/kestrel_cert/import_cert", fileName, content);
  }
};

// Clients that connect and leave, leave before the answer, or send half a
// request line, and more idle connections than worker threads: none of it
// stops the gateway from answering the next client.
TEST_F(FaultsE2E, DisconnectingClientsDoNotExhaustTheWorkers) {
  // Eight idle connections against a pool of four workers.
  std::vector<std::unique_ptr<RawClient>> idle;
  for (int i = 0; i < 8; ++i) {
    idle.push_back(std::make_unique<RawClient>(gateway_.port()));
    ASSERT_TRUE(idle.back()->connected());
  }
  {
    RawClient silent(gateway_.port());  // connects and closes without a byte
    ASSERT_TRUE(silent.connected());
  }
  {
    RawClient hasty(gateway_.port());  // sends a request and leaves before the answer
    ASSERT_TRUE(hasty.connected());
    ASSERT_TRUE(hasty.send("GET /openapi.json HTTP/1.1\r\nHost: x\r\n\r\n"));
  }
  {
    RawClient half(gateway_.port());  // half a request line
    ASSERT_TRUE(half.connected());
    ASSERT_TRUE(half.send("GET /heal"));
  }
  idle.clear();  // the idle clients give up

  auto res = client_->Get("/healthz");
  ASSERT_TRUE(res) << "no answer after the idle clients left";
  EXPECT_EQ(res->status, 200);
  const std::string token = login();
  ASSERT_FALSE(token.empty());
  auto tasks = client_->Get("/kestrel_task?limit=2", auth(token));
  ASSERT_TRUE(tasks);
  EXPECT_EQ(tasks->status, 200) << tasks->body;
  // A client that went away is no error of the gateway's: nothing at error
  // level in the trace.
  EXPECT_EQ(gateway_.traceLog().find(" ERROR "), std::string::npos) << gateway_.traceLog();
}

// An upload whose client closes before the promised body arrived: nothing
// is imported, no file is left in the upload folder, the log says so.
TEST_F(FaultsE2E, UploadCutOffByAClosingClient) {
  const std::string token = login();
  {
    RawClient cut(gateway_.port());
    ASSERT_TRUE(cut.connected());
    ASSERT_TRUE(cut.send(cutUploadHead(gateway_.port(), token, 100000)));
  }
  ASSERT_TRUE(waitForLog(gateway_,
                         "request body of POST /kestrel_cert/import_cert from 127.0.0.1 "
                         "cut off after "))
      << gateway_.traceLog();
  EXPECT_NE(gateway_.traceLog().find(" of 100000 bytes"), std::string::npos);
  EXPECT_TRUE(folderEntries(gateway_.dataDir() + "/data/tmp").empty());
  EXPECT_TRUE(folderEntries(gateway_.dataDir() + "/data/ca").empty());
  // The next upload is served as usual.
  CertProfile profile("NOX Cut CA");
  profile.ecCurve = "P-256";
  const std::string ca = makeCert(profile).pem();
  auto res = upload(token, "ca.pem", ca);
  ASSERT_TRUE(res);
  EXPECT_EQ(res->body, kImportedBody);
  EXPECT_EQ(folderEntries(gateway_.dataDir() + "/data/ca").size(), 1u);
}

// A client that stops sending but holds its socket open: others are
// answered meanwhile, and the read time-out (--read-timeout) ends the
// stalled request with a 408 envelope.
TEST(FaultsStalledE2E, StalledUploadEndsAtTheReadTimeout) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--read-timeout", "1"})) << gateway.output();
  httplib::Client client("127.0.0.1", gateway.port());
  recordExchanges(client);
  const std::string token = loginToken(client, gateway.password());
  ASSERT_FALSE(token.empty());

  RawClient stalled(gateway.port());
  ASSERT_TRUE(stalled.connected());
  ASSERT_TRUE(stalled.send(cutUploadHead(gateway.port(), token, 100000)));
  // Another client is answered while the upload is stalled.
  auto res = client.Get("/healthz");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  auto tasks = client.Get("/kestrel_task/count", httplib::Headers{{"X-Auth-Token", token}});
  ASSERT_TRUE(tasks);
  EXPECT_EQ(tasks->status, 200);
  EXPECT_FALSE(stalled.readable()) << "the stalled upload was answered before its time-out";

  const std::string answer = stalled.readAnswer();
  EXPECT_EQ(answer.compare(0, 30, "HTTP/1.1 408 Request Timeout\r\n"), 0) << answer;
  const size_t bodyAt = answer.find("\r\n\r\n");
  ASSERT_NE(bodyAt, std::string::npos);
  const Json::Value body = parseJson(answer.substr(bodyAt + 4));
  EXPECT_EQ(body["error"]["code"].asInt64(), gw::kErrRequestTimeout);
  EXPECT_EQ(body["error"]["description"].asString(), "The request body did not arrive in time.");
  stalled.close();
  EXPECT_TRUE(waitForLog(gateway,
                         "request body of POST /kestrel_cert/import_cert from 127.0.0.1 "
                         "cut off after "));
  EXPECT_TRUE(folderEntries(gateway.dataDir() + "/data/tmp").empty());
  EXPECT_TRUE(folderEntries(gateway.dataDir() + "/data/ca").empty());
  EXPECT_EQ(gateway.stop(), 0) << gateway.output();
}

// A stop signal that comes at once after the "listening on" line (before
// the server accepts) still stops the gateway: it used to be lost, leaving
// the gateway serving until it was killed.
TEST(FaultsStopE2E, SignalRightAfterStartStops) {
  for (int i = 0; i < 3; ++i) {
    GatewayProcess gateway;
    ASSERT_TRUE(gateway.start()) << gateway.output();
    EXPECT_EQ(gateway.stop(), 0) << gateway.output();
  }
}

// --- Catalogue files missing or broken -------------------------------------

int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// An installation folder (bin/, conf/) whose English task catalogue is
// replaced by `broken` (removed when `broken` is null).
class BrokenHome {
 public:
  explicit BrokenHome(const char* broken) {
    char pattern[] = "/tmp/nox-home-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return;
    home_ = pattern;
    mkdir((home_ + "/bin").c_str(), 0700);
    mkdir((home_ + "/conf").c_str(), 0700);
    const std::string source = NOX_SOURCE_DIR "/conf/";
    for (const char* name :
         {"enum_en.xml", "enum_zh.xml", "task_extra_info_en.xml", "task_extra_info_zh.xml"}) {
      std::ofstream(home_ + "/conf/" + name) << readFile(source + name);
    }
    const std::string target = home_ + "/conf/task_extra_info_en.xml";
    if (broken == nullptr) {
      unlink(target.c_str());
    } else {
      std::ofstream(target, std::ios::trunc) << broken;
    }
  }
  ~BrokenHome() {
    if (!home_.empty()) nftw(home_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
  }
  const std::string& path() const { return home_; }

 private:
  std::string home_;
};

std::string pluginPath() {
  std::string bin = NOX_GATEWAY_BIN;
  return bin.substr(0, bin.rfind('/')) + "/../lib/libucore_nox.so";
}

struct CatalogueCase {
  const char* name;
  const char* content;  // null: the file is missing
  int tinyxmlError;     // the code the log line carries
};

class CatalogueFaultsE2E : public ::testing::TestWithParam<CatalogueCase> {};

// The gateway starts and serves with a broken English task catalogue; the
// task detail falls back to no text for the steps (an empty "detail") and to
// the failure reason's identifier as its description; the Chinese catalogue still
// works, and the log names the file that failed.
TEST_P(CatalogueFaultsE2E, ServesWithTheFallback) {
  const CatalogueCase& c = GetParam();
  BrokenHome home(c.content);
  ASSERT_FALSE(home.path().empty());
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--home", home.path(), "--plugin", pluginPath()})) << gateway.output();
  httplib::Client client("127.0.0.1", gateway.port());
  recordExchanges(client);
  const std::string token = loginToken(client, gateway.password());
  ASSERT_FALSE(token.empty());
  const httplib::Headers auth{{"X-Auth-Token", token}};

  // 1003: a failed backup of the demo data.
  const std::string failed = "1003";
  auto en = client.Get(("/kestrel_task/" + failed + "?LANGUAGE=en").c_str(), auth);
  auto zh = client.Get(("/kestrel_task/" + failed + "?LANGUAGE=zh").c_str(), auth);
  ASSERT_TRUE(en && zh);
  EXPECT_EQ(en->status, 200) << en->body;
  EXPECT_EQ(zh->status, 200) << zh->body;
  const Json::Value enData = parseJson(en->body)["data"];
  const Json::Value zhData = parseJson(zh->body)["data"];
  EXPECT_EQ(enData["taskId"].asString(), failed);
  EXPECT_EQ(enData["detail"].asString(), "") << en->body;
  // With no text for the failure reason, its identifier stands in.
  EXPECT_EQ(enData["errorInfo"]["description"], enData["errorInfo"]["code"]) << en->body;
  EXPECT_NE(zhData["detail"].asString(), "") << zh->body;
  EXPECT_TRUE(zhData["errorInfo"].isMember("description")) << zh->body;

  const std::string log = gateway.traceLog();
  EXPECT_NE(log.find("Open xml config file(../conf/task_extra_info_en.xml) failed."),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("errno: " + std::to_string(c.tinyxmlError) + ")."), std::string::npos) << log;
  EXPECT_NE(log.find("Parse xml configured file failed."), std::string::npos);
  EXPECT_EQ(gateway.stop(), 0) << gateway.output();
}

INSTANTIATE_TEST_SUITE_P(Catalogue, CatalogueFaultsE2E,
                         ::testing::Values(CatalogueCase{"missing", nullptr, 3},
                                           CatalogueCase{"truncated",
                                                         "<?xml version=\"1.0\"?>"
                                                         "<messages><message id=\"16",
                                                         7},
                                           CatalogueCase{"not_xml", "this is no catalogue", 8}),
                         [](const ::testing::TestParamInfo<CatalogueCase>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
