// NOXTaskOp::doBuildTaskInfo: progress entries become dated, translated lines.
#include <ace/OS_NS_Thread.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "NOXTaskOp.h"
#include "task_catalogues.h"
#include "trace_capture.h"

#include "ucore/ace_lock_interposer.h"

namespace {

// The separator after every line but the one of the last array element:
// backslash, "n", line feed.
const std::string kSep = "\\n\n";

// 1700000000 = 2023-11-14 22:13:20 UTC.
const std::string kEnDate0 = "11/14/2023 22:13:20";
const std::string kEnDate1 = "11/14/2023 22:13:21";
const std::string kZhDate0 = "2023-11-14 22:13:20";
const std::string kZhDate1 = "2023-11-14 22:13:21";

// A progress entry: identifier, time stamp and message parameters.
std::string entry(const std::string& id, const std::string& seconds,
                  std::initializer_list<std::string> params) {
  std::string out = "{\"id\":\"" + id + "\",\"params\":[{\"param\":\"" + seconds + "\"}";
  for (const std::string& p : params) out += ",{\"param\":\"" + p + "\"}";
  return out + "]}";
}

std::string array(std::initializer_list<std::string> entries) {
  std::string out = "[";
  for (const std::string& e : entries) out += (out.size() > 1 ? "," : "") + e;
  return out + "]";
}

class TaskInfoBuilderTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("TZ", "UTC", 1);
    tzset();
  }

  void SetUp() override { writeTaskCatalogues(dir_); }

  // Renders `json` (held in cell 0x58 of a fresh record).
  int build(NOXTaskOp& op, const std::string& json, bool isZh, std::string* detail,
            std::string* errorCode) {
    CR3MRecordV3 record;
    record[0x58].setString(0x58, json);
    return op.doBuildTaskInfo(record, *detail, isZh, *errorCode);
  }

  CatalogueDir dir_;
};

TEST_F(TaskInfoBuilderTest, TwoEntriesInEnglish) {
  NOXTaskOp op(0xE012);
  std::string detail = "old", code;
  const std::string json = array({entry("1001", "1700000000", {"T1", "host1", "x"}),
                                  entry("1002", "1700000001", {"3", "/b", "full"})});
  ASSERT_EQ(build(op, json, false, &detail, &code), 0);
  EXPECT_EQ(detail, " " + kEnDate0 + " Task T1 started on host1 " + kSep + " " + kEnDate1 +
                        " Copied 3 files to /b (full) ");
  EXPECT_EQ(code, "");
}

TEST_F(TaskInfoBuilderTest, TwoEntriesInChinese) {
  NOXTaskOp op(0xE012);
  std::string detail, code;
  const std::string json = array({entry("1001", "1700000000", {"T1", "host1", "x"}),
                                  entry("1002", "1700000001", {"3", "/b", "full"})});
  ASSERT_EQ(build(op, json, true, &detail, &code), 0);
  EXPECT_EQ(detail, " " + kZhDate0 + " 任务 T1 已在 host1 上启动 " + kSep + " " + kZhDate1 +
                        " 已复制 3 个文件到 /b（full） ");
}

TEST_F(TaskInfoBuilderTest, EmptyArrayGivesEmptyTextAndKeepsCode) {
  NOXTaskOp op(0xE012);
  std::string detail = "old", code = "1003";
  ASSERT_EQ(build(op, "[]", false, &detail, &code), 0);
  EXPECT_EQ(detail, "");
  EXPECT_EQ(code, "1003");
}

TEST_F(TaskInfoBuilderTest, EntryWithoutCatalogueTextIsSkipped) {
  TraceCapture trace;
  NOXTaskOp op(0xE012);
  std::string detail, code;
  const std::string json =
      array({entry("1001", "1700000000", {"T1", "h"}), entry("9999", "1700000000", {"a"}),
             entry("2001", "1700000001", {"sda"})});
  ASSERT_EQ(build(op, json, false, &detail, &code), 0);
  EXPECT_EQ(detail, " " + kEnDate0 + " Task T1 started on h " + kSep + " " + kEnDate1 +
                        " Disk sda is full ");
  EXPECT_EQ(trace.count(TraceLevel::kWarn, "Get XML Info error."), 1);
  const std::vector<std::string> traces = trace.traces();
  EXPECT_NE(std::find(traces.begin(), traces.end(), "leave doBuildTaskInfo: NOK"), traces.end());
}

// The separator follows the array position, not the lines written, so a
// detail whose last entries have no catalogue text ends with a separator.
// The task view shows the lines as they are; this shape is wanted as is.
TEST_F(TaskInfoBuilderTest, TrailingSeparatorWhenLastEntryHasNoText) {
  NOXTaskOp op(0xE012);
  std::string detail, code;
  const std::string json =
      array({entry("2001", "1700000000", {"sda"}), entry("9999", "1700000001", {}),
             entry("9998", "1700000001", {})});
  ASSERT_EQ(build(op, json, false, &detail, &code), 0);
  EXPECT_EQ(detail, " " + kEnDate0 + " Disk sda is full " + kSep);
}

