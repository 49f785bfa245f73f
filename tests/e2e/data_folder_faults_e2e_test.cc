// End-to-end: the backend's data folder on a small tmpfs that fills up or is
// remounted read-only under a running gateway. Root runs the tests here and
// in CI, so file modes would not stop a write; a real file system does. The
// tests are skipped, saying why, where mounting is not permitted.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "e2e_support.h"
#include "test_pki.h"

namespace {

constexpr long long kErrStorage = 0x03000020;
constexpr long long kErrWriteFailed = 1000005;

bool logHas(const GatewayProcess& gateway, const std::string& text) {
  return gateway.traceLog().find(text) != std::string::npos;
}

class DataFolderFaultsE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    mountPoint_ = gateway_.dataDir() + "/mnt";
    ASSERT_EQ(mkdir(mountPoint_.c_str(), 0700), 0);
    if (mount("tmpfs", mountPoint_.c_str(), "tmpfs", 0, "size=8m,mode=0700") != 0) {
      GTEST_SKIP() << "cannot mount a tmpfs for the data folder (" << std::strerror(errno)
                   << "); these tests need root with mount permission";
    }
    mounted_ = true;
    dataDir_ = mountPoint_ + "/data";
  }
  void TearDown() override {
    client_.reset();
    gateway_.stop();
    if (!bindMounted_.empty()) umount2(bindMounted_.c_str(), MNT_DETACH);
    if (mounted_) umount2(mountPoint_.c_str(), MNT_DETACH);
  }

  bool remount(bool readOnly) {
    const unsigned long flags = MS_REMOUNT | (readOnly ? MS_RDONLY : 0);
    return mount("tmpfs", mountPoint_.c_str(), "tmpfs", flags, "size=8m,mode=0700") == 0;
  }

  void startGateway() {
    ASSERT_TRUE(gateway_.start({"--data", dataDir_})) << gateway_.output();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", gateway_.port());
    recordExchanges(*client_);
    client_->set_read_timeout(60);
  }

  httplib::Result login() {
    Json::Value body;
    body["username"] = "apiuser";
    body["password"] = gateway_.password();
    body["scope"] = "4";
    return client_->Post("/sessions", Json::FastWriter().write(body), "application/json");
  }
  std::string token() { return loginToken(*client_, gateway_.password()); }
  httplib::Result upload(const std::string& token, const std::string& content) {
    return uploadFile(*client_, token, "/kestrel_cert/import_cert", "ca.pem", content);
  }
  std::string newCa(const std::string& name) {
    CertProfile profile(name);
    profile.ecCurve = "P-256";
    return makeCert(profile).pem();
  }

  // Fills the file system with one file until a write fails with ENOSPC.
  bool fill() {
    const std::string path = mountPoint_ + "/filler";
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    const std::string block(64 * 1024, 'x');
    bool full = false;
    for (int i = 0; i < 4096 && !full; ++i) {
      size_t done = 0;
      while (done < block.size()) {
        const ssize_t n = write(fd, block.data() + done, block.size() - done);
        if (n < 0) {
          full = errno == ENOSPC;
          break;
        }
        done += static_cast<size_t>(n);
      }
    }
    close(fd);
    return full;
  }
  size_t caFiles() const {
    size_t n = 0;
    DIR* d = opendir((dataDir_ + "/ca").c_str());
    if (d == nullptr) return 0;
    while (dirent* e = readdir(d)) n += e->d_name[0] == '.' ? 0 : 1;
    closedir(d);
    return n;
  }
  void unfill() { unlink((mountPoint_ + "/filler").c_str()); }

  // What was stored before the fault is still served.
  void expectStoredDataServed(const std::string& token) {
    const httplib::Headers auth{{"X-Auth-Token", token}};
    auto tasks = client_->Get("/kestrel_task/count", auth);
    ASSERT_TRUE(tasks);
    EXPECT_EQ(tasks->status, 200) << tasks->body;
    EXPECT_EQ(parseJson(tasks->body)["data"]["count"].asUInt(), 26u) << tasks->body;
    auto detail = client_->Get("/kestrel_task/1001", auth);
    ASSERT_TRUE(detail);
    EXPECT_EQ(detail->status, 200) << detail->body;
    auto alarms = client_->Get("/alarm/historyalarm/count", auth);
    ASSERT_TRUE(alarms);
    EXPECT_EQ(alarms->status, 200) << alarms->body;
    EXPECT_GE(parseJson(alarms->body)["COUNT"].asInt(), 100) << alarms->body;
    // The CA imported before the fault is still in place.
    EXPECT_EQ(caFiles(), 1u);
  }

  GatewayProcess gateway_;
  std::unique_ptr<httplib::Client> client_;
  std::string mountPoint_;
  std::string dataDir_;
  bool mounted_ = false;
  std::string bindMounted_;
};

