// The client address of a request that came through trusted proxies.
//
// Behind a proxy (nginx, a load balancer) every connection comes from the
// proxy, so the login throttle, the access log and --metrics-allow would see
// one client. A proxy named by --trusted-proxies says who its client was in
// X-Forwarded-For; each proxy appends the address it was connected from, so
// the list is read from the right, and the first address that is not a
// trusted proxy is the client. Entries left of it were written by the client
// itself and are never believed.
//
//   std::vector<AddressRange> trusted;   // parseAddressRanges("10.0.0.0/8", ...)
//   clientAddressOf("10.0.0.5", "198.51.100.7, 10.0.0.9", trusted)  // "198.51.100.7"
//   clientAddressOf("10.0.0.5", "6.6.6.6, 198.51.100.7", trusted)   // "198.51.100.7"
//   clientAddressOf("203.0.113.1", "6.6.6.6", trusted)             // "203.0.113.1"
//
// Limits: only X-Forwarded-For is read (not the RFC 7239 Forwarded header).
// An entry that is no IPv4 or IPv6 address (with an optional port, IPv6 in
// brackets then) stops the walk: the last address read is the client, so a
// malformed entry never becomes an address of its own. Addresses come back
// in the canonical text of inet_ntop ("2001:DB8::0001" -> "2001:db8::1"), so
// that one client always has one throttle key.
//
// Thread-safety: a pure function.
#ifndef NOX_GATEWAY_FORWARDED_FOR_H_
#define NOX_GATEWAY_FORWARDED_FOR_H_

#include <string>
#include <vector>

#include "metrics.h"

namespace gw {

// The header trusted proxies name their client in.
constexpr char kForwardedForHeader[] = "X-Forwarded-For";

// The client of a request from `peer` (the connection's address) that
// carried `forwardedFor` (every X-Forwarded-For header of the request, joined
// with commas in order; "" when none). `peer` itself when it is not in
// `trusted`.
std::string clientAddressOf(const std::string& peer, const std::string& forwardedFor,
                            const std::vector<AddressRange>& trusted);

}  // namespace gw

#endif  // NOX_GATEWAY_FORWARDED_FOR_H_