TEST_F(TaskInfoBuilderTest, OnlyUnknownEntriesGiveEmptyText) {
  NOXTaskOp op(0xE012);
  std::string detail = "old", code = "9999";
  ASSERT_EQ(build(op, array({entry("9999", "1", {"a"})}), false, &detail, &code), 0);
  EXPECT_EQ(detail, "");
  EXPECT_EQ(code, "9999");  // an entry without text never matches
}

// The first matching entry with a text decides; once replaced, the code holds
// the text and no later entry matches it.
TEST_F(TaskInfoBuilderTest, FirstMatchingEntryReplacesErrorCodeWithoutSeparator) {
  NOXTaskOp op(0xE012);
  std::string detail, code = "1003";
  const std::string json = array(
      {entry("1001", "1700000000", {"T1", "h"}), entry("1003", "1700000000", {"T1", "disk full"}),
       entry("1003", "1700000001", {"T1", "second"}), entry("2001", "1700000001", {"sda"})});
  ASSERT_EQ(build(op, json, false, &detail, &code), 0);
  EXPECT_EQ(code, "Task T1 failed: disk full ");
  EXPECT_NE(detail.find("Task T1 failed: second "), std::string::npos);
}

TEST_F(TaskInfoBuilderTest, ErrorCodeMatchesExactlyOnly) {
  NOXTaskOp op(0xE012);
  for (const char* other : {"100", "10030", " 1003", ""}) {
    std::string detail, code = other;
    ASSERT_EQ(build(op, array({entry("1003", "0", {"T", "x"})}), false, &detail, &code), 0);
    EXPECT_EQ(code, other);
  }
}

TEST_F(TaskInfoBuilderTest, ErrorCodeTakesChineseTextInChinese) {
  NOXTaskOp op(0xE012);
  std::string detail, code = "1003";
  ASSERT_EQ(build(op, array({entry("1003", "0", {"T1", "x"})}), true, &detail, &code), 0);
  EXPECT_EQ(code, "任务 T1 失败：x ");
  EXPECT_EQ(detail, " 1970-01-01 00:00:00 任务 T1 失败：x ");
}

TEST_F(TaskInfoBuilderTest, SingleTimeParameterGivesEmptyParameters) {
  TraceCapture trace;
  NOXTaskOp op(0xE012);
  std::string detail, code;
  ASSERT_EQ(build(op, array({entry("1001", "1700000000", {})}), false, &detail, &code), 0);
  EXPECT_EQ(detail, " " + kEnDate0 + " Task  started on  ");
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "Get msg detail params : "));
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "detail 0 params size: 1"));
}

TEST_F(TaskInfoBuilderTest, EntryWithoutParamsTakesTimeZero) {
  NOXTaskOp op(0xE012);
  std::string detail, code;
  ASSERT_EQ(build(op, "[{\"id\":\"2001\"}]", false, &detail, &code), 0);
  EXPECT_EQ(detail, " 01/01/1970 00:00:00 Disk  is full ");
  ASSERT_EQ(build(op, "[{\"id\":\"2001\",\"params\":[]}]", true, &detail, &code), 0);
  EXPECT_EQ(detail, " 1970-01-01 00:00:00 磁盘  已满 ");
}

TEST_F(TaskInfoBuilderTest, ReadsTheCellNotTheDetailArgument) {
  NOXTaskOp op(0xE012);
  std::string detail = array({entry("2001", "0", {"other"})}), code;
  ASSERT_EQ(build(op, array({entry("2001", "0", {"sda"})}), false, &detail, &code), 0);
  EXPECT_EQ(detail, " 01/01/1970 00:00:00 Disk sda is full ");
}

TEST_F(TaskInfoBuilderTest, NotJsonGivesEmptyTextWithoutTakingTheMutex) {
  TraceCapture trace;
  NOXTaskOp op(0xE012);
  LockModeScope fail(LockMode::kFail);
  std::string detail = "old", code = "1003";
  EXPECT_EQ(build(op, "not json", false, &detail, &code), 0);
  EXPECT_EQ(detail, "");
  EXPECT_EQ(code, "1003");
  EXPECT_EQ(fail.calls(), 0);
  std::unique_ptr<TraceRecord> error = trace.find("Failed to parse taskdetail json string.");
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->level, TraceLevel::kError);
  EXPECT_EQ(error->module, 18);
  EXPECT_EQ(error->function, "doBuildTaskInfo");
}

