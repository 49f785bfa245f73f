// Many request threads at once through one RemoteBackend with a small pool:
// every answer is the one the backend gives in process, every staged upload
// lands, and a server stopped and started again mid-run costs nothing but
// clear "not available" answers.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "remote_fixture.h"
#include "test_pki.h"

namespace {

class RemoteConcurrencyTest : public RemoteBackendTest {};

TEST_F(RemoteConcurrencyTest, EightThreadsThroughAPoolOfThree) {
  remote_ = connect(3);
  installTlvBackend(remote_);
  const uint32_t one = proto::moCommand(proto::kTaskObjType, proto::kMoGetById);
  // The answers in process, to compare with.
  std::vector<std::string> expected;
  for (int id = 1001; id <= 1026; ++id) {
    CR3MPackageV3 reply;
    ASSERT_EQ(send(one, [&](CR3MRecordV3& r) { r[0].setString(0, std::to_string(id)); }, &reply),
              0);
    expected.push_back(tlvwire::packageBytes(reply));
  }
  const std::string caPem = makeCert(CertProfile()).pem();
  const int kThreads = 8;
  const int kRounds = 20;
  std::atomic<int> wrong{0};
  std::atomic<int> imported{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        const int index = (t * kRounds + i) % 26;
        CR3MPackageV3 reply;
        if (remoteSend(one,
                       [&](CR3MRecordV3& r) { r[0].setString(0, std::to_string(1001 + index)); },
                       &reply) != 0 ||
            tlvwire::packageBytes(reply) != expected[static_cast<size_t>(index)]) {
          ++wrong;
        }
        if (i % 5 != 0) continue;
        // An upload: path, bytes written (and sent on by the seam), check.
        if (remoteImport(proto::kCertTempPath, proto::kCertCheck, caPem) == 0) {
          ++imported;
        } else {
          ++wrong;
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(imported.load(), kThreads * (kRounds / 5));
  // The same CA imported many times is one entry, and nothing is left staged
  // on either side.
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ca_certificates"), "1");
  EXPECT_TRUE(folderNames(dataDir() + "/tmp").empty());
  EXPECT_TRUE(folderNames(localStaging_).empty());
}

TEST_F(RemoteConcurrencyTest, ServerRestartedWhileThreadsCall) {
  const int port = server_->port();
  const int kThreads = 4;
  std::atomic<bool> restarted{false};
  std::atomic<int> other{0};
  std::atomic<int> okAfterRestart{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      // Bounded: until each thread saw a few answers after the restart.
      for (int i = 0; i < 5000 && okAfterRestart.load() < 4 * kThreads; ++i) {
        const bool after = restarted.load();
        const long long code = remoteSend(static_cast<uint32_t>(proto::kAlarmCount), nullptr);
        if (code == 0) {
          if (after) ++okAfterRestart;
        } else if (code != kErrBackendUnavailable) {
          ++other;  // never a time-out, never a wrong answer
        }
      }
    });
  }
  server_->stop();
  server_ = std::make_unique<RunningServer>(backend_, backend_->stagingFolders(), port);
  // Not fatal: the threads must be joined whatever happens.
  EXPECT_EQ(server_->port(), port) << server_->error();
  restarted.store(true);
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(other.load(), 0);
  EXPECT_GE(okAfterRestart.load(), 4 * kThreads);
}

}  // namespace
