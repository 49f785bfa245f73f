// An event loop of the HTTP server outlives a handler that throws: the
// failure is logged and counted, and what was posted after it still runs.
#include "event_loop.h"

#include <gtest/gtest.h>

#include <boost/asio/post.hpp>
#include <stdexcept>
#include <vector>

#include "trace_capture.h"

namespace {

TEST(EventLoopTest, AThrowingHandlerIsLoggedAndCountedAndTheLoopRunsOn) {
  TraceCapture trace;
  boost::asio::io_context loop(1);
  std::atomic<uint64_t> dropped{0};
  std::vector<int> ran;
  boost::asio::post(loop, [&] { ran.push_back(1); });
  boost::asio::post(loop, [] { throw std::runtime_error("cancel: Bad file descriptor"); });
  boost::asio::post(loop, [&] { ran.push_back(3); });
  boost::asio::post(loop, [] { throw std::length_error("too long"); });
  boost::asio::post(loop, [&] { ran.push_back(5); });

  gw::runEventLoop(loop, dropped);

  EXPECT_EQ(ran, (std::vector<int>{1, 3, 5}));
  EXPECT_EQ(dropped.load(), 2u);
  EXPECT_TRUE(
      trace.has(TraceLevel::kError,
                "a connection was dropped: its handler failed: cancel: Bad file descriptor"))
      << trace.dump();
  EXPECT_TRUE(
      trace.has(TraceLevel::kError, "a connection was dropped: its handler failed: too long"));
}

TEST(EventLoopTest, ALoopWithoutFailuresReturnsWhenItsWorkIsDone) {
  TraceCapture trace;
  boost::asio::io_context loop(1);
  std::atomic<uint64_t> dropped{0};
  int ran = 0;
  boost::asio::post(loop, [&] { ++ran; });
  gw::runEventLoop(loop, dropped);
  EXPECT_EQ(ran, 1);
  EXPECT_EQ(dropped.load(), 0u);
  EXPECT_TRUE(trace.logs(TraceLevel::kError).empty()) << trace.dump();
}

}  // namespace
