// Frames over a TCP socket with a deadline: what the gateway's remote
// backend and nox-backend use to talk (tlv_wire.h holds the format).
//
//   int fd = wiresock::connectTcp("127.0.0.1", 7070, 2000, &error);   // -1 + error
//   wiresock::Deadline deadline = wiresock::deadlineIn(5000);
//   if (wiresock::sendAll(fd, bytes, deadline) != wiresock::IoResult::kOk) ...
//
// Thread-safety: plain functions; one thread uses a socket at a time.
#ifndef NOX_HOST_WIRE_SOCKET_H_
#define NOX_HOST_WIRE_SOCKET_H_

#include <chrono>
#include <string>

#include "nox_visibility.h"
#include "tlv_wire.h"

namespace wiresock {

using Deadline = std::chrono::steady_clock::time_point;

// Now plus `ms`; a negative `ms` means no deadline.
HOST_API Deadline deadlineIn(long long ms);

enum class IoResult {
  kOk,
  kTimeout,   // the deadline passed first
  kClosed,    // the peer closed the connection (before a whole frame)
  kError,     // a socket error
  kBadFrame,  // the bytes are no frame of ours (readFrame only)
};

// Connects to HOST:PORT within `timeoutMs`. Returns the socket (close-on-exec,
// TCP_NODELAY) or -1 and sets *error.
HOST_API int connectTcp(const std::string& host, int port, int timeoutMs, std::string* error);

// Writes all of `bytes` before `deadline` (SIGPIPE never raised).
HOST_API IoResult sendAll(int fd, const std::string& bytes, Deadline deadline);

// Reads one frame. `idle` bounds the wait for its first byte, `deadline`
// the rest. On kOk fills *header and *body; on kBadFrame sets *error.
HOST_API IoResult readFrame(int fd, Deadline idle, Deadline deadline, tlvwire::FrameHeader* header,
                            std::string* body, std::string* error);

// True when a kept connection is still usable: nothing to read (a closed or
// reset connection reads as end of file) and no error pending.
HOST_API bool idleAlive(int fd);

// The peer's "address:port", or "?" when unknown.
HOST_API std::string peerName(int fd);

}  // namespace wiresock

#endif  // NOX_HOST_WIRE_SOCKET_H_
