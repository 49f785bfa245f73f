// The data folder: creation, seeding on first start, and everything kept
// across a restart.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>

#include <atomic>
#include <cctype>
#include <thread>
#include <vector>

#include "backend_fixture.h"
#include "data_folder.h"
#include "test_pki.h"

namespace {

class StoreTest : public BackendTest {
 protected:
  long long loginCode(const std::string& name, const std::string& password,
                      const std::string& scope) {
    return send(proto::kLogin, [&](CR3MRecordV3& r) {
      r[proto::kTagUserName].setString(proto::kTagUserName, name);
      r[proto::kTagPassword].setString(proto::kTagPassword, password);
      r[proto::kTagScope].setString(proto::kTagScope, scope);
    });
  }
};

unsigned modeOf(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 0777;
}

TEST_F(StoreTest, FirstStartCreatesThePrivateFolderLayout) {
  EXPECT_TRUE(backend_->firstStart());
  EXPECT_EQ(backend_->demoPassword(), "demo-Password-1");
  for (const char* sub : {"", "/tmp", "/ca", "/crl", "/crl/incoming"}) {
    EXPECT_EQ(modeOf(dataDir() + sub), 0700u) << sub;
  }
  EXPECT_EQ(modeOf(dataDir() + "/nox.db"), 0600u);
  EXPECT_EQ(sql("PRAGMA journal_mode"), "wal");
}

TEST_F(StoreTest, SeedHasTheDemoData) {
  EXPECT_GE(std::stoi(sql("SELECT COUNT(*) FROM tasks")), 20);
  EXPECT_EQ(sql("SELECT COUNT(DISTINCT status) FROM tasks"), "6");
  EXPECT_EQ(sql("SELECT COUNT(DISTINCT type) FROM tasks"), "4");
  EXPECT_EQ(sql("SELECT COUNT(*) FROM tasks WHERE status = 5 AND error_info = ''"), "0");
  // Every other task carries the object the backend sends for no error.
  EXPECT_EQ(sql("SELECT COUNT(*) FROM tasks WHERE status <> 5 AND "
                "json_extract(error_info, '$.code') <> '0'"),
            "0");
  EXPECT_GE(std::stoi(sql("SELECT COUNT(*) FROM alarms")), 100);
  EXPECT_EQ(sql("SELECT COUNT(DISTINCT severity) FROM alarms"), "4");
  EXPECT_NE(sql("SELECT COUNT(*) FROM alarms WHERE clear_time > 0"), "0");
  const long long now = time(nullptr);
  EXPECT_GE(std::stoll(sql("SELECT MIN(occur_time) FROM alarms")), now - 31 * 86400);
  EXPECT_LE(std::stoll(sql("SELECT MAX(occur_time) FROM alarms")), now);
  EXPECT_GE(std::stoll(sql("SELECT MAX(occur_time) - MIN(occur_time) FROM alarms")), 25 * 86400);
  EXPECT_EQ(sql("SELECT COUNT(*) FROM storage_conf"), "1");
}

TEST_F(StoreTest, GeneratedPasswordIsSixteenUrlSafeCharacters) {
  closeBackend();
  removeTree(dataDir());
  openBackend("");
  const std::string password = backend_->demoPassword();
  ASSERT_EQ(password.size(), 16u);
  for (char c : password) {
    EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_') << password;
  }
  EXPECT_EQ(loginCode("admin", password, "0"), 0);
  closeBackend();
  removeTree(dataDir());
  openBackend("");
  EXPECT_NE(backend_->demoPassword(), password) << "generated anew, not a constant";
}

TEST_F(StoreTest, NothingIsLostAcrossARestart) {
  const TestCert ca = makeCert(CertProfile());
  ASSERT_EQ(importCert(ca.pem()), 0);
  ASSERT_EQ(send(proto::kImportEvent,
                 [](CR3MRecordV3& r) {
                   r[0].setUInt32(0, 2);
                   r[1].setUInt32(1, 100);
                   r[3].setUInt32(3, 0);
                 }),
            0);
  const std::string taskDetail = sql("SELECT detail FROM tasks WHERE id = '1003'");
  const std::string alarmTimes = sql("SELECT group_concat(occur_time) FROM alarms");

  // The second start ignores a new initial password: the users exist.
  openBackend("another-password");
  EXPECT_FALSE(backend_->firstStart());
  EXPECT_EQ(backend_->demoPassword(), "");
  EXPECT_EQ(loginCode("admin", "demo-Password-1", "0"), 0);
  EXPECT_EQ(loginCode("admin", "another-password", "0"), proto::kErrLoginFailed);
  EXPECT_EQ(sql("SELECT COUNT(*) FROM import_events"), "1");
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ca_certificates"), "1");
  EXPECT_EQ(sql("SELECT detail FROM tasks WHERE id = '1003'"), taskDetail);
  EXPECT_EQ(sql("SELECT group_concat(occur_time) FROM alarms"), alarmTimes);
  EXPECT_EQ(sql("SELECT COUNT(*) FROM users"), "3");
  // The CA imported before the restart still vouches for its CRLs.
  EXPECT_EQ(importCrl(makeCrl(ca, 86400, {4})), 0);
  openBackend();
  EXPECT_EQ(sql("SELECT COUNT(*) FROM crls"), "1");
  EXPECT_TRUE(fileExists(sql("SELECT file FROM crls")));
}

TEST_F(StoreTest, LeftoverUploadsAreClearedAtStart) {
  const std::string cert = certTempPath();
  const std::string crl = crlImportPath();
  writeText(cert, "left behind");
  writeText(crl, "left behind");
  openBackend();
  EXPECT_FALSE(fileExists(cert));
  EXPECT_FALSE(fileExists(crl));
}

TEST_F(StoreTest, HalfWrittenFilesAreClearedAtStartAndImportsKept) {
  const TestCert ca = makeCert(CertProfile());
  ASSERT_EQ(importCert(ca.pem()), 0);
  const std::string kept = sql("SELECT file FROM ca_certificates");
  // What a crash between the write and the rename leaves behind.
  writeText(kept + ".0123456789abcdef.new", "half a certificate");
  writeText(dataDir() + "/crl/0011.crl.fedcba9876543210.new", "half a CRL");
  openBackend();
  const std::string name = kept.substr(kept.rfind('/') + 1);
  EXPECT_EQ(folderNames(dataDir() + "/ca"), std::vector<std::string>({name}));
  EXPECT_EQ(folderNames(dataDir() + "/crl"), std::vector<std::string>({"incoming"}));
}

TEST_F(StoreTest, ACertificateImportedAgainKeepsItsFile) {
  const std::string pem = makeCert(CertProfile()).pem();
  ASSERT_EQ(importCert(pem), 0);
  const std::string file = sql("SELECT file FROM ca_certificates");
  struct stat before;
  ASSERT_EQ(stat(file.c_str(), &before), 0);
  ASSERT_EQ(importCert(pem), 0);
  struct stat after;
  ASSERT_EQ(stat(file.c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino) << "the same bytes are not written again";
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ca_certificates"), "1");
  // A file that no longer holds the certificate is written anew.
  writeText(file, "damaged");
  ASSERT_EQ(importCert(pem), 0);
  std::string bytes;
  ASSERT_EQ(readUpload(file, &bytes), ReadResult::kOk);
  EXPECT_NE(bytes, "damaged");
  EXPECT_NE(bytes.find("BEGIN CERTIFICATE"), std::string::npos);
}

TEST_F(StoreTest, ImportingTheSameCertificateAtOnceKeepsOneFile) {
  const std::string pem = makeCert(CertProfile()).pem();
  std::vector<std::thread> threads;
  std::atomic<int> failed{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      if (importCert(pem) != 0) ++failed;
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(failed.load(), 0);
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ca_certificates"), "1");
  EXPECT_EQ(folderNames(dataDir() + "/ca").size(), 1u);
}

TEST_F(StoreTest, UnusableFolderIsReported) {
  const std::string file = folder_.path() + "/plain-file";
  writeText(file, "x");
  SimBackendOptions options;
  options.dataDir = file;
  std::string error;
  EXPECT_EQ(SimulatedBackend::open(options, &error), nullptr);
  EXPECT_FALSE(error.empty());
  options.dataDir = "";
  error.clear();
  EXPECT_EQ(SimulatedBackend::open(options, &error), nullptr);
  EXPECT_FALSE(error.empty());
}

TEST_F(StoreTest, NestedFolderIsCreated) {
  SimBackendOptions options;
  options.dataDir = folder_.path() + "/a/b/c";
  options.initPassword = "x";
  std::string error;
  auto other = SimulatedBackend::open(options, &error);
  ASSERT_NE(other, nullptr) << error;
  EXPECT_TRUE(other->firstStart());
  EXPECT_EQ(modeOf(options.dataDir), 0700u);
}

}  // namespace
