// nox-backend's command line.
#include "service_options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(ServiceOptionsTest, DefaultsServeLoopback) {
  BackendServiceOptions options;
  std::string error;
  ASSERT_TRUE(parseServiceOptions({}, &options, &error)) << error;
  EXPECT_EQ(options.listenHost, "127.0.0.1");
  EXPECT_EQ(options.listenPort, 7070);
  EXPECT_EQ(options.maxConnections, 256);
  EXPECT_TRUE(options.dataDir.empty());
}

TEST(ServiceOptionsTest, ValuesInBothSpellings) {
  BackendServiceOptions options;
  std::string error;
  ASSERT_TRUE(parseServiceOptions({"--listen", "[::1]:0", "--data=d", "--init-password", "pw",
                                   "--log", "b.log", "--log-level=debug", "--max-connections",
                                   "8", "--home", "/opt/nox"},
                                  &options, &error))
      << error;
  EXPECT_EQ(options.listenHost, "::1");
  EXPECT_EQ(options.listenPort, 0);
  EXPECT_EQ(options.dataDir, "d");
  EXPECT_EQ(options.initPassword, "pw");
  EXPECT_EQ(options.log, "b.log");
  EXPECT_EQ(options.logLevel, "debug");
  EXPECT_EQ(options.maxConnections, 8);
  EXPECT_EQ(options.home, "/opt/nox");
}

TEST(ServiceOptionsTest, BadValuesAreRefusedWithTheirReason) {
  struct Case {
    std::vector<std::string> args;
    const char* error;
  } cases[] = {
      {{"--listen", "7070"}, "--listen wants HOST:PORT, e.g. 127.0.0.1:7070, not '7070'"},
      {{"--listen", "h:65536"}, "--listen wants HOST:PORT, e.g. 127.0.0.1:7070, not 'h:65536'"},
      {{"--max-connections", "0"}, "--max-connections wants a number from 1 to 4096, not '0'"},
      {{"--data"}, "option --data needs a value (see --help)"},
      {{"--threads", "4"}, "unknown option --threads (see --help)"},  // a gateway option
  };
  for (const Case& c : cases) {
    BackendServiceOptions options;
    std::string error;
    EXPECT_FALSE(parseServiceOptions(c.args, &options, &error)) << c.error;
    EXPECT_EQ(error, c.error);
  }
}

TEST(ServiceOptionsTest, HelpAndVersion) {
  BackendServiceOptions options;
  std::string error;
  ASSERT_TRUE(parseServiceOptions({"--help", "--version"}, &options, &error));
  EXPECT_TRUE(options.help);
  EXPECT_TRUE(options.version);
  EXPECT_NE(serviceUsageText().find("--listen HOST:PORT"), std::string::npos);
}

}  // namespace
