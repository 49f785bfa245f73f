// GET /metrics on the real gateway: what it counts after real requests, the
// text format as Prometheus's own checker reads it, and who may read it.
#include <gtest/gtest.h>
#include <httplib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <string>

#include "e2e_support.h"

namespace {

constexpr long long kErrRouteNotFound = 0x03000201;

class MetricsE2E : public LiveGatewayTest {};

TEST_F(MetricsE2E, CountsWhatHappenedInTheTextFormat) {
  const std::string token = login();
  ASSERT_FALSE(token.empty());
  ASSERT_EQ(client_->Get("/kestrel_task", auth(token))->status, 200);
  ASSERT_EQ(client_->Get("/kestrel_task", auth(token))->status, 200);
  ASSERT_EQ(client_->Get("/no/such/path", auth(token))->status, 404);
  Json::Value wrong;
  wrong["username"] = "apiuser";
  wrong["password"] = "wrong";
  wrong["scope"] = "4";
  ASSERT_EQ(client_->Post("/sessions", Json::FastWriter().write(wrong), "application/json")->status,
            401);
  // Not a certificate: the backend's check refuses it.
  httplib::MultipartFormDataItems items = {{"file", "not a certificate", "note.pem", "text/plain"}};
  ASSERT_EQ(client_->Post("/kestrel_cert/import_cert", auth(token), items)->status, 422);

  auto res = client_->Get("/metrics");
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200) << res->body;
  EXPECT_EQ(res->get_header_value("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
  const std::string text = "\n" + res->body;
  EXPECT_EQ(metricSample(text, "nox_http_requests_total{route=\"/kestrel_task\",status=\"200\"}"), 2) << text;
  EXPECT_EQ(metricSample(text, "nox_http_requests_total{route=\"/sessions\",status=\"401\"}"), 1);
  EXPECT_EQ(metricSample(text, "nox_http_requests_total{route=\"other\",status=\"404\"}"), 1);
  EXPECT_EQ(metricSample(text, "nox_http_request_duration_seconds_count{route=\"/kestrel_task\"}"), 2);
  EXPECT_EQ(metricSample(text, "nox_http_request_duration_seconds_bucket{route=\"/kestrel_task\",le=\"+Inf\"}"), 2);
  EXPECT_EQ(metricSample(text, "nox_uploads_refused_total{reason=\"refused_by_check\"}"), 1);
  EXPECT_EQ(metricSample(text, "nox_logins_failed_total"), 1);
  EXPECT_EQ(metricSample(text, "nox_logins_throttled_total"), 0);
  EXPECT_EQ(metricSample(text, "nox_sessions_open"), 1);
  EXPECT_GE(metricSample(text, "nox_backend_calls_total{command=\"0xE012C000\"}"), 2);  // task list
  EXPECT_EQ(metricSample(text, "nox_backend_failures_total{command=\"0xE0000049\"}"), 1);  // the refused check
  EXPECT_EQ(metricSample(text, "nox_operations_waiting"), 0);
  EXPECT_GE(metricSample(text, "nox_open_connections"), 1);  // this client's
  EXPECT_EQ(metricSample(text, "nox_connections_dropped_total"), 0);
  EXPECT_GT(metricSample(text, "process_resident_memory_bytes"), 1e6);
  EXPECT_GT(metricSample(text, "process_open_fds"), 3);

  // Prometheus's own checker reads it without a complaint.
  char path[] = "/tmp/nox-metrics-XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, res->body.data(), res->body.size()), static_cast<ssize_t>(res->body.size()));
  close(fd);
  const std::string command = std::string("promtool check metrics < ") + path + " 2>&1";
  FILE* p = popen(command.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::string said;
  char buf[512];
  while (fgets(buf, sizeof(buf), p) != nullptr) said += buf;
  const int status = pclose(p);
  unlink(path);
  EXPECT_EQ(status, 0) << "promtool check metrics (is Debian's prometheus installed?):\n" << said;
  EXPECT_EQ(said, "");
}

// Only the addresses --metrics-allow names may read the metrics; anyone
// else is told there is no such path.
TEST(MetricsAccessE2E, OtherAddressesGetNoSuchPath) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--metrics-allow", "10.0.0.0/8"})) << gateway.output();
  httplib::Client client("127.0.0.1", gateway.port());
  recordExchanges(client);
  expectEnvelope(client.Get("/metrics"), 404, kErrRouteNotFound);
  EXPECT_EQ(gateway.stop(), 0);
}

}  // namespace
