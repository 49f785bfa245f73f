// The gateway's command line and access log line.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "access_log.h"
#include "options.h"

namespace {

TEST(GatewayOptionsTest, Defaults) {
  gw::GatewayOptions options;
  std::string error;
  ASSERT_TRUE(gw::parseOptions({}, &options, &error));
  EXPECT_EQ(options.server.host, "127.0.0.1");
  EXPECT_EQ(options.server.port, 8080);
  EXPECT_EQ(options.threads, 0);  // eight per core
  EXPECT_EQ(options.server.maxBody, 2u * 1024 * 1024);
  EXPECT_FALSE(options.exposeVerifyCode);  // off unless asked for
  EXPECT_FALSE(options.tlsSelfSigned);
}

TEST(GatewayOptionsTest, BackendAddress) {
  gw::GatewayOptions options;
  std::string error;
  EXPECT_TRUE(options.backend.empty());  // the backend in process unless asked for
  ASSERT_TRUE(gw::parseOptions({"--backend", "tcp://10.0.5.10:7070"}, &options, &error)) << error;
  EXPECT_EQ(options.backend, "tcp://10.0.5.10:7070");
  ASSERT_TRUE(gw::parseOptions({"--backend=tcp://[::1]:7070"}, &options, &error)) << error;
  for (const char* bad : {"10.0.5.10:7070", "tcp://10.0.5.10", "tcp://10.0.5.10:0",
                          "http://10.0.5.10:7070", "tcp://:7070"}) {
    gw::GatewayOptions other;
    EXPECT_FALSE(gw::parseOptions({"--backend", bad}, &other, &error)) << bad;
    EXPECT_EQ(error, std::string("--backend wants tcp://HOST:PORT, not '") + bad + "'");
  }
}

TEST(GatewayOptionsTest, StateAddresses) {
  gw::GatewayOptions options;
  std::string error;
  EXPECT_EQ(options.stateWaitMs, 1000);  // a login waits up to a second for a replica
  ASSERT_TRUE(gw::parseOptions({"--state", "redis-sentinel://pw@10.0.0.6:26379,10.0.0.7:26379/nox",
                                "--state-wait-ms", "0"},
                               &options, &error))
      << error;
  EXPECT_EQ(options.state, "redis-sentinel://pw@10.0.0.6:26379,10.0.0.7:26379/nox");
  EXPECT_EQ(options.stateWaitMs, 0);
  ASSERT_TRUE(gw::parseOptions({"--state", "redis://10.0.0.5:6379/2"}, &options, &error)) << error;
  EXPECT_EQ(options.state, "redis://10.0.0.5:6379/2");
  gw::GatewayOptions other;
  EXPECT_FALSE(gw::parseOptions({"--state", "sentinel://h:1/nox"}, &other, &error));
  EXPECT_EQ(error,
            "--state wants memory, redis://[[USER]:PASSWORD@]HOST[:PORT][/DB] or "
            "redis-sentinel://[PASSWORD@]HOST:PORT[,HOST:PORT...]/MASTER, not 'sentinel://h:1/nox'");
  EXPECT_FALSE(gw::parseOptions({"--state-wait-ms", "-1"}, &other, &error));
  EXPECT_NE(gw::usageText().find("--state-wait-ms MS      with redis-sentinel://"),
            std::string::npos);
}

TEST(GatewayOptionsTest, ValuesInBothSpellings) {
  gw::GatewayOptions options;
  std::string error;
  ASSERT_TRUE(
      gw::parseOptions({"--listen", "0.0.0.0:0", "--threads=3", "--max-body", "4096", "--data", "d",
                        "--init-password", "pw", "--expose-verify-code", "--tls-self-signed",
                        "--session-idle", "60", "--log-level", "debug"},
                       &options, &error))
      << error;
  EXPECT_EQ(options.server.host, "0.0.0.0");
  EXPECT_EQ(options.server.port, 0);
  EXPECT_EQ(options.threads, 3);
  EXPECT_EQ(options.server.maxBody, 4096u);
  EXPECT_EQ(options.dataDir, "d");
  EXPECT_EQ(options.initPassword, "pw");
  EXPECT_TRUE(options.exposeVerifyCode);
  EXPECT_TRUE(options.tlsSelfSigned);
  EXPECT_EQ(options.sessionIdle, 60);
  EXPECT_EQ(options.logLevel, "debug");
}

TEST(GatewayOptionsTest, Refusals) {
  const std::vector<std::vector<std::string>> bad = {
      {"--threads", "0"},                                          // below the range
      {"--threads", "x"},                                          // not a number
      {"--listen", "8080"},                                        // no host
      {"--listen", "127.0.0.1:65536"},                             // port out of range
      {"--max-body", "10"},                                        // below 1024
      {"--tls-cert", "c.pem"},                                     // key missing
      {"--tls-self-signed", "--tls-cert", "c", "--tls-key", "k"},  // both kinds of TLS
      {"--data"},                                                  // value missing
      {"--what"},                                                  // unknown
  };
  for (const auto& args : bad) {
    gw::GatewayOptions options;
    std::string error;
    EXPECT_FALSE(gw::parseOptions(args, &options, &error)) << args[0];
    EXPECT_FALSE(error.empty());
  }
}

// --read-timeout bounds the wait for a client that stopped sending; tests
// set it low so that a stalled upload ends in a second.
TEST(GatewayOptionsTest, ReadTimeout) {
  gw::GatewayOptions options;
  std::string error;
  ASSERT_TRUE(gw::parseOptions({}, &options, &error));
  EXPECT_EQ(options.server.readTimeout, 30);
  ASSERT_TRUE(gw::parseOptions({"--read-timeout", "2"}, &options, &error)) << error;
  EXPECT_EQ(options.server.readTimeout, 2);
  for (const char* bad : {"0", "3601", "x"}) {
    EXPECT_FALSE(gw::parseOptions({"--read-timeout", bad}, &options, &error)) << bad;
    EXPECT_EQ(error, std::string("--read-timeout wants seconds from 1 to 3600, not '") + bad + "'");
  }
}

// --verify-code-lifetime shortens or lengthens the GET /login challenge's
// life (tests of its expiry, special sites); 0 keeps the store's default.
TEST(GatewayOptionsTest, VerifyCodeLifetime) {
  gw::GatewayOptions options;
  std::string error;
  ASSERT_TRUE(gw::parseOptions({}, &options, &error));
  EXPECT_EQ(options.verifyCodeLifetime, 0);
  ASSERT_TRUE(gw::parseOptions({"--verify-code-lifetime", "2"}, &options, &error)) << error;
  EXPECT_EQ(options.verifyCodeLifetime, 2);
  ASSERT_TRUE(gw::parseOptions({"--verify-code-lifetime=3600"}, &options, &error)) << error;
  EXPECT_EQ(options.verifyCodeLifetime, 3600);
  for (const char* bad : {"0", "3601", "2m"}) {
    EXPECT_FALSE(gw::parseOptions({"--verify-code-lifetime", bad}, &options, &error)) << bad;
    EXPECT_EQ(error, std::string("--verify-code-lifetime wants seconds from 1 to 3600, not '") +
                         bad + "'");
  }
  EXPECT_NE(gw::usageText().find("--verify-code-lifetime SECONDS  how long a GET /login "
                                 "challenge lives (default 120;"),
            std::string::npos);
}

// --hsts-max-age sets the Strict-Transport-Security max-age sent over HTTPS:
// one year unless told, 0 for no header at all.
TEST(GatewayOptionsTest, HstsMaxAge) {
  gw::GatewayOptions options;
  std::string error;
  ASSERT_TRUE(gw::parseOptions({}, &options, &error));
  EXPECT_EQ(options.server.hstsMaxAge, 31536000);
  ASSERT_TRUE(gw::parseOptions({"--hsts-max-age", "0"}, &options, &error)) << error;
  EXPECT_EQ(options.server.hstsMaxAge, 0);
  ASSERT_TRUE(gw::parseOptions({"--hsts-max-age=600"}, &options, &error)) << error;
  EXPECT_EQ(options.server.hstsMaxAge, 600);
  for (const char* bad : {"-1", "315360001", "1y"}) {
    EXPECT_FALSE(gw::parseOptions({"--hsts-max-age", bad}, &options, &error)) << bad;
    EXPECT_EQ(error,
              std::string("--hsts-max-age wants seconds from 0 to 315360000, not '") + bad + "'");
  }
}

// The server's threads, time-outs and limits: their defaults, both
// spellings, and one refusal text each with its range.
// --trusted-proxies names the proxies whose X-Forwarded-For is believed;
// none by default.
TEST(GatewayOptionsTest, TrustedProxies) {
  gw::GatewayOptions options;
  std::string error;
  ASSERT_TRUE(gw::parseOptions({}, &options, &error)) << error;
  EXPECT_TRUE(options.server.trustedProxies.empty());
  ASSERT_TRUE(gw::parseOptions({"--trusted-proxies", "10.0.0.0/8,::1"}, &options, &error))
      << error;
  ASSERT_EQ(options.server.trustedProxies.size(), 2u);
  EXPECT_TRUE(gw::addressAllowed(options.server.trustedProxies, "10.1.2.3"));
  EXPECT_TRUE(gw::addressAllowed(options.server.trustedProxies, "::1"));
  EXPECT_FALSE(gw::addressAllowed(options.server.trustedProxies, "192.168.0.1"));
  EXPECT_FALSE(gw::parseOptions({"--trusted-proxies", "nginx"}, &options, &error));
  EXPECT_EQ(error,
            "--trusted-proxies wants addresses or ranges like 10.0.0.0/8,::1: 'nginx' is no IPv4 "
            "or IPv6 address");
}

TEST(GatewayOptionsTest, TransportSettings) {
  gw::GatewayOptions options;
  std::string error;
  ASSERT_TRUE(gw::parseOptions({}, &options, &error));
  EXPECT_EQ(options.server.ioThreads, 0);  // one per core
  EXPECT_EQ(options.threads, 0);    // eight per core
  EXPECT_EQ(options.server.queueLimit, 1024u);
  EXPECT_EQ(options.server.headerTimeout, 10);
  EXPECT_EQ(options.server.minBodyRate, 1024u);
  EXPECT_EQ(options.server.keepAliveTimeout, 5);
  EXPECT_EQ(options.server.writeTimeout, 30);
  EXPECT_EQ(options.server.maxConnections, 10000u);
  EXPECT_EQ(options.server.maxHeaderBytes, 8192u);
  EXPECT_EQ(options.server.maxHeaders, 100u);
  EXPECT_EQ(options.server.drainTimeout, 30);
  ASSERT_TRUE(gw::parseOptions({"--io-threads=2", "--threads", "16", "--queue", "0",
                                "--header-timeout", "3", "--min-body-rate", "0",
                                "--keep-alive-timeout=60", "--write-timeout", "7",
                                "--max-connections", "20000", "--max-header-bytes", "16384",
                                "--max-headers", "50", "--drain-timeout", "0"},
                               &options, &error))
      << error;
  EXPECT_EQ(options.server.ioThreads, 2);
  EXPECT_EQ(options.threads, 16);
  EXPECT_EQ(options.server.queueLimit, 0u);
  EXPECT_EQ(options.server.headerTimeout, 3);
  EXPECT_EQ(options.server.minBodyRate, 0u);
  EXPECT_EQ(options.server.keepAliveTimeout, 60);
  EXPECT_EQ(options.server.writeTimeout, 7);
  EXPECT_EQ(options.server.maxConnections, 20000u);
  EXPECT_EQ(options.server.maxHeaderBytes, 16384u);
  EXPECT_EQ(options.server.maxHeaders, 50u);
  EXPECT_EQ(options.server.drainTimeout, 0);
  const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
      {{"--io-threads", "0"}, "--io-threads wants a number from 1 to 256, not '0'"},
      {{"--threads", "1025"}, "--threads wants a number from 1 to 1024, not '1025'"},
      {{"--header-timeout", "0"}, "--header-timeout wants seconds from 1 to 3600, not '0'"},
      {{"--max-header-bytes", "100"},
       "--max-header-bytes wants a number of bytes from 1024 to 1048576, not '100'"},
      {{"--min-body-rate", "fast"},
       "--min-body-rate wants bytes per second from 0 to 1073741824, not 'fast'"},
      {{"--max-active", "16"}, "unknown option --max-active (see --help)"},
  };
  for (const auto& row : refused) {
    EXPECT_FALSE(gw::parseOptions(row.first, &options, &error)) << row.first[0];
    EXPECT_EQ(error, row.second);
  }
}

