// runEventLoop: runs one of the HTTP server's event loops until it has
// nothing left to do, so that one failing connection never ends the others.
//
//   std::atomic<uint64_t> dropped{0};
//   std::thread io([&] { gw::runEventLoop(loop, dropped); });
//
// A handler that throws loses what it held as the exception unwinds (its
// connection), never the loop: the failure is written to the trace log as
// "a connection was dropped: its handler failed: <what>", counted in
// `dropped`, and the loop runs on.
//
// Thread-safety: one thread per loop; `dropped` may be shared.
#ifndef NOX_GATEWAY_EVENT_LOOP_H_
#define NOX_GATEWAY_EVENT_LOOP_H_

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <cstdint>

namespace gw {

void runEventLoop(boost::asio::io_context& loop, std::atomic<uint64_t>& dropped);

}  // namespace gw

#endif  // NOX_GATEWAY_EVENT_LOOP_H_
