#include "event_loop.h"

#include <exception>

#include "qpn_debug_kit.h"

namespace gw {

namespace {
constexpr int kTraceModule = 4;  // the gateway's records in the trace log
}  // namespace

void runEventLoop(boost::asio::io_context& loop, std::atomic<uint64_t>& dropped) {
  for (;;) {
    try {
      loop.run();
      return;
    } catch (const std::exception& e) {
      ++dropped;
      CQPNDebugKitGuard guard(kTraceModule, "run");
      guard.error(0, "run", __LINE__, "a connection was dropped: its handler failed: %s", e.what());
    }
  }
}

}  // namespace gw
