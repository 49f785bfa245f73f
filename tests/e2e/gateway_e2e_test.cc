// End-to-end tests of the gateway itself: the real nox-gateway with the real
// plug-in on a free loopback port. Each test stops the gateway it started and
// checks that SIGTERM ends it with status 0.
#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <string>

#include "e2e_support.h"
#include "gateway_process.h"

namespace {

constexpr long long kErrRouteNotFound = 0x03000201;
constexpr long long kErrMethodNotAllowed = 0x03000202;
constexpr long long kErrBodyTooLarge = 0x03000203;

TEST(GatewayE2E, HealthzAnswersWithoutSession) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start()) << gateway.output();
  httplib::Client client("127.0.0.1", gateway.port());
  recordExchanges(client);
  auto res = client.Get("/healthz");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(res->get_header_value("Content-Type"), "application/json");
  const Json::Value health = parseJson(res->body);
  EXPECT_EQ(health["status"].asString(), "ok");
  // The backend in process is always reachable.
  EXPECT_EQ(health["backend"].asString(), "reachable") << res->body;
  // The state store in use, and whether it answers.
  EXPECT_EQ(health["state"]["store"].asString(), "memory");
  EXPECT_TRUE(health["state"]["reachable"].asBool());
  expectEnvelope(client.Post("/healthz", "", "application/json"), 405, kErrMethodNotAllowed);
  EXPECT_EQ(gateway.stop(), 0);
  // One access line per request, without a user.
  EXPECT_NE(gateway.accessLog().find("GET /healthz 200 " + std::to_string(res->body.size()) + " "),
            std::string::npos)
      << gateway.accessLog();
}

TEST(GatewayE2E, UnknownPathIs404WithEnvelope) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start()) << gateway.output();
  httplib::Client client("127.0.0.1", gateway.port());
  recordExchanges(client);
  expectEnvelope(client.Get("/no/such/path"), 404, kErrRouteNotFound);
  expectEnvelope(client.Get("/session"), 404, kErrRouteNotFound);  // only "/sessions" exists
  expectEnvelope(client.Delete("/v1/kestrel_task"), 404, kErrRouteNotFound);
  EXPECT_EQ(gateway.stop(), 0);
}

TEST(GatewayE2E, BodyOverTheLimitIs413) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--max-body", "4096"})) << gateway.output();
  httplib::Client client("127.0.0.1", gateway.port());
  recordExchanges(client);
  const std::string big(4096 + 64 * 1024 + 1, 'x');
  expectEnvelope(client.Post("/sessions", big, "application/json"), 413, kErrBodyTooLarge);
  // A JSON body over the limit but within the multipart allowance is refused
  // by the gateway's own count, before any operation runs.
  expectEnvelope(client.Post("/sessions", "\"" + std::string(5000, 'y') + "\"", "application/json"),
                 413, kErrBodyTooLarge);
  // The server goes on serving.
  auto res = client.Get("/healthz");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(gateway.stop(), 0);
}

TEST(GatewayE2E, OpenApiDocumentIsServed) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start()) << gateway.output();
  httplib::Client client("127.0.0.1", gateway.port());
  recordExchanges(client);
  auto res = client.Get("/openapi.json");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  const Json::Value doc = parseJson(res->body);
  EXPECT_EQ(doc["openapi"].asString().substr(0, 2), "3.");
  for (const char* path :
       {"/healthz", "/openapi.json", "/sessions", "/login", "/kestrel_cert/import_cert",
        "/kestrel_hypervisor/import_cert", "/kestrel_cert/import_crl", "/alarm/historyalarm",
        "/alarm/historyalarm/count", "/v1/alarm/historyalarm", "/v1/alarm/historyalarm/count",
        "/kestrel_task", "/kestrel_task/{id}", "/kestrel_task/count",
        "/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf"}) {
    EXPECT_TRUE(doc["paths"].isMember(path)) << path;
  }
  EXPECT_EQ(gateway.stop(), 0);
}

// Opens a TLS connection capped at `maxVersion`; returns whether the
// handshake succeeded.
bool handshake(int port, int maxVersion) {
  SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_min_proto_version(ctx, TLS1_VERSION);
  SSL_CTX_set_max_proto_version(ctx, maxVersion);
  SSL_CTX_set_security_level(ctx, 0);  // let the client offer old versions
  BIO* bio = BIO_new_ssl_connect(ctx);
  BIO_set_conn_hostname(bio, ("127.0.0.1:" + std::to_string(port)).c_str());
  const bool ok = BIO_do_connect(bio) == 1 && BIO_do_handshake(bio) == 1;
  BIO_free_all(bio);
  SSL_CTX_free(ctx);
  ERR_clear_error();
  return ok;
}

TEST(GatewayE2E, HttpsWithSelfSignedPair) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--tls-self-signed"})) << gateway.output();
  httplib::SSLClient client("127.0.0.1", gateway.port());
  recordExchanges(client);
  // The client trusts exactly the certificate the gateway made.
  client.set_ca_cert_path((gateway.dataDir() + "/data/tls/gateway-selfsigned.crt").c_str());
  client.enable_server_certificate_verification(true);
  auto res = client.Get("/healthz");
  ASSERT_TRUE(res) << httplib::to_string(res.error());
  EXPECT_EQ(res->status, 200);
  expectEnvelope(client.Get("/nothing"), 404, kErrRouteNotFound);
  EXPECT_TRUE(handshake(gateway.port(), TLS1_2_VERSION));
  EXPECT_TRUE(handshake(gateway.port(), TLS1_3_VERSION));
  EXPECT_FALSE(handshake(gateway.port(), TLS1_1_VERSION));  // TLS 1.2 at least
  // Plain HTTP on the TLS port gets no answer.
  httplib::Client plain("127.0.0.1", gateway.port());
  recordExchanges(plain);
  plain.set_read_timeout(5);
  auto none = plain.Get("/healthz");
  EXPECT_TRUE(!none || none->status != 200);
  EXPECT_EQ(gateway.stop(), 0);
}

TEST(GatewayE2E, RefusesAPluginThatDoesNotLoad) {
  GatewayProcess gateway;
  const int status =
      gateway.runToExit({"--listen", "127.0.0.1:0", "--data", gateway.dataDir() + "/data",
                         "--plugin", gateway.dataDir() + "/missing.so"});
  EXPECT_EQ(status, 1);
  EXPECT_NE(gateway.output().find("cannot load the plug-in"), std::string::npos)
      << gateway.output();
  EXPECT_NE(gateway.output().find("rebuild libucore_nox against this gateway's include/"),
            std::string::npos);
  EXPECT_EQ(gateway.output().find("listening on"), std::string::npos);
}

TEST(GatewayE2E, RefusesAPluginWithoutTheEntry) {
  GatewayProcess gateway;
  // The host library loads fine but is no plug-in.
  const int status = gateway.runToExit(
      {"--listen", "127.0.0.1:0", "--data", gateway.dataDir() + "/data", "--plugin", NOX_HOST_LIB});
  EXPECT_EQ(status, 1);
  EXPECT_NE(gateway.output().find("does not export NOXRegisterOperations"), std::string::npos)
      << gateway.output();
  EXPECT_NE(gateway.output().find("rebuild libucore_nox against this gateway's include/"),
            std::string::npos);
}

TEST(GatewayE2E, RefusesBadOptions) {
  GatewayProcess gateway;
  EXPECT_EQ(gateway.runToExit({"--threads", "0"}), 2);
  EXPECT_NE(gateway.output().find("--threads"), std::string::npos);
  EXPECT_EQ(gateway.runToExit({"--help"}), 0);
}

}  // namespace
