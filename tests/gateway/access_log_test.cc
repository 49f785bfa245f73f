// The access log (gateway/access_log.cc): whatever a client puts in a path or
// a user name stays inside its field of its line; the file is opened again
// by its name after a rotation.
#include "access_log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(AccessLogEscapingTest, TextLinesEscapeControlsAndBytesThatAreNotUtf8) {
  const std::string forged = "2026-11-25T00:00:00.000Z 10.0.0.1 GET /x 200 0 0ms admin";
  gw::AccessRecord odd{"127.0.0.1", "GET", "/a\n" + forged, 404, 0, 1, "u\r\xff\x1b", "", ""};
  EXPECT_EQ(gw::formatAccess(odd),
            "127.0.0.1 GET /a\\n2026-11-25T00:00:00.000Z_10.0.0.1_GET_/x_200_0_0ms_admin 404 0 "
            "1ms u\\r\\xff\\x1b");
}

TEST(AccessLogEscapingTest, JsonLinesAreValidUtf8WithoutControls) {
  gw::AccessRecord odd{"127.0.0.1", "GET", "/a\xff\x7f", 404, 0, 1, "\xc2\x85", "", ""};
  const std::string line = gw::formatAccessJson(odd, "t");
  EXPECT_NE(line.find("\"path\":\"/a\\ufffd\\u007f\""), std::string::npos) << line;
  EXPECT_NE(line.find("\"user\":\"\\u0085\""), std::string::npos) << line;
}

TEST(AccessLogReopenTest, LinesAfterAReopenGoToTheNewFile) {
  char folder[] = "/tmp/nox-access-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::string path = std::string(folder) + "/access.log";
  std::unique_ptr<gw::AccessLog> log = gw::AccessLog::open(path);
  ASSERT_NE(log, nullptr);
  log->write({"127.0.0.1", "GET", "/before", 200, 0, 0, "", "", ""});
  ASSERT_EQ(rename(path.c_str(), (path + ".1").c_str()), 0);
  log->write({"127.0.0.1", "GET", "/moved", 200, 0, 0, "", "", ""});
  ASSERT_TRUE(log->reopen());
  log->write({"127.0.0.1", "GET", "/after", 200, 0, 0, "", "", ""});
  const std::string old = readFile(path + ".1");
  const std::string fresh = readFile(path);
  EXPECT_NE(old.find(" /before "), std::string::npos);
  EXPECT_NE(old.find(" /moved "), std::string::npos) << "until the reopen, the old file";
  EXPECT_EQ(old.find("/after"), std::string::npos);
  EXPECT_NE(fresh.find(" /after "), std::string::npos) << fresh;
  EXPECT_EQ(fresh.find("/before"), std::string::npos);
  unlink((path + ".1").c_str());
  unlink(path.c_str());
  rmdir(folder);
}

}  // namespace