TEST(GatewayOptionsTest, HostPort) {
  std::string host;
  int port = 0;
  ASSERT_TRUE(gw::parseHostPort("[::1]:8443", &host, &port));
  EXPECT_EQ(host, "::1");
  EXPECT_EQ(port, 8443);
  EXPECT_FALSE(gw::parseHostPort(":80", &host, &port));
  EXPECT_FALSE(gw::parseHostPort("h:", &host, &port));
}

TEST(GatewayOptionsTest, AuditLogIsOffUnlessNamed) {
  gw::GatewayOptions options;
  std::string error;
  ASSERT_TRUE(gw::parseOptions({}, &options, &error));
  EXPECT_EQ(options.auditLog, "");
  ASSERT_TRUE(gw::parseOptions({"--audit-log", "/var/log/nox-gateway/audit.log"}, &options, &error));
  EXPECT_EQ(options.auditLog, "/var/log/nox-gateway/audit.log");
  EXPECT_NE(gw::usageText().find("--audit-log FILE"), std::string::npos);
}

TEST(AccessLogTest, LineFormat) {
  gw::AccessRecord record{"127.0.0.1", "GET", "/healthz", 200, 15, 0, "", "", "r1"};
  EXPECT_EQ(gw::formatAccess(record), "127.0.0.1 GET /healthz 200 15 0ms -");
  // A client cannot break the line or fake a field.
  gw::AccessRecord odd{"127.0.0.1", "GET", "/a b\nforged 200", 404, 0, 12, "u ser", "", ""};
  EXPECT_EQ(gw::formatAccess(odd), "127.0.0.1 GET /a_b\\nforged_200 404 0 12ms u_ser");
}

