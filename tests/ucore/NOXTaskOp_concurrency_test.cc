// Several request threads rendering task details at once on one NOXTaskOp.
//
// The catalogues are shared and may be re-read on a miss; the operation keeps
// them to one request at a time. Every thread checks every result it gets, so
// a race shows up as a wrong text here, or as a report of the thread
// sanitizer, which runs this test too.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "NOXTaskOp.h"
#include "scripted_backend.h"
#include "task_catalogues.h"
#include "trace_capture.h"

namespace {

constexpr uint32_t kDetail = 0xE0120000;
constexpr int kThreads = 8;
constexpr int kRounds = 40;

std::string entry(const std::string& id, const std::string& seconds,
                  std::initializer_list<std::string> params) {
  std::string out = "{\"id\":\"" + id + "\",\"params\":[{\"param\":\"" + seconds + "\"}";
  for (const std::string& p : params) out += ",{\"param\":\"" + p + "\"}";
  return out + "]}";
}

// The task whose id is "task-<n>": entries known to the catalogue around two
// that are not (each of those re-reads the messages file), with parameters
// that name the task so that a mixed-up answer cannot pass.
std::string detailOf(const std::string& n) {
  return "[" + entry("1001", "0", {n, "h" + n}) + "," + entry("9999", "1", {n}) + "," +
         entry("1003", "60", {n, "e" + n}) + "," + entry("2001", "61", {"d" + n}) + "," +
         entry("9998", "62", {}) + "]";
}

std::string expectedDetail(const std::string& n, bool zh) {
  const std::string sep = "\\n\n";
  if (zh) {
    return " 1970-01-01 00:00:00 任务 " + n + " 已在 h" + n + " 上启动 " + sep +
           " 1970-01-01 00:01:00 任务 " + n + " 失败：e" + n + " " + sep +
           " 1970-01-01 00:01:01 磁盘 d" + n + " 已满 " + sep;
  }
  return " 01/01/1970 00:00:00 Task " + n + " started on h" + n + " " + sep +
         " 01/01/1970 00:01:00 Task " + n + " failed: e" + n + " " + sep +
         " 01/01/1970 00:01:01 Disk d" + n + " is full " + sep;
}

TEST(TaskConcurrencyTest, EightThreadsRenderDetailsAtOnce) {
  setenv("TZ", "UTC", 1);
  tzset();
  CatalogueDir dir;
  writeTaskCatalogues(dir);
  TraceCapture trace(TraceLevel::kWarn);  // keeps the misses' warnings off stderr
  ScriptedBackend backend;
  backend.on(kDetail, [](const CR3MPackageV3& request, CR3MPackageV3& reply) {
    const std::string id = request.recordAt(0).find(0)->toString();
    const std::string n = id.substr(id.find('-') + 1);
    CR3MRecordV3& record = reply.addRecord(kDetail, 13);
    record[0x58].setString(0x58, detailOf(n));
    const std::string error = "{\"code\":\"1003\",\"task\":\"" + n + "\"}";
    record[0x62].set_i(CTLVCell::TLV_JSON, 0x62, const_cast<char*>(error.data()), error.size());
    return 0LL;
  });
  NOXTaskOp op(0xE012);

  std::atomic<int> ready{0};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ready.fetch_add(1);
      while (ready.load() < kThreads) std::this_thread::yield();
      for (int r = 0; r < kRounds; ++r) {
        const bool zh = (t + r) % 2 == 0;
        const std::string n = std::to_string(t * 1000 + r);
        CRequestMsg request;
        request.getResIDs().push_back("task-" + n);
        // Half of the requests choose by argument, half by session.
        if (r % 4 < 2) {
          request.setArg("LANGUAGE", zh ? "zh" : "en");
        } else {
          request.getSessionInfo().setLanguage(zh ? "zh" : "en");
        }
        CResponseMsg response;
        if (op.op("GET", "", request, response) != 0) {
          failures.fetch_add(1);
          continue;
        }
        const std::string detail = response[0][0x58].toString();
        const std::string info = response[0][0x62].toString();
        const std::string text = zh ? "\\u4efb\\u52a1 " + n + " \\u5931\\u8d25\\uff1ae" + n + " "
                                    : "Task " + n + " failed: e" + n + " ";
        const std::string expectedInfo =
            "{\"code\":\"1003\",\"description\":\"" + text + "\",\"task\":\"" + n + "\"}";
        if (detail != expectedDetail(n, zh) || info != expectedInfo) {
          failures.fetch_add(1);
          ADD_FAILURE() << "task " << n << (zh ? " zh" : " en") << "\n" << detail << "\n" << info;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(backend.sent(kDetail).size(), static_cast<size_t>(kThreads * kRounds));
  // Each of the two unknown entries of every rendering was looked up (and the
  // file re-read) without disturbing the others.
  EXPECT_EQ(trace.count(TraceLevel::kWarn, "Get XML Info error."), 2 * kThreads * kRounds);
}

TEST(TaskConcurrencyTest, EightThreadsBuildDirectlyWithMixedLanguages) {
  setenv("TZ", "UTC", 1);
  tzset();
  CatalogueDir dir;
  writeTaskCatalogues(dir);
  TraceCapture trace(TraceLevel::kError);
  NOXTaskOp op(0xE012);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int r = 0; r < kRounds; ++r) {
        const bool zh = t % 2 == 1;
        const std::string n = std::to_string(t) + "_" + std::to_string(r);
        CR3MRecordV3 record;
        record[0x58].setString(0x58, detailOf(n));
        std::string detail, code = "2001";
        if (op.doBuildTaskInfo(record, detail, zh, code) != 0 || detail != expectedDetail(n, zh) ||
            code != (zh ? "磁盘 d" + n + " 已满 " : "Disk d" + n + " is full ")) {
          failures.fetch_add(1);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
}

}  // namespace
