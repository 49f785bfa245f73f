// End-to-end: gateways started with --backend tcp://… against a running
// nox-backend. Logins, task reads and uploads through it; the backend
// killed and started again under a running gateway; two gateways sharing one
// backend.
#include <dirent.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"
#include "test_pki.h"

namespace {

constexpr long long kErrBackendUnavailable = 0x03000101;

httplib::Headers auth(const std::string& token) {
  return httplib::Headers{{"X-Auth-Token", token}};
}

// The number of entries in folder `dir` (-1 when it cannot be read).
int entries(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return -1;
  int n = 0;
  while (const struct dirent* e = readdir(d)) {
    if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) ++n;
  }
  closedir(d);
  return n;
}

std::string health(httplib::Client& client) {
  auto res = client.Get("/healthz");
  if (!res) return "no answer";
  EXPECT_EQ(res->status, 200) << res->body;
  return parseJson(res->body)["backend"].asString();
}

// A backend and gateways that use it, started for each test and stopped
// after it; every process must end with status 0.
class RemoteBackendE2E : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(backend_.start()) << backend_.output(); }
  void TearDown() override {
    for (std::unique_ptr<GatewayProcess>& gateway : gateways_) {
      EXPECT_EQ(gateway->stop(), 0) << gateway->output();
    }
    EXPECT_EQ(backend_.stop(), 0) << backend_.output();
  }

  // Starts one more gateway on the backend and returns a client for it.
  std::unique_ptr<httplib::Client> startGateway() {
    gateways_.push_back(std::make_unique<GatewayProcess>());
    GatewayProcess& gateway = *gateways_.back();
    if (!gateway.start({"--backend", backend_.url()})) {
      ADD_FAILURE() << gateway.output();
      return nullptr;
    }
    auto client = std::make_unique<httplib::Client>("127.0.0.1", gateway.port());
    client->set_read_timeout(60);
    return client;
  }

  BackendProcess backend_;
  std::vector<std::unique_ptr<GatewayProcess>> gateways_;
};

TEST_F(RemoteBackendE2E, LoginTasksAndAnUploadThroughNoxBackend) {
  std::unique_ptr<httplib::Client> client = startGateway();
  ASSERT_TRUE(client);
  EXPECT_EQ(health(*client), "reachable");
  const std::string token = loginToken(*client, backend_.password());
  ASSERT_FALSE(token.empty());

  auto list = client->Get("/kestrel_task?limit=3", auth(token));
  ASSERT_TRUE(list);
  EXPECT_EQ(list->status, 200) << list->body;
  EXPECT_EQ(parseJson(list->body)["data"].size(), 3u) << list->body;
  auto detail = client->Get("/kestrel_task/1001", auth(token));
  ASSERT_TRUE(detail);
  EXPECT_EQ(detail->status, 200) << detail->body;
  EXPECT_EQ(parseJson(detail->body)["data"]["taskId"].asString(), "1001") << detail->body;

  // The upload reaches the backend's own folders: the gateway has no copy
  // of the backend's data folder at all.
  const std::string ca = makeCert(CertProfile("NOX Remote CA")).pem();
  expectImported(uploadFile(*client, token, "/kestrel_cert/import_cert", "ca.pem", ca));
  EXPECT_NE(backend_.traceLog().find("CA CN=NOX Remote CA accepted"), std::string::npos)
      << backend_.traceLog();
  // The plug-in wrote the upload in the gateway's own folder, the gateway
  // sent its bytes on as it was written, and the check removed it: nothing
  // is left there, and the plug-in's steps on the local file (its mode)
  // found it.
  EXPECT_EQ(entries(gateways_.back()->dataDir() + "/data/staging"), 0);
  EXPECT_EQ(gateways_.back()->traceLog().find("filepermission failed"), std::string::npos)
      << gateways_.back()->traceLog();
  EXPECT_EQ(gateways_.back()->traceLog().find(" ERROR "), std::string::npos)
      << gateways_.back()->traceLog();
}

