#include "command_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// A small program's options: a switch, a number, a text, an address.
struct Options {
  bool verbose = false;
  long long count = 0;
  std::string name;
  std::string host = "127.0.0.1";
  int port = 7070;
};

bool parse(const std::vector<std::string>& args, Options* options, std::string* error) {
  auto isSwitch = [options](const std::string& name) {
    if (name != "--verbose") return false;
    options->verbose = true;
    return true;
  };
  auto takeValue = [options](const CommandOption& option, std::string* why) {
    if (option.name == "--count") {
      return takeNumber(option, 1, 64, "a number", &options->count, why) ? kOptionTaken
                                                                        : kOptionRefused;
    }
    if (option.name == "--listen") {
      return takeHostPort(option, "127.0.0.1:7070", &options->host, &options->port, why)
                 ? kOptionTaken
                 : kOptionRefused;
    }
    if (option.name != "--name") return kOptionUnknown;
    options->name = option.value;
    return kOptionTaken;
  };
  return parseArguments(args, isSwitch, takeValue, error);
}

TEST(ParseArgumentsTest, SwitchesAndValuesInBothSpellings) {
  Options options;
  std::string error;
  ASSERT_TRUE(parse({"--verbose", "--count", "3", "--name=a=b", "--listen", "[::1]:0"}, &options,
                    &error))
      << error;
  EXPECT_TRUE(options.verbose);
  EXPECT_EQ(options.count, 3);
  EXPECT_EQ(options.name, "a=b");  // split at the first '='
  EXPECT_EQ(options.host, "::1");
  EXPECT_EQ(options.port, 0);
}

TEST(ParseArgumentsTest, Refusals) {
  const struct {
    std::vector<std::string> args;
    const char* error;
  } cases[] = {
      {{"--count", "65"}, "--count wants a number from 1 to 64, not '65'"},
      {{"--count=x"}, "--count wants a number from 1 to 64, not 'x'"},
      {{"--count"}, "option --count needs a value (see --help)"},
      {{"--listen", "7070"}, "--listen wants HOST:PORT, e.g. 127.0.0.1:7070, not '7070'"},
      {{"--what", "1"}, "unknown option --what (see --help)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0]);
    Options options;
    std::string error;
    EXPECT_FALSE(parse(c.args, &options, &error));
    EXPECT_EQ(error, c.error);
  }
}

// A switch ignores a value given after '=', as both programs always did:
// "--help=me" still prints the usage.
TEST(ParseArgumentsTest, SwitchWithAValueIsTheSwitch) {
  Options options;
  std::string error;
  ASSERT_TRUE(parse({"--verbose=no"}, &options, &error)) << error;
  EXPECT_TRUE(options.verbose);
}

TEST(OpenTraceLogTest, LevelAndFile) {
  int exitCode = 0;
  std::string error;
  EXPECT_FALSE(openTraceLog("chatty", "", &exitCode, &error));
  EXPECT_EQ(exitCode, 2);
  EXPECT_EQ(error, "--log-level wants trace, debug, info, warn, error or off, not 'chatty'");
  EXPECT_FALSE(openTraceLog("info", "/nonexistent/trace.log", &exitCode, &error));
  EXPECT_EQ(exitCode, 1);
  EXPECT_EQ(error, "cannot open the log /nonexistent/trace.log: No such file or directory");
  EXPECT_TRUE(openTraceLog("info", "", &exitCode, &error));
}

}  // namespace
