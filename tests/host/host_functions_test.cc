#include "host_functions.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tlv_backend.h"
#include "trace_capture.h"

namespace {

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/nox-host-XXXXXX";
    path_ = mkdtemp(tmpl);
  }
  ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace

TEST(WriteFileTest, WritesExactBytesAndReplaces) {
  TempDir dir;
  const std::string path = dir.path() + "/ca.pem";
  const std::string data("a\0b", 3);
  EXPECT_EQ(writeFile(path.c_str(), data.data(), 3), 3);
  EXPECT_EQ(readAll(path), data);
  EXPECT_EQ(writeFile(path.c_str(), "", 1), 1);  // one zero byte
  EXPECT_EQ(readAll(path), std::string(1, '\0'));
}

TEST(WriteFileTest, FailsWithNegativeResultAndLeavesNothing) {
  TempDir dir;
  const std::string path = dir.path() + "/missing/ca.pem";
  EXPECT_LT(writeFile(path.c_str(), "x", 1), 0);
  EXPECT_LT(writeFile(nullptr, "x", 1), 0);
  EXPECT_LT(writeFile("", "x", 1), 0);
  EXPECT_LT(writeFile((dir.path() + "/n").c_str(), nullptr, 3), 0);
  EXPECT_NE(access((dir.path() + "/n").c_str(), F_OK), 0);
}

// A failed write names the file, the step and the system's reason, so that
// a full or read-only disk can be told from a bad path.
TEST(WriteFileTest, FailureIsLoggedWithFileAndReason) {
  TempDir dir;
  const std::string path = dir.path() + "/missing/ca.pem";
  TraceCapture trace;
  EXPECT_LT(writeFile(path.c_str(), "x", 1), 0);
  EXPECT_TRUE(trace.has(TraceLevel::kError,
                        "cannot write " + path + " (open): No such file or directory"))
      << trace.dump();
}

// A link planted at the temporary name is not followed: nothing is written
// through it, and the file it points to keeps its bytes.
TEST(WriteFileTest, DoesNotFollowALinkAtItsTemporaryName) {
  TempDir dir;
  const std::string victim = dir.path() + "/victim";
  {
    std::ofstream out(victim);
    out << "keep";
  }
  const std::string path = dir.path() + "/ca.pem";
  const std::string temp = path + ".part." + std::to_string(getpid());
  ASSERT_EQ(symlink(victim.c_str(), temp.c_str()), 0);
  EXPECT_LT(writeFile(path.c_str(), "evil", 4), 0);
  std::ifstream in(victim);
  std::string kept;
  in >> kept;
  EXPECT_EQ(kept, "keep");
  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(WriteFileTest, NewFileIsPrivateUntilTheCallerChangesIt) {
  TempDir dir;
  const std::string path = dir.path() + "/x.crl";
  ASSERT_EQ(writeFile(path.c_str(), "abc", 3), 3);
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

// The upload seam: a backend that records what writeFile told it.
class UploadRecorder : public TlvBackend {
 public:
  long long handle(const TlvCall&, const CR3MPackageV3&, CR3MPackageV3&) override { return 0; }
  void uploadWritten(const std::string& path, const char* data, size_t length) override {
    told.emplace_back(path, std::string(data, length));
  }
  std::vector<std::pair<std::string, std::string>> told;
};

TEST(WriteFileTest, TellsTheInstalledBackendOfEveryFileItWrote) {
  TempDir dir;
  auto recorder = std::make_shared<UploadRecorder>();
  std::shared_ptr<TlvBackend> before = installTlvBackend(recorder);
  const std::string path = dir.path() + "/cert-1.upload";
  const std::string bytes("PEM\0DER", 7);
  ASSERT_EQ(writeFile(path.c_str(), bytes.data(), 7), 7);
  // A write that fails tells nothing: there is no file.
  const std::string nowhere = dir.path() + "/missing/cert-2.upload";
  EXPECT_EQ(writeFile(nowhere.c_str(), "x", 1), -1);
  installTlvBackend(before);
  ASSERT_EQ(recorder->told.size(), 1u);
  EXPECT_EQ(recorder->told[0].first, path);
  EXPECT_EQ(recorder->told[0].second, bytes);
  EXPECT_EQ(readAll(path), bytes) << "the local file is written all the same";
}

TEST(WriteFileTest, WritesWithoutABackendInstalled) {
  TempDir dir;
  std::shared_ptr<TlvBackend> before = installTlvBackend(nullptr);
  const std::string path = dir.path() + "/plain";
  EXPECT_EQ(writeFile(path.c_str(), "abc", 3), 3);
  installTlvBackend(before);
  EXPECT_EQ(readAll(path), "abc");
}

TEST(StrToLLTest, Table) {
  struct Case {
    const char* text;
    long long value;
  } cases[] = {
      {"42", 42},
      {"007", 7},
      {"-15", -15},
      {"+3", 3},
      {"  12", 12},
      {"12abc", 12},
      {"", 0},
      {"abc", 0},
      {"-", 0},
      {"999999999999999999", 999999999999999999LL},
      {"9223372036854775807", LLONG_MAX},
      {"9223372036854775808", LLONG_MAX},
      {"-9223372036854775808", LLONG_MIN},
      {"-99999999999999999999", LLONG_MIN},
      {"1700000000", 1700000000LL},
  };
  for (const Case& c : cases) EXPECT_EQ(strToLL(c.text), c.value) << "'" << c.text << "'";
}