TEST_F(RemoteBackendE2E, BackendKilledAndStartedAgainUnderARunningGateway) {
  std::unique_ptr<httplib::Client> client = startGateway();
  ASSERT_TRUE(client);
  const std::string token = loginToken(*client, backend_.password());
  ASSERT_FALSE(token.empty());
  // A CA accepted before the crash is kept: its CRL is accepted after it.
  const TestCert kept = makeCert(CertProfile("NOX Kept CA"));
  expectImported(uploadFile(*client, token, "/kestrel_cert/import_cert", "kept.pem", kept.pem()));

  // Requests keep coming from a second client while the backend dies: each
  // gets its answer or the clear "not available" envelope, nothing else.
  std::atomic<bool> done{false};
  std::atomic<int> answered{0};
  std::vector<std::string> refusedOtherwise;
  std::thread traffic([&] {
    httplib::Client other("127.0.0.1", gateways_.back()->port());
    other.set_read_timeout(60);
    for (int i = 0; i < 20000 && !done.load(); ++i) {
      auto res = other.Get("/kestrel_task?limit=2", auth(token));
      if (res && res->status == 200) {
        ++answered;
        continue;
      }
      if (res && res->status == 503 &&
          parseJson(res->body)["error"]["code"].asInt64() == kErrBackendUnavailable) {
        continue;
      }
      refusedOtherwise.push_back(res ? std::to_string(res->status) + " " + res->body
                                     : std::string("no answer"));
    }
  });
  // Bounded wait for the traffic to be under way.
  for (int i = 0; i < 3000 && answered.load() < 5; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  backend_.kill();
  expectEnvelope(client->Get("/kestrel_task?limit=2", auth(token)), 503, kErrBackendUnavailable);
  expectEnvelope(client->Get("/kestrel_task/1001", auth(token)), 503, kErrBackendUnavailable);
  EXPECT_EQ(health(*client), "unreachable");

  ASSERT_TRUE(backend_.start()) << backend_.output();
  // The same gateway, the same session: served again, uploads included.
  auto list = client->Get("/kestrel_task?limit=2", auth(token));
  ASSERT_TRUE(list);
  EXPECT_EQ(list->status, 200) << list->body;
  EXPECT_EQ(health(*client), "reachable");
  CertProfile afterRestart("NOX After Restart CA");
  afterRestart.ecCurve = "P-256";
  expectImported(uploadFile(*client, token, "/kestrel_cert/import_cert", "ca.pem",
                        makeCert(afterRestart).pem()));
  expectImported(
      uploadFile(*client, token, "/kestrel_cert/import_crl", "kept.crl", makeCrl(kept, 86400)));

  done.store(true);
  traffic.join();
  EXPECT_GE(answered.load(), 5);
  EXPECT_TRUE(refusedOtherwise.empty()) << refusedOtherwise.front();
  const std::string log = gateways_.back()->traceLog();
  EXPECT_NE(log.find("backend 127.0.0.1:" + std::to_string(backend_.port()) +
                     " not available for command 0xE012C000"),
            std::string::npos)
      << log;
}

TEST_F(RemoteBackendE2E, GatewayStartedBeforeItsBackend) {
  // The backend stops cleanly first; the gateway starts without it.
  EXPECT_EQ(backend_.stop(), 0) << backend_.output();
  std::unique_ptr<httplib::Client> client = startGateway();
  ASSERT_TRUE(client);
  EXPECT_EQ(health(*client), "unreachable");
  Json::Value body;
  body["username"] = "apiuser";
  body["password"] = backend_.password();
  body["scope"] = "4";
  body["language"] = "en";
  expectEnvelope(client->Post("/sessions", Json::FastWriter().write(body), "application/json"),
                 503, kErrBackendUnavailable);

  ASSERT_TRUE(backend_.start()) << backend_.output();
  // /healthz tells what the gateway last saw: its probe (every 250 ms) finds
  // the backend before long.
  std::string seen = health(*client);
  for (int i = 0; i < 40 && seen != "reachable"; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    seen = health(*client);
  }
  EXPECT_EQ(seen, "reachable");
  const std::string token = loginToken(*client, backend_.password());
  ASSERT_FALSE(token.empty());
  auto count = client->Get("/kestrel_task/count", auth(token));
  ASSERT_TRUE(count);
  EXPECT_EQ(count->status, 200) << count->body;
}

TEST_F(RemoteBackendE2E, TwoGatewaysShareOneBackend) {
  std::unique_ptr<httplib::Client> a = startGateway();
  std::unique_ptr<httplib::Client> b = startGateway();
  ASSERT_TRUE(a && b);
  const std::string tokenA = loginToken(*a, backend_.password());
  const std::string tokenB = loginToken(*b, backend_.password());
  ASSERT_FALSE(tokenA.empty() || tokenB.empty());

  // A CA uploaded through A is known through B: B accepts a CRL that only
  // that CA signed (refused as of an unknown issuer before).
  const TestCert ca = makeCert(CertProfile("NOX Shared CA"));
  const std::string crl = makeCrl(ca, 7 * 86400);
  expectEnvelope(uploadFile(*b, tokenB, "/kestrel_cert/import_crl", "shared.crl", crl), 422,
                 0x60E01D12);
  expectImported(uploadFile(*a, tokenA, "/kestrel_cert/import_cert", "shared.pem", ca.pem()));
  expectImported(uploadFile(*b, tokenB, "/kestrel_cert/import_crl", "shared.crl", crl));

  // One task read on both gives one answer.
  for (const char* path : {"/kestrel_task/1003", "/kestrel_task?limit=5&sort=-status",
                           "/kestrel_task/count"}) {
    auto fromA = a->Get(path, auth(tokenA));
    auto fromB = b->Get(path, auth(tokenB));
    ASSERT_TRUE(fromA && fromB) << path;
    EXPECT_EQ(fromA->status, 200) << fromA->body;
    EXPECT_EQ(fromA->body, fromB->body) << path;
  }
}

}  // namespace
