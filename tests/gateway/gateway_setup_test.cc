// The steps nox-gateway takes before it serves, each on its own: paths, the
// server's settings from the command line, the access table, the logs and
// the health monitor.
#include "gateway_setup.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>

#include <chrono>
#include <string>
#include <vector>

#include "catalogue_dir.h"
#include "options.h"

namespace {

class NoOp : public CSpecifyOp {
 public:
  bool isSupport(const std::string&, const std::string&, SpecifyOpPrivData&) override {
    return true;
  }
  int op(const std::string&, const std::string&, CRequestMsg&, CResponseMsg&) override {
    return 0;
  }
};

gw::GatewayOptions parsed(const std::vector<std::string>& args) {
  gw::GatewayOptions options;
  std::string error;
  EXPECT_TRUE(gw::parseOptions(args, &options, &error)) << error;
  return options;
}

TEST(ResolvePathsTest, RelativeToTheStartFolder) {
  const gw::GatewayPaths paths = gw::resolvePaths(
      parsed({"--home", "inst", "--log", "logs/trace.log", "--access", "/etc/nox/access.json",
              "--tls-cert", "c.pem", "--tls-key", "/k.pem"}),
      "/srv");
  EXPECT_EQ(paths.home, "/srv/inst");
  EXPECT_EQ(paths.plugin, "/srv/inst/lib/libucore_nox.so");  // from the home
  EXPECT_EQ(paths.dataDir, "/srv/inst/data");
  EXPECT_EQ(paths.log, "/srv/logs/trace.log");
  EXPECT_EQ(paths.accessLog, "");  // stderr
  EXPECT_EQ(paths.auditLog, "");   // none
  EXPECT_EQ(paths.access, "/etc/nox/access.json");
  EXPECT_EQ(paths.tlsCert, "/srv/c.pem");
  EXPECT_EQ(paths.tlsKey, "/k.pem");
  const gw::GatewayPaths given =
      gw::resolvePaths(parsed({"--plugin", "p.so", "--data", "/var/lib/nox"}), "/srv");
  EXPECT_EQ(given.plugin, "/srv/p.so");
  EXPECT_EQ(given.dataDir, "/var/lib/nox");
}

// Every setting the command line names reaches the server as it was given;
// the rest keep the server's own defaults.
TEST(ServerConfigTest, FromTheOptions) {
  const gw::GatewayOptions options =
      parsed({"--listen", "0.0.0.0:9443", "--threads", "6", "--io-threads", "3", "--queue", "7",
              "--login-threads", "2", "--max-body", "4096", "--read-timeout", "9",
              "--hsts-max-age", "0", "--trusted-proxies", "10.0.0.0/8", "--tls-cert", "c.pem",
              "--tls-key", "k.pem"});
  gw::ServerConfig config;
  std::string error;
  ASSERT_TRUE(gw::serverConfig(options, gw::resolvePaths(options, "/srv"), &config, &error))
      << error;
  EXPECT_EQ(config.host, "0.0.0.0");
  EXPECT_EQ(config.port, 9443);
  EXPECT_EQ(config.workers, 6);
  EXPECT_EQ(config.ioThreads, 3);
  EXPECT_EQ(config.queueLimit, 7u);
  EXPECT_EQ(config.loginThreads, 2);
  EXPECT_EQ(config.maxBody, 4096u);
  EXPECT_EQ(config.readTimeout, 9);
  EXPECT_EQ(config.hstsMaxAge, 0);
  EXPECT_EQ(config.trustedProxies.size(), 1u);
  EXPECT_EQ(config.tlsCert, "/srv/c.pem");  // resolved
  EXPECT_EQ(config.tlsKey, "/srv/k.pem");
  const gw::ServerConfig defaults;
  EXPECT_EQ(config.headerTimeout, defaults.headerTimeout);
  EXPECT_EQ(config.maxHeaders, defaults.maxHeaders);
  EXPECT_EQ(config.drainTimeout, defaults.drainTimeout);
}

TEST(ServerConfigTest, WorkersWithoutThreads) {
  gw::GatewayOptions options = parsed({});
  gw::ServerConfig config;
  std::string error;
  ASSERT_TRUE(gw::serverConfig(options, gw::resolvePaths(options, "/srv"), &config, &error));
  EXPECT_EQ(config.workers, gw::defaultWorkers(options));
  EXPECT_GE(gw::defaultWorkers(options), 4);
  options.backend = "tcp://127.0.0.1:7070";
  EXPECT_GE(gw::defaultWorkers(options), 8);  // they mostly wait for the backend
  EXPECT_GT(gw::defaultWorkers(options), gw::defaultWorkers(parsed({})));
}

TEST(ServerConfigTest, SelfSignedPairInTheDataFolder) {
  CatalogueDir dir;
  const gw::GatewayOptions options = parsed({"--data", dir.root(), "--tls-self-signed"});
  gw::ServerConfig config;
  std::string error;
  ASSERT_TRUE(gw::serverConfig(options, gw::resolvePaths(options, "/"), &config, &error)) << error;
  EXPECT_EQ(config.tlsCert.compare(0, dir.root().size() + 5, dir.root() + "/tls/"), 0)
      << config.tlsCert;
  struct stat st;
  EXPECT_EQ(stat(config.tlsCert.c_str(), &st), 0);
  EXPECT_EQ(stat(config.tlsKey.c_str(), &st), 0);
}

class LoadAccessTableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    registry_.regReqProc("/sessions", new NoOp, true);
    registry_.regReqProc("/kestrel_task", new NoOp, true);
  }
  void TearDown() override {
    registry_.releaseAll();
    installAccessTable(nullptr);
  }
  CSpecifyProc registry_;
  CatalogueDir dir_;  // the working folder is its bin/, as the gateway's
};

