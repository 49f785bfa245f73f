// BackendTest: a fresh simulated backend in a temporary data folder for each
// test, with helpers that build and send one-record packages.
//
//   TEST_F(BackendTest, Something) {
//     CR3MPackageV3 reply;
//     EXPECT_EQ(send(proto::kAlarmCount, [](CR3MRecordV3&) {}, &reply), 0);
//     EXPECT_EQ(intCell(reply, 0, proto::kTagTotal), 120);
//   }
#ifndef NOX_TESTS_BACKEND_BACKEND_FIXTURE_H_
#define NOX_TESTS_BACKEND_BACKEND_FIXTURE_H_

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "backend_protocol.h"
#include "sim_backend.h"

// A temporary folder, removed with everything in it when destroyed.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Removes `path` and everything below it.
void removeTree(const std::string& path);
bool fileExists(const std::string& path);
// The names in folder `dir` (not "." and ".."), sorted.
std::vector<std::string> folderNames(const std::string& dir);
void writeText(const std::string& path, const std::string& bytes);

class BackendTest : public ::testing::Test {
 protected:
  using Fill = std::function<void(CR3MRecordV3&)>;

  void SetUp() override;
  void TearDown() override;

  // Opens the backend on dataDir() (again); fails the test when it cannot.
  void openBackend(const std::string& initPassword = "demo-Password-1");
  void closeBackend() { backend_.reset(); }
  std::string dataDir() const { return folder_.path() + "/data"; }

  // Sends one record of `command` (header word 13 unless given) filled by
  // `fill`, as user `user`. Returns the backend's code.
  long long send(uint32_t command, const Fill& fill, CR3MPackageV3* reply = nullptr,
                 const std::string& user = "admin", uint32_t word = proto::kWord);

  // The temporary path the backend names for a certificate or a CRL.
  std::string certTempPath();
  std::string crlImportPath();
  // Writes `bytes` where the backend says and asks it to check / save them.
  long long importCert(const std::string& bytes);
  long long importCrl(const std::string& bytes);
  long long checkCertAt(const std::string& path);
  long long saveCrlAt(const std::string& path);

  // Runs one SQL statement on the data folder's database from outside the
  // backend (a second connection), returning the first column of the first
  // row as text ("" when none).
  std::string sql(const std::string& statement);

  static long long intCell(CR3MPackageV3& package, size_t record, unsigned short tag);
  static std::string textCell(CR3MPackageV3& package, size_t record, unsigned short tag);

  TempFolder folder_;
  std::shared_ptr<SimulatedBackend> backend_;
};

#endif  // NOX_TESTS_BACKEND_BACKEND_FIXTURE_H_
