// The gateway's request metrics, in the Prometheus text format (0.0.4).
//
//   Metrics metrics({"/healthz", "/kestrel_task", ...});   // every route label, once
//   metrics.observe("/kestrel_task", 200, 0.0031);          // per answer
//   metrics.uploadRefused("too_large");
//   std::string text = metrics.render();                    // GET /metrics
//
// Route labels are fixed when the object is made (the registered routes and
// the gateway's own paths); an answer for any other path counts under
// "other", so a client cannot grow the label set. Counting is lock-free:
// relaxed atomic adds into a table made once.
//
// Thread-safety: observe and uploadRefused from any thread at once; render
// reads while others count (each number is a consistent snapshot of itself).
#ifndef NOX_GATEWAY_METRICS_H_
#define NOX_GATEWAY_METRICS_H_

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace gw {

// The label of answers whose path is no known route.
extern const char kOtherRoute[];  // "other"

class Metrics {
 public:
  explicit Metrics(const std::vector<std::string>& routes);

  // One answer of `route` (a label given at construction, else "other").
  void observe(const std::string& route, int status, double seconds);
  // One upload refused, by reason: "too_large", "no_file", "refused_by_check",
  // "write_failed", "console_header", "other".
  void uploadRefused(const std::string& reason);

  // nox_http_requests_total, nox_http_request_duration_seconds and
  // nox_uploads_refused_total, with HELP and TYPE lines.
  std::string render() const;

  // Upper bounds of the latency buckets, in seconds (+Inf follows).
  static const std::array<double, 13> kBuckets;
  // The statuses counted one by one; any other is counted under "other".
  static const std::array<int, 19> kStatuses;

 private:
  struct RouteStats {
    std::array<std::atomic<uint64_t>, 20> byStatus{};  // kStatuses, then "other"
    std::array<std::atomic<uint64_t>, 14> buckets{};   // kBuckets, then +Inf
    std::atomic<uint64_t> count{0};
    std::atomic<uint64_t> sumMicros{0};
  };
  RouteStats& statsOf(const std::string& route);

  std::map<std::string, std::unique_ptr<RouteStats>> routes_;  // never changes after construction
  std::map<std::string, std::unique_ptr<std::atomic<uint64_t>>> refused_;
};

// A range of client addresses: an IPv4 or IPv6 address and a prefix length.
struct AddressRange {
  bool v6 = false;
  unsigned char bytes[16] = {0};
  int prefix = 0;
};

// Parses "127.0.0.0/8,::1,10.1.2.3" (a bare address is its own range). On
// failure returns false and says why in *error.
bool parseAddressRanges(const std::string& text, std::vector<AddressRange>* ranges,
                        std::string* error);
// Whether `address` (as the server reports a client: "127.0.0.1", "::1",
// "::ffff:127.0.0.1") lies in one of `ranges`.
bool addressAllowed(const std::vector<AddressRange>& ranges, const std::string& address);

// What the HTTP server counts of its connections and workers.
struct TransportCounts {
  size_t openConnections = 0;
  uint64_t refusedConnections = 0;  // closed at once: over --max-connections
  uint64_t droppedConnections = 0;  // lost to a failure while serving them
  size_t waitingForWorker = 0;      // whole requests in line for a worker
  size_t busyWorkers = 0;           // workers running an operation (logins included)
};

// What the reference host counts (backend calls and failures by command,
// failed and throttled logins), the open sessions (`sessionsOpen`; left out
// when negative), the transport's `counts` and the process's own numbers
// (resident memory, open files), in the text format. Reads nothing remote.
std::string hostMetricsText(const TransportCounts& counts, long long sessionsOpen);

// With a session store found through Sentinel: nox_state_primary (1 for the
// primary in use, labelled with its address; none while none is known) and
// nox_state_failovers_total.
std::string stateStoreMetricsText(const std::string& primary, long long failovers);

// Appends one family of one sample without labels, in the text format:
//   appendMetricSample(&out, "nox_x", "gauge", "X now.", "3");
//   // out == "# HELP nox_x X now.\n# TYPE nox_x gauge\nnox_x 3\n"
void appendMetricSample(std::string* out, const char* name, const char* type, const char* help,
                        const std::string& value);

// Formats `value` as the text format wants a label value (backslash, quote
// and line feed escaped).
std::string prometheusLabel(const std::string& value);

}  // namespace gw

#endif  // NOX_GATEWAY_METRICS_H_
