// The audit trail file (gateway/audit_log.cc): one JSON object per line with
// every member, escaped; whole lines from concurrent writers; a new file
// after a reopen.
#include "audit_log.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::string> linesOf(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

Json::Value parse(const std::string& line) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream in(line);
  EXPECT_TRUE(Json::parseFromStream(builder, in, &value, &errors)) << line << ": " << errors;
  return value;
}

AuditEvent sample() {
  AuditEvent e;
  e.event = audit::kLogin;
  e.outcome = audit::kFailure;
  e.user = "admin";
  e.scope = "4";
  e.client = "10.0.0.7";
  e.route = "/sessions";
  e.method = "POST";
  e.code = 0x03000010;
  e.requestId = "b41d";
  e.timeMs = 1795627200123LL;  // 2026-11-25T17:20:00.123Z
  return e;
}

class AuditLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(folder_), nullptr);
    path_ = std::string(folder_) + "/audit.log";
  }
  void TearDown() override {
    unlink(path_.c_str());
    unlink((path_ + ".1").c_str());
    rmdir(folder_);
  }
  char folder_[32] = "/tmp/nox-audit-XXXXXX";
  std::string path_;
};

TEST(AuditLineTest, EveryMemberInItsPlace) {
  EXPECT_EQ(gw::formatAuditLine(sample()),
            "{\"time\":\"2026-11-25T17:20:00.123Z\",\"requestId\":\"b41d\",\"event\":\"login\","
            "\"outcome\":\"failure\",\"user\":\"admin\",\"scope\":\"4\",\"client\":\"10.0.0.7\","
            "\"route\":\"/sessions\",\"method\":\"POST\",\"code\":50331664}");
  AuditEvent empty;
  EXPECT_EQ(gw::formatAuditLine(empty),
            "{\"time\":\"1970-01-01T00:00:00.000Z\",\"requestId\":\"\",\"event\":\"\","
            "\"outcome\":\"\",\"user\":\"\",\"scope\":\"\",\"client\":\"\",\"route\":\"\","
            "\"method\":\"\",\"code\":0}");
}

// A user name is the client's choice: it may hold a line feed, quotes that
// try to add a member, controls and bytes that are not UTF-8.
TEST(AuditLineTest, WhatAClientSentCannotEndTheLineOrAddAMember) {
  AuditEvent e = sample();
  e.user =
      "x\n{\"time\":\"2026\",\"event\":\"login\",\"outcome\":\"success\"}\",\"code\":0,\"u\":\"";
  e.scope = "\r\x1b[2J\x7f";
  e.route = "/a\xff\xc3";
  const std::string line = gw::formatAuditLine(e);
  EXPECT_EQ(line.find('\n'), std::string::npos);
  EXPECT_EQ(line.find('\r'), std::string::npos);
  EXPECT_EQ(line.find('\x1b'), std::string::npos);
  const Json::Value value = parse(line);
  EXPECT_EQ(value.getMemberNames().size(), 10u) << line;
  EXPECT_EQ(value["user"].asString(), e.user);
  EXPECT_EQ(value["scope"].asString(), e.scope);
  EXPECT_EQ(value["route"].asString(), "/a\xef\xbf\xbd\xef\xbf\xbd") << "U+FFFD for each bad byte";
  EXPECT_EQ(value["code"].asInt64(), 0x03000010);
  EXPECT_EQ(value["outcome"].asString(), "failure");
}

TEST_F(AuditLogTest, OneObjectPerLineInAPrivateFile) {
  std::shared_ptr<gw::AuditLog> log = gw::AuditLog::open(path_);
  ASSERT_NE(log, nullptr);
  AuditEvent e = sample();
  log->write(e);
  e.outcome = audit::kSuccess;
  e.code = 0;
  log->write(e);
  const std::vector<std::string> lines = linesOf(path_);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], gw::formatAuditLine(sample()));
  EXPECT_EQ(parse(lines[1])["outcome"].asString(), "success");
  struct stat st;
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(AuditLogTest, AppendsToWhatIsThere) {
  gw::AuditLog::open(path_)->write(sample());
  gw::AuditLog::open(path_)->write(sample());
  EXPECT_EQ(linesOf(path_).size(), 2u);
}

TEST_F(AuditLogTest, AFileThatCannotBeOpenedIsReported) {
  EXPECT_EQ(gw::AuditLog::open(std::string(folder_) + "/missing/audit.log"), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(AuditLogTest, ConcurrentLinesNeverMix) {
  std::shared_ptr<gw::AuditLog> log = gw::AuditLog::open(path_);
  ASSERT_NE(log, nullptr);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&log, t] {
      AuditEvent e = sample();
      e.user = std::string(2000, static_cast<char>('a' + t));
      for (int i = 0; i < 200; ++i) log->write(e);
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::vector<std::string> lines = linesOf(path_);
  ASSERT_EQ(lines.size(), 800u);
  for (const std::string& line : lines) {
    const std::string user = parse(line)["user"].asString();
    ASSERT_EQ(user.size(), 2000u);
    EXPECT_EQ(user.find_first_not_of(user[0]), std::string::npos);
  }
}

// logrotate renames the file, then sends SIGHUP: events up to the reopen go
// to the renamed file, events after it to a new file by the old name.
TEST_F(AuditLogTest, AfterARenameAndAReopenEventsGoToTheNewFile) {
  std::shared_ptr<gw::AuditLog> log = gw::AuditLog::open(path_);
  ASSERT_NE(log, nullptr);
  AuditEvent e = sample();
  e.user = "before";
  log->write(e);
  ASSERT_EQ(rename(path_.c_str(), (path_ + ".1").c_str()), 0);
  e.user = "moved";
  log->write(e);
  ASSERT_TRUE(log->reopen());
  e.user = "after";
  log->write(e);
  const std::vector<std::string> old = linesOf(path_ + ".1");
  const std::vector<std::string> fresh = linesOf(path_);
  ASSERT_EQ(old.size(), 2u);
  EXPECT_EQ(parse(old[0])["user"].asString(), "before");
  EXPECT_EQ(parse(old[1])["user"].asString(), "moved");
  ASSERT_EQ(fresh.size(), 1u);
  EXPECT_EQ(parse(fresh[0])["user"].asString(), "after");
}

TEST_F(AuditLogTest, AFailedReopenKeepsTheFileItHas) {
  std::shared_ptr<gw::AuditLog> log = gw::AuditLog::open(path_);
  ASSERT_NE(log, nullptr);
  ASSERT_EQ(rename(path_.c_str(), (path_ + ".1").c_str()), 0);
  ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);  // a folder where the file should be
  EXPECT_FALSE(log->reopen());
  EXPECT_EQ(errno, EISDIR);
  log->write(sample());
  EXPECT_EQ(linesOf(path_ + ".1").size(), 1u);
  rmdir(path_.c_str());
}

}  // namespace