// One object per line, every field present; what a client sent is escaped,
// never able to end the line or add a member.
TEST(AccessLogTest, JsonLineFormat) {
  gw::AccessRecord record{"127.0.0.1", "GET", "/kestrel_task", 200, 5120, 3, "apiuser", "9f2c", "b41d"};
  EXPECT_EQ(gw::formatAccessJson(record, "2026-11-21T22:10:01.042Z"),
            "{\"bytes\":5120,\"client\":\"127.0.0.1\",\"method\":\"GET\",\"ms\":3,"
            "\"path\":\"/kestrel_task\",\"requestId\":\"b41d\",\"session\":\"9f2c\","
            "\"status\":200,\"time\":\"2026-11-21T22:10:01.042Z\",\"user\":\"apiuser\"}");
  gw::AccessRecord odd{"127.0.0.1", "GET", "/a\"b\n\",\"user\":\"root", 404, 0, 1, "", "", ""};
  const std::string line = gw::formatAccessJson(odd, "t");
  EXPECT_EQ(line.find('\n'), std::string::npos);
  EXPECT_NE(line.find("\"path\":\"/a\\\"b\\n\\\",\\\"user\\\":\\\"root\""), std::string::npos) << line;
  EXPECT_NE(line.find("\"user\":\"\""), std::string::npos) << line;
}

}  // namespace
