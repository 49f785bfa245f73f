#include "qpn_debug_kit.h"

#include <gtest/gtest.h>

#include "trace_capture.h"

namespace {

void infoOnly() {
  CQPNDebugKitGuard guard(11, "op");
  guard.info(0, "op", __LINE__, "informational %d", 1);
  guard.debug(0, "op", __LINE__, "debug %s", "x");
}

void warnThenSucceed() {
  CQPNDebugKitGuard guard(11, "op");
  guard.warn(0, "op", __LINE__, "something odd");
  guard.info(0, "op", __LINE__, "done");
}

void errorAndThrow() {
  CQPNDebugKitGuard guard(18, "parse");
  guard.error(0, "parse", __LINE__, "bad %s", "input");
  throw std::runtime_error("boom");
}

}  // namespace

TEST(DebugKitGuardTest, WritesEnterAndLeaveOk) {
  TraceCapture trace;
  { CQPNDebugKitGuard guard(11, "op"); }
  EXPECT_EQ(trace.traces(), (std::vector<std::string>{"enter op...", "leave op: OK"}));
}

TEST(DebugKitGuardTest, InfoAndDebugLeaveVerdictOk) {
  TraceCapture trace;
  infoOnly();
  EXPECT_EQ(trace.traces(), (std::vector<std::string>{"enter op...", "leave op: OK"}));
  EXPECT_TRUE(trace.has(TraceLevel::kInfo, "informational 1"));
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "debug x"));
}

TEST(DebugKitGuardTest, WarningTurnsVerdictNokEvenAfterSuccess) {
  TraceCapture trace;
  warnThenSucceed();
  EXPECT_EQ(trace.traces(), (std::vector<std::string>{"enter op...", "leave op: NOK"}));
  EXPECT_TRUE(trace.has(TraceLevel::kWarn, "something odd"));
}

TEST(DebugKitGuardTest, LeaveIsWrittenWhenAnExceptionPasses) {
  TraceCapture trace;
  EXPECT_THROW(errorAndThrow(), std::runtime_error);
  EXPECT_EQ(trace.traces(), (std::vector<std::string>{"enter parse...", "leave parse: NOK"}));
  EXPECT_TRUE(trace.has(TraceLevel::kError, "bad input"));
}

TEST(DebugKitGuardTest, ExceptionPassingDoesNotChangeVerdict) {
  TraceCapture trace;
  try {
    CQPNDebugKitGuard guard(11, "op");
    throw 1;
  } catch (int) {
  }
  EXPECT_EQ(trace.traces(), (std::vector<std::string>{"enter op...", "leave op: OK"}));
}

TEST(DebugKitGuardTest, WholeTextFormsTurnVerdictNok) {
  TraceCapture trace;
  {
    CQPNDebugKitGuard guard(18, "parseXmlCfg");
    guard.error(std::string("Open xml config file(x) failed.\nerrno: 3)."));
  }
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Open xml config file(x) failed.\nerrno: 3)."));
  EXPECT_EQ(trace.traces().back(), "leave parseXmlCfg: NOK");
}

TEST(DebugKitGuardTest, RecordsCarryModuleFunctionAndLine) {
  TraceCapture trace;
  {
    CQPNDebugKitGuard guard(18, "isNumber");
    guard.debug(0, "isNumber", 42, "string[%s] is a number.", "7");
  }
  std::unique_ptr<TraceRecord> r = trace.find("string[7] is a number.");
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->module, 18);
  EXPECT_EQ(r->function, "isNumber");
  EXPECT_EQ(r->line, 42u);
}

TEST(DebugKitGuardTest, LevelFilterDropsRecordsButNotVerdicts) {
  TraceCapture trace(TraceLevel::kError);
  warnThenSucceed();
  EXPECT_TRUE(trace.records().empty()) << trace.dump();
}

TEST(DebugKitMgrTest, OneKitPerModule) {
  CQPNDebugKitMgr* mgr = CQPNDebugKitMgr::instance();
  EXPECT_EQ(mgr, CQPNDebugKitMgr::instance());
  EXPECT_EQ(mgr->find(11), mgr->find(11));
  EXPECT_NE(mgr->find(11), mgr->find(18));
  EXPECT_EQ(mgr->find(11)->moduleId(), 11);
  EXPECT_EQ(mgr->find(4000)->moduleId(), 4000);
  EXPECT_EQ(mgr->find(4000), mgr->find(4000));
}

TEST(TraceLevelTest, NamesRoundTrip) {
  for (TraceLevel level : {TraceLevel::kTrace, TraceLevel::kDebug, TraceLevel::kInfo,
                           TraceLevel::kWarn, TraceLevel::kError, TraceLevel::kOff}) {
    TraceLevel parsed;
    ASSERT_TRUE(parseTraceLevel(traceLevelName(level), &parsed));
    EXPECT_EQ(parsed, level);
  }
  TraceLevel parsed;
  EXPECT_FALSE(parseTraceLevel("verbose", &parsed));
}