TEST_F(DataFolderFaultsE2E, FullFolder) {
  startGateway();
  const std::string session = token();
  ASSERT_FALSE(session.empty());
  auto first = upload(session, newCa("NOX Before CA"));
  ASSERT_TRUE(first);
  ASSERT_EQ(first->body, kImportedBody);

  ASSERT_TRUE(fill());
  expectEnvelope(upload(session, newCa("NOX Full CA")), 500, kErrWriteFailed);
  const std::string log = gateway_.traceLog();
  EXPECT_NE(log.find("cannot write " + dataDir_ + "/tmp/cert-"), std::string::npos) << log;
  EXPECT_NE(log.find(": No space left on device"), std::string::npos) << log;
  EXPECT_NE(log.find("Failed to upload certificate file, illegal uploading arguments."),
            std::string::npos);
  // A login records its time: the store cannot, so the login is refused.
  expectEnvelope(login(), 500, kErrStorage);
  EXPECT_TRUE(logHas(gateway_, "database failure: "));
  expectStoredDataServed(session);

  unfill();
  auto again = upload(session, newCa("NOX After CA"));
  ASSERT_TRUE(again);
  EXPECT_EQ(again->body, kImportedBody);
  EXPECT_EQ(caFiles(), 2u);
  EXPECT_FALSE(token().empty());
  EXPECT_EQ(gateway_.stop(), 0) << gateway_.output();
}

// The kernel does not let a file system turn read-only while the store is
// open for writing, so the upload folder alone is made read-only (a bind
// mount of itself): the upload fails with the write error, everything else
// goes on, and once the folder is writable again uploads work.
TEST_F(DataFolderFaultsE2E, ReadOnlyUploadFolder) {
  startGateway();
  const std::string session = token();
  ASSERT_FALSE(session.empty());
  auto first = upload(session, newCa("NOX Before CA"));
  ASSERT_TRUE(first);
  ASSERT_EQ(first->body, kImportedBody);

  const std::string uploads = dataDir_ + "/tmp";
  ASSERT_EQ(mount(uploads.c_str(), uploads.c_str(), nullptr, MS_BIND, nullptr), 0)
      << std::strerror(errno);
  bindMounted_ = uploads;
  ASSERT_EQ(mount(nullptr, uploads.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0)
      << std::strerror(errno);
  expectEnvelope(upload(session, newCa("NOX RO CA")), 500, kErrWriteFailed);
  const std::string log = gateway_.traceLog();
  EXPECT_NE(log.find("cannot write " + uploads + "/cert-"), std::string::npos) << log;
  EXPECT_NE(log.find("(open): Read-only file system"), std::string::npos) << log;
  expectStoredDataServed(session);
  EXPECT_FALSE(token().empty());  // the store itself is still writable

  ASSERT_EQ(mount(nullptr, uploads.c_str(), nullptr, MS_REMOUNT | MS_BIND, nullptr), 0)
      << std::strerror(errno);
  auto again = upload(session, newCa("NOX After CA"));
  ASSERT_TRUE(again);
  EXPECT_EQ(again->body, kImportedBody);
  EXPECT_EQ(caFiles(), 2u);
  EXPECT_EQ(gateway_.stop(), 0) << gateway_.output();
}

// A gateway started on a read-only data folder refuses to start: it could
// serve no login and no import, and saying so at once is clearer than
// failing every write later.
TEST_F(DataFolderFaultsE2E, StartOnReadOnlyFolder) {
  startGateway();
  // A clean stop leaves no write-ahead log that a read-only open could use.
  ASSERT_EQ(gateway_.stop(), 0) << gateway_.output();
  ASSERT_TRUE(remount(true)) << std::strerror(errno);
  // The store cannot be opened for writing: the gateway says so and stops
  // with status 1 instead of serving without a store.
  GatewayProcess second;
  const int status = second.runToExit(
      {"--listen", "127.0.0.1:0", "--data", dataDir_, "--log", mountPoint_ + "/../trace.log"});
  EXPECT_EQ(status, 1) << second.output();
  EXPECT_NE(second.output().find("nox-gateway: cannot open the backend's data folder " + dataDir_),
            std::string::npos)
      << second.output();
  EXPECT_EQ(second.output().find("listening on"), std::string::npos);
}

}  // namespace