TEST_F(LoadAccessTableTest, BuiltInWithoutAFile) {
  std::shared_ptr<const AccessTable> table;
  std::string error;
  ASSERT_TRUE(gw::loadAccessTable(gw::GatewayPaths(), registry_, &table, &error)) << error;
  ASSERT_NE(table, nullptr);
  EXPECT_TRUE(table->rule("/sessions", "POST").isPublic);
  EXPECT_EQ(installedAccessTable(), table);  // the host guards by it too
}

TEST_F(LoadAccessTableTest, TheFileBesideTheCataloguesElseTheNamedOne) {
  dir_.write("access.json",
             R"({"routes": [{"path": "/kestrel_task", "methods": ["GET"], "public": true}]})");
  std::shared_ptr<const AccessTable> table;
  std::string error;
  ASSERT_TRUE(gw::loadAccessTable(gw::GatewayPaths(), registry_, &table, &error)) << error;
  EXPECT_TRUE(table->rule("/kestrel_task", "GET").isPublic);
  EXPECT_FALSE(table->rule("/sessions", "POST").isPublic);  // not in this file: closed

  gw::GatewayPaths named;
  named.access = dir_.root() + "/missing.json";
  EXPECT_FALSE(gw::loadAccessTable(named, registry_, &table, &error));
  EXPECT_EQ(error.compare(0, 10, "--access: "), 0) << error;
}

// A level it does not know is a usage error (exit status 2); a log that
// cannot be opened a start-up failure (1).
TEST(OpenLogsTest, Refusals) {
  const struct {
    std::vector<std::string> args;
    int exitCode;
    const char* error;
  } cases[] = {
      {{"--log-level", "loud"},
       2,
       "--log-level wants trace, debug, info, warn, error or off, not 'loud'"},
      {{"--log", "/nonexistent/folder/trace.log"},
       1,
       "cannot open the log /nonexistent/folder/trace.log: No such file or directory"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0]);
    std::unique_ptr<gw::AccessLog> accessLog;
    int exitCode = 0;
    std::string error;
    const gw::GatewayOptions options = parsed(c.args);
    EXPECT_FALSE(gw::openLogs(options, gw::resolvePaths(options, "/"), &accessLog, &exitCode,
                              &error));
    EXPECT_EQ(exitCode, c.exitCode);
    EXPECT_EQ(error, c.error);
  }
}

TEST(EnterWorkDirTest, AHomeWithoutBinIsRefused) {
  gw::GatewayPaths paths;
  paths.home = "/nonexistent/nox";
  std::string error;
  EXPECT_FALSE(gw::enterWorkDir(paths, &error));
  EXPECT_NE(error.find("--home must name the folder that holds bin/, lib/ and conf/"),
            std::string::npos)
      << error;
}

// The monitor of /healthz reports the backend as its check sees it and the
// session store the process has (memory unless --state names another).
TEST(HealthMonitorSetupTest, ReportsTheBackendAndTheStore) {
  gw::ServiceCheck backend;
  backend.lastSeen = [] {
    Reachability seen;
    seen.seenAt = std::chrono::steady_clock::now();
    return seen;
  };
  std::unique_ptr<gw::HealthMonitor> monitor = gw::makeHealthMonitor(backend);
  Json::Value health(Json::objectValue);
  EXPECT_TRUE(monitor->report(health));
  EXPECT_EQ(health["backend"], "reachable");
  EXPECT_EQ(health["state"]["store"], "memory");
  EXPECT_EQ(monitor->sessionsOpen(), 0);
}

}  // namespace