TEST_F(TaskInfoBuilderTest, MutexThatCannotBeTakenLeavesDetailAndLogsNothing) {
  TraceCapture trace;
  NOXTaskOp op(0xE012);
  trace.clear();
  LockModeScope fail(LockMode::kFail);
  std::string detail = "kept", code = "1003";
  EXPECT_EQ(build(op, array({entry("1003", "0", {"T", "x"})}), false, &detail, &code), -1);
  EXPECT_EQ(fail.calls(), 1);
  EXPECT_EQ(detail, "kept");
  EXPECT_EQ(code, "1003");
  EXPECT_TRUE(trace.logs(TraceLevel::kWarn).empty());
  EXPECT_TRUE(trace.logs(TraceLevel::kError).empty());
  EXPECT_EQ(trace.traces().back(), "leave doBuildTaskInfo: OK");
}

TEST_F(TaskInfoBuilderTest, RootThatIsNoArrayThrowsAndReleasesTheMutex) {
  NOXTaskOp op(0xE012);
  // Only tried: were the mutex left held, the next build would fail.
  LockModeScope tryOnly(LockMode::kTry);
  std::string detail, code;
  EXPECT_THROW(build(op, "{\"a\":{\"id\":\"1001\"}}", false, &detail, &code), Json::LogicError);
  EXPECT_THROW(build(op, "[5]", false, &detail, &code), Json::LogicError);  // entry no object
  // Were the mutex still held, the try-lock would fail and the result be -1.
  EXPECT_EQ(build(op, array({entry("2001", "0", {"sda"})}), false, &detail, &code), 0);
  EXPECT_EQ(detail, " 01/01/1970 00:00:00 Disk sda is full ");
}

TEST_F(TaskInfoBuilderTest, ScalarRootGivesEmptyText) {
  NOXTaskOp op(0xE012);
  std::string detail = "old", code;
  EXPECT_EQ(build(op, "\"text\"", false, &detail, &code), 0);
  EXPECT_EQ(detail, "");
}

TEST_F(TaskInfoBuilderTest, MissingDetailCellThrowsTheCellError) {
  NOXTaskOp op(0xE012);
  CR3MRecordV3 record;
  std::string detail, code;
  try {
    op.doBuildTaskInfo(record, detail, false, code);
    FAIL() << "no exception";
  } catch (const QPNException& e) {
    EXPECT_STREQ(e.what(), "Exception:CTLVCell isn't string type! tag equal to 88");
  }
}

TEST_F(TaskInfoBuilderTest, LogsItsStepsAtDebugLevel) {
  TraceCapture trace;
  NOXTaskOp op(0xE012);
  trace.clear();
  std::string detail, code = "77";
  const std::string json = array({entry("1002", "1700000000", {"3", "/b", "full"})});
  ASSERT_EQ(build(op, json, false, &detail, &code), 0);
  const std::vector<std::string> debug = trace.logs(TraceLevel::kDebug);
  auto has = [&](const std::string& text) {
    return std::find(debug.begin(), debug.end(), text) != debug.end();
  };
  EXPECT_TRUE(has("build taskextra begin"));
  EXPECT_TRUE(has("Get msg detail json str : " + json + ", errorcode :77 "));
  EXPECT_TRUE(has("detail 0 params size: 4"));
  EXPECT_TRUE(has("Get msg detail params : 3#@#"));
  EXPECT_TRUE(has("Get msg detail params : 3#@#/b#@#"));
  EXPECT_EQ(trace.count(TraceLevel::kDebug, "Get msg detail params : 3#@#/b#@#full"), 2);
  EXPECT_TRUE(has("Get msg temp msg : Copied 3 files to /b (full) "));
  EXPECT_TRUE(has("ttask detail str : " + detail));
  std::unique_ptr<TraceRecord> begin = trace.find("build taskextra begin");
  ASSERT_NE(begin, nullptr);
  EXPECT_EQ(begin->module, 18);
  EXPECT_EQ(begin->function, "doBuildTaskInfo");
  const std::vector<std::string> traces = trace.traces();
  ASSERT_FALSE(traces.empty());
  EXPECT_EQ(traces.front(), "enter doBuildTaskInfo...");
  EXPECT_EQ(traces.back(), "leave doBuildTaskInfo: OK");
}

TEST_F(TaskInfoBuilderTest, DateFollowsTheTimeZone) {
  NOXTaskOp op(0xE012);
  std::string detail, code;
  setenv("TZ", "Asia/Shanghai", 1);
  tzset();
  const int result = build(op, array({entry("2001", "1700000000", {"sda"})}), true, &detail, &code);
  setenv("TZ", "UTC", 1);
  tzset();
  ASSERT_EQ(result, 0);
  if (detail.find("2023-11-14 22:13:20") != std::string::npos) {
    GTEST_SKIP() << "no time zone data for Asia/Shanghai";
  }
  EXPECT_EQ(detail, " 2023-11-15 06:13:20 磁盘 sda 已满 ");
}

}  // namespace
