// The gateway's request metrics: counting, the text format, and who may
// read them.
#include "metrics.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "options.h"

namespace {

bool has(const std::string& text, const std::string& line) {
  return text.find(line + "\n") != std::string::npos;
}

TEST(MetricsTest, CountsAnswersByRouteAndStatusWithAHistogram) {
  gw::Metrics metrics({"/kestrel_task", "/sessions"});
  metrics.observe("/kestrel_task", 200, 0.0004);
  metrics.observe("/kestrel_task", 200, 0.003);
  metrics.observe("/kestrel_task", 404, 0.2);
  metrics.observe("/no/such/route", 404, 0.001);  // not a label given: "other"
  metrics.observe("/sessions", 418, 20.0);        // a status not counted alone, beyond every bucket
  const std::string text = metrics.render();
  EXPECT_TRUE(has(text, "nox_http_requests_total{route=\"/kestrel_task\",status=\"200\"} 2")) << text;
  EXPECT_TRUE(has(text, "nox_http_requests_total{route=\"/kestrel_task\",status=\"404\"} 1"));
  EXPECT_TRUE(has(text, "nox_http_requests_total{route=\"other\",status=\"404\"} 1"));
  EXPECT_TRUE(has(text, "nox_http_requests_total{route=\"/sessions\",status=\"other\"} 1"));
  // Cumulative buckets: 0.0004 <= 0.0005; 0.003 <= 0.005; 0.2 <= 0.25.
  EXPECT_TRUE(has(text, "nox_http_request_duration_seconds_bucket{route=\"/kestrel_task\",le=\"0.0005\"} 1"));
  EXPECT_TRUE(has(text, "nox_http_request_duration_seconds_bucket{route=\"/kestrel_task\",le=\"0.005\"} 2"))
      << text;
  EXPECT_TRUE(has(text, "nox_http_request_duration_seconds_bucket{route=\"/kestrel_task\",le=\"+Inf\"} 3"));
  EXPECT_TRUE(has(text, "nox_http_request_duration_seconds_count{route=\"/kestrel_task\"} 3"));
  EXPECT_TRUE(has(text, "nox_http_request_duration_seconds_bucket{route=\"/sessions\",le=\"10\"} 0"));
  EXPECT_TRUE(has(text, "nox_http_request_duration_seconds_bucket{route=\"/sessions\",le=\"+Inf\"} 1"));
  // Every metric has its HELP and TYPE lines once.
  for (const char* name : {"nox_http_requests_total", "nox_http_request_duration_seconds",
                           "nox_uploads_refused_total"}) {
    EXPECT_EQ(text.find(std::string("# TYPE ") + name + " "),
              text.rfind(std::string("# TYPE ") + name + " "));
    EXPECT_NE(text.find(std::string("# HELP ") + name + " "), std::string::npos);
  }
}

TEST(MetricsTest, CountsRefusedUploadsByReason) {
  gw::Metrics metrics({});
  metrics.uploadRefused("too_large");
  metrics.uploadRefused("too_large");
  metrics.uploadRefused("refused_by_check");
  metrics.uploadRefused("something new");
  const std::string text = metrics.render();
  EXPECT_TRUE(has(text, "nox_uploads_refused_total{reason=\"too_large\"} 2")) << text;
  EXPECT_TRUE(has(text, "nox_uploads_refused_total{reason=\"refused_by_check\"} 1"));
  EXPECT_TRUE(has(text, "nox_uploads_refused_total{reason=\"other\"} 1"));
  EXPECT_TRUE(has(text, "nox_uploads_refused_total{reason=\"no_file\"} 0"));
}

TEST(MetricsTest, ConcurrentCountsAddUp) {
  gw::Metrics metrics({"/r"});
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&metrics] {
      for (int i = 0; i < 10000; ++i) metrics.observe("/r", 200, 0.001);
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_TRUE(has(metrics.render(), "nox_http_requests_total{route=\"/r\",status=\"200\"} 40000"));
}

TEST(MetricsTest, TheTransportsCountsAreRendered) {
  gw::TransportCounts counts;
  counts.openConnections = 7;
  counts.refusedConnections = 3;
  counts.droppedConnections = 2;
  counts.waitingForWorker = 5;
  counts.busyWorkers = 4;
  const std::string text = gw::hostMetricsText(counts, 6);
  EXPECT_TRUE(has(text, "nox_open_connections 7")) << text;
  EXPECT_TRUE(has(text, "nox_sessions_open 6"));
  EXPECT_TRUE(has(text, "nox_connections_refused_total 3"));
  EXPECT_TRUE(has(text, "nox_connections_dropped_total 2"));
  EXPECT_TRUE(has(text, "nox_operations_waiting 5"));
  EXPECT_TRUE(has(text, "nox_workers_busy 4"));
  EXPECT_NE(text.find("# TYPE nox_connections_dropped_total counter\n"), std::string::npos);
}

// A session count the store could not give (-1) leaves the gauge out rather
// than report a number nobody counted.
TEST(MetricsTest, AnUncountedSessionGaugeIsLeftOut) {
  const std::string text = gw::hostMetricsText(gw::TransportCounts(), -1);
  EXPECT_FALSE(has(text, "nox_sessions_open")) << text;
  EXPECT_TRUE(has(text, "nox_open_connections 0")) << text;
}

TEST(MetricsTest, LabelValuesAreEscaped) {
  EXPECT_EQ(gw::prometheusLabel("a\"b\\c\nd"), "a\\\"b\\\\c\\nd");
}

TEST(MetricsTest, TheSentinelStoresPrimaryAndFailovers) {
  EXPECT_EQ(gw::stateStoreMetricsText("10.0.0.7:6379", 3),
            "# HELP nox_state_primary The session store's primary in use, found through Sentinel "
            "(1, by address).\n"
            "# TYPE nox_state_primary gauge\n"
            "nox_state_primary{address=\"10.0.0.7:6379\"} 1\n"
            "# HELP nox_state_failovers_total Times the sentinels named another primary than the "
            "one in use before.\n"
            "# TYPE nox_state_failovers_total counter\n"
            "nox_state_failovers_total 3\n");
  // While the sentinels are being asked there is no primary to name.
  EXPECT_EQ(gw::stateStoreMetricsText("", 0).find("nox_state_primary{"), std::string::npos);
}

TEST(MetricsAccessTest, AddressesAndRanges) {
  std::vector<gw::AddressRange> ranges;
  std::string error;
  ASSERT_TRUE(gw::parseAddressRanges("127.0.0.0/8,::1,10.1.2.0/23", &ranges, &error)) << error;
  struct Case {
    const char* address;
    bool allowed;
  } cases[] = {
      {"127.0.0.1", true},         {"127.255.0.9", true},        {"::1", true},
      {"::ffff:127.0.0.1", true},  // IPv4 client on an IPv6 socket
      {"10.1.3.200", true},        {"10.1.4.1", false},          {"128.0.0.1", false},
      {"::2", false},              {"not an address", false},    {"", false},
  };
  for (const Case& c : cases) EXPECT_EQ(gw::addressAllowed(ranges, c.address), c.allowed) << c.address;
  for (const char* bad : {"", "1.2.3", "10.0.0.0/33", "::1/129", "10.0.0.0/", "10.0.0.0/x"}) {
    EXPECT_FALSE(gw::parseAddressRanges(bad, &ranges, &error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
}

TEST(MetricsAccessTest, OptionDefaultsToLoopbackAndRefusesBadRanges) {
  gw::GatewayOptions options;
  std::string error;
  ASSERT_TRUE(gw::parseOptions({}, &options, &error)) << error;
  EXPECT_EQ(options.metricsAllow, "127.0.0.0/8,::1");
  ASSERT_TRUE(gw::parseOptions({"--metrics-allow", "10.0.0.0/8"}, &options, &error)) << error;
  EXPECT_EQ(options.metricsAllow, "10.0.0.0/8");
  EXPECT_FALSE(gw::parseOptions({"--metrics-allow", "everyone"}, &options, &error));
  EXPECT_NE(error.find("--metrics-allow"), std::string::npos) << error;
}

}  // namespace
