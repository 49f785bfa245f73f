// Many request threads at once on one backend: every answer stays right and
// every write lands exactly once.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "backend_fixture.h"
#include "test_pki.h"

namespace {

class ConcurrencyTest : public BackendTest {};

TEST_F(ConcurrencyTest, EightThreadsMixingEveryCommand) {
  const TestCert ca = makeCert(CertProfile());
  const std::string caPem = ca.pem();
  const std::string crl = makeCrl(ca, 86400, {1});
  ASSERT_EQ(importCert(caPem), 0);
  const int kThreads = 8;
  const int kRounds = 12;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        auto expect = [&](long long got, long long want) {
          if (got != want) ++wrong;
        };
        CR3MPackageV3 count;
        expect(send(static_cast<uint32_t>(proto::kAlarmCount), nullptr, &count), 0);
        if (count.size() != 1 || intCell(count, 0, proto::kTagTotal) < 100) ++wrong;
        CR3MPackageV3 page;
        expect(send(
                   static_cast<uint32_t>(proto::kAlarmList),
                   [&](CR3MRecordV3& r) {
                     r[proto::kTagStart].setUInt32(proto::kTagStart, static_cast<uint32_t>(i));
                     r[proto::kTagLimit].setUInt32(proto::kTagLimit, 10);
                   },
                   &page),
               0);
        if (page.size() != 11) ++wrong;
        CR3MPackageV3 tasks;
        expect(send(
                   proto::moCommand(proto::kTaskObjType, proto::kMoList),
                   [&](CR3MRecordV3& r) {
                     r[proto::kTagFilter].setString(proto::kTagFilter, R"({"status":5})");
                   },
                   &tasks),
               0);
        if (tasks.size() < 3) ++wrong;
        expect(send(proto::moCommand(proto::kTaskObjType, proto::kMoGetById),
                    [&](CR3MRecordV3& r) {
                      r[0].setString(0, std::to_string(1001 + (t * kRounds + i) % 26));
                    }),
               0);
        expect(
            send(proto::moCommand(proto::kStorageConfObjType, proto::kStorageConfOpCode), nullptr),
            0);
        expect(send(
                   proto::kImportEvent,
                   [&](CR3MRecordV3& r) {
                     r[0].setUInt32(0, 2);
                     r[1].setUInt32(1, 100 + static_cast<uint32_t>(i % 2));
                     r[3].setUInt32(3, static_cast<uint32_t>(t % 2));
                   },
                   nullptr, "user" + std::to_string(t)),
               0);
        expect(send(proto::kLogin,
                    [&](CR3MRecordV3& r) {
                      r[1].setString(1, t % 2 == 0 ? "admin" : "auditor");
                      r[2].setString(2, "demo-Password-1");
                      r[3].setString(3, t % 2 == 0 ? "0" : "1");
                    }),
               0);
        if (i % 4 == 0) {
          expect(importCert(caPem), 0);
          expect(importCrl(crl), 0);
        }
        expect(send(0x0BADC0DE, nullptr), proto::kErrUnknownCommand);
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(sql("SELECT COUNT(*) FROM import_events"), std::to_string(kThreads * kRounds));
  EXPECT_EQ(sql("SELECT COUNT(DISTINCT user_name) FROM import_events"), std::to_string(kThreads));
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ca_certificates"), "1");
  EXPECT_EQ(sql("SELECT COUNT(*) FROM crls"), "1");
}

}  // namespace
