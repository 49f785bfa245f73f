#include "metrics.h"


#include <arpa/inet.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "host_counters.h"

namespace gw {

const char kOtherRoute[] = "other";

const std::array<double, 13> Metrics::kBuckets = {0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                                  0.1,    0.25,  0.5,    1,     2.5,  10};
const std::array<int, 19> Metrics::kStatuses = {200, 301, 400, 401, 403, 404, 405, 408, 413, 414,
                                                415, 422, 429, 431, 500, 501, 502, 503, 504};

namespace {

const char* const kRefusalReasons[] = {"too_large",    "no_file",        "refused_by_check",
                                       "write_failed", "console_header", "other"};

std::string number(double value) {
  char buf[64];
  std::snprintf(buf, sizeof(buf), "%.15g", value);
  return buf;
}

}  // namespace

namespace {

// Parses one address into *range (16 bytes for IPv6, 4 for IPv4); an
// IPv4-mapped IPv6 address becomes its IPv4 address.
bool parseAddress(const std::string& text, AddressRange* range) {
  unsigned char buf[16];
  if (inet_pton(AF_INET, text.c_str(), buf) == 1) {
    range->v6 = false;
    std::memcpy(range->bytes, buf, 4);
    return true;
  }
  if (inet_pton(AF_INET6, text.c_str(), buf) == 1) {
    static const unsigned char kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    if (std::memcmp(buf, kMapped, 12) == 0) {
      range->v6 = false;
      std::memcpy(range->bytes, buf + 12, 4);
    } else {
      range->v6 = true;
      std::memcpy(range->bytes, buf, 16);
    }
    return true;
  }
  return false;
}

}  // namespace

bool parseAddressRanges(const std::string& text, std::vector<AddressRange>* ranges,
                        std::string* error) {
  ranges->clear();
  size_t start = 0;
  while (start <= text.size()) {
    const size_t comma = text.find(',', start);
    const std::string item =
        text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    start = comma == std::string::npos ? text.size() + 1 : comma + 1;
    if (item.empty()) continue;
    const size_t slash = item.find('/');
    AddressRange range;
    if (!parseAddress(item.substr(0, slash), &range)) {
      *error = "'" + item + "' is no IPv4 or IPv6 address";
      return false;
    }
    const int bits = range.v6 ? 128 : 32;
    range.prefix = bits;
    if (slash != std::string::npos) {
      const std::string prefix = item.substr(slash + 1);
      if (prefix.empty() || prefix.size() > 3 ||
          prefix.find_first_not_of("0123456789") != std::string::npos ||
          std::atoi(prefix.c_str()) > bits) {
        *error = "'" + item + "' has no valid prefix length";
        return false;
      }
      range.prefix = std::atoi(prefix.c_str());
    }
    ranges->push_back(range);
  }
  if (ranges->empty()) {
    *error = "no address given";
    return false;
  }
  return true;
}

bool addressAllowed(const std::vector<AddressRange>& ranges, const std::string& address) {
  AddressRange client;
  if (!parseAddress(address, &client)) return false;
  for (const AddressRange& range : ranges) {
    if (range.v6 != client.v6) continue;
    const int full = range.prefix / 8;
    const int rest = range.prefix % 8;
    if (std::memcmp(range.bytes, client.bytes, static_cast<size_t>(full)) != 0) continue;
    if (rest != 0) {
      const unsigned char mask = static_cast<unsigned char>(0xFF << (8 - rest));
      if ((range.bytes[full] & mask) != (client.bytes[full] & mask)) continue;
    }
    return true;
  }
  return false;
}

std::string prometheusLabel(const std::string& value) {
  std::string out;
  out.reserve(value.size());
  for (char c : value) {
    if (c == '\\' || c == '"') {
      out.push_back('\\');
      out.push_back(c);
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out.push_back(c);
    }
  }
  return out;
}

Metrics::Metrics(const std::vector<std::string>& routes) {
  for (const std::string& route : routes) routes_[route].reset(new RouteStats);
  routes_[kOtherRoute].reset(new RouteStats);
  for (const char* reason : kRefusalReasons) refused_[reason].reset(new std::atomic<uint64_t>(0));
}

Metrics::RouteStats& Metrics::statsOf(const std::string& route) {
  auto it = routes_.find(route);
  return it != routes_.end() ? *it->second : *routes_.find(kOtherRoute)->second;
}

void Metrics::observe(const std::string& route, int status, double seconds) {
  RouteStats& stats = statsOf(route);
  size_t s = 0;
  while (s < kStatuses.size() && kStatuses[s] != status) ++s;
  stats.byStatus[s].fetch_add(1, std::memory_order_relaxed);
  size_t b = 0;
  while (b < kBuckets.size() && seconds > kBuckets[b]) ++b;
  stats.buckets[b].fetch_add(1, std::memory_order_relaxed);
  stats.count.fetch_add(1, std::memory_order_relaxed);
  stats.sumMicros.fetch_add(static_cast<uint64_t>(std::llround(seconds * 1e6)),
                            std::memory_order_relaxed);
}

void Metrics::uploadRefused(const std::string& reason) {
  auto it = refused_.find(reason);
  if (it == refused_.end()) it = refused_.find("other");
  it->second->fetch_add(1, std::memory_order_relaxed);
}

std::string Metrics::render() const {
  std::string out;
  out +=
      "# HELP nox_http_requests_total HTTP answers by route and status.\n"
      "# TYPE nox_http_requests_total counter\n";
  for (const auto& route : routes_) {
    const std::string label = prometheusLabel(route.first);
    for (size_t s = 0; s <= kStatuses.size(); ++s) {
      const uint64_t n = route.second->byStatus[s].load(std::memory_order_relaxed);
      if (n == 0) continue;
      const std::string status = s < kStatuses.size() ? std::to_string(kStatuses[s]) : "other";
      out += "nox_http_requests_total{route=\"";
      out += label;
      out += "\",status=\"";
      out += status;
      out += "\"} ";
      out += std::to_string(n);
      out += '\n';
    }
  }
  out +=
      "# HELP nox_http_request_duration_seconds Time from a request's arrival to its answer, by "
      "route.\n"
      "# TYPE nox_http_request_duration_seconds histogram\n";
  for (const auto& route : routes_) {
    const RouteStats& stats = *route.second;
    const uint64_t count = stats.count.load(std::memory_order_relaxed);
    if (count == 0) continue;
    const std::string label = prometheusLabel(route.first);
    uint64_t cumulative = 0;
    for (size_t b = 0; b <= kBuckets.size(); ++b) {
      cumulative += stats.buckets[b].load(std::memory_order_relaxed);
      const std::string le = b < kBuckets.size() ? number(kBuckets[b]) : "+Inf";
      out += "nox_http_request_duration_seconds_bucket{route=\"";
      out += label;
      out += "\",le=\"";
      out += le;
      out += "\"} ";
      out += std::to_string(cumulative);
      out += '\n';
    }
    out += "nox_http_request_duration_seconds_sum{route=\"" + label + "\"} " +
           number(static_cast<double>(stats.sumMicros.load(std::memory_order_relaxed)) / 1e6) +
           "\n";
    // The buckets were read one by one while others counted: the count is
    // their total, so that the histogram stays consistent.
    out += "nox_http_request_duration_seconds_count{route=\"" + label + "\"} " +
           std::to_string(cumulative) + "\n";
  }
  out +=
      "# HELP nox_uploads_refused_total Certificate and CRL uploads refused, by reason.\n"
      "# TYPE nox_uploads_refused_total counter\n";
  for (const auto& reason : refused_) {
    out += "nox_uploads_refused_total{reason=\"" + reason.first + "\"} " +
           std::to_string(reason.second->load(std::memory_order_relaxed)) + "\n";
  }
  return out;
}

namespace {

// A number from /proc/self/status ("VmRSS:   1234 kB"), in its unit.
long long statusField(const char* name) {
  std::ifstream in("/proc/self/status");
  std::string line;
  const size_t length = std::strlen(name);
  while (std::getline(in, line)) {
    if (line.compare(0, length, name) == 0 && line.size() > length && line[length] == ':') {
      return std::atoll(line.c_str() + length + 1);
    }
  }
  return -1;
}

long long openFiles() {
  std::error_code error;
  std::filesystem::directory_iterator it("/proc/self/fd", error);
  if (error) return -1;
  long long n = 0;
  for (; it != std::filesystem::directory_iterator(); it.increment(error)) ++n;
  return n;
}

// "# HELP name help" and "# TYPE name type", the lines before a family's
// samples.
void appendFamily(std::string* out, const char* name, const char* type, const char* help) {
  out->append("# HELP ").append(name).append(" ").append(help).append("\n");
  out->append("# TYPE ").append(name).append(" ").append(type).append("\n");
}


void appendWorkers(std::string* out, const TransportCounts& counts) {
  appendMetricSample(out, "nox_operations_waiting", "gauge",
               "Requests waiting in line for a free worker.",
               std::to_string(counts.waitingForWorker));
  appendMetricSample(out, "nox_workers_busy", "gauge", "Workers running an operation.",
               std::to_string(counts.busyWorkers));
}

// Calls and failures by command ("0xE0000052").
void appendBackendCalls(std::string* out) {
  const std::vector<BackendCallCount> calls = backendCallCounts();
  char command[16];
  appendFamily(out, "nox_backend_calls_total", "counter",
               "Packages sent to the backend, by command.");
  for (const BackendCallCount& c : calls) {
    std::snprintf(command, sizeof(command), "0x%08X", c.command);
    out->append("nox_backend_calls_total{command=\"").append(command).append("\"} ");
    out->append(std::to_string(c.calls)).append("\n");
  }
  appendFamily(out, "nox_backend_failures_total", "counter",
               "Backend calls answered with a code, thrown, timed out or without a backend, by "
               "command.");
  for (const BackendCallCount& c : calls) {
    std::snprintf(command, sizeof(command), "0x%08X", c.command);
    out->append("nox_backend_failures_total{command=\"").append(command).append("\"} ");
    out->append(std::to_string(c.failures)).append("\n");
  }
}

void appendLogins(std::string* out) {
  const LoginCounts logins = loginCounts();
  appendMetricSample(out, "nox_logins_failed_total", "counter", "Logins the backend refused.",
               std::to_string(logins.failed));
  appendMetricSample(out, "nox_logins_throttled_total", "counter",
               "Logins refused by the throttle before the backend was asked.",
               std::to_string(logins.throttled));
}

// Memory and open files, each left out when /proc cannot say.
void appendProcess(std::string* out) {
  const long long rssKb = statusField("VmRSS");
  if (rssKb >= 0) {
    appendMetricSample(out, "process_resident_memory_bytes", "gauge",
                 "Resident memory of the gateway process.", std::to_string(rssKb * 1024));
  }
  const long long files = openFiles();
  if (files >= 0) {
    appendMetricSample(out, "process_open_fds", "gauge", "Open file descriptors of the gateway process.",
                 std::to_string(files));
  }
}

void appendConnections(std::string* out, const TransportCounts& counts) {
  appendMetricSample(out, "nox_open_connections", "gauge", "Client connections open on the gateway.",
               std::to_string(counts.openConnections));
  appendMetricSample(out, "nox_connections_refused_total", "counter",
               "Connections closed at once because --max-connections were open.",
               std::to_string(counts.refusedConnections));
  appendMetricSample(out, "nox_connections_dropped_total", "counter",
               "Connections dropped because serving them failed (each is in the trace log).",
               std::to_string(counts.droppedConnections));
}

}  // namespace

void appendMetricSample(std::string* out, const char* name, const char* type, const char* help,
                        const std::string& value) {
  appendFamily(out, name, type, help);
  out->append(name).append(" ").append(value).append("\n");
}

std::string hostMetricsText(const TransportCounts& counts, long long sessionsOpen) {
  std::string out;
  appendWorkers(&out, counts);
  appendBackendCalls(&out);
  appendLogins(&out);
  // Left out while the session store cannot be counted: /healthz says why.
  if (sessionsOpen >= 0) {
    appendMetricSample(&out, "nox_sessions_open", "gauge",
                 "Sessions open (in the shared store, for every gateway).",
                 std::to_string(sessionsOpen));
  }
  appendProcess(&out);
  appendConnections(&out, counts);
  return out;
}

std::string stateStoreMetricsText(const std::string& primary, long long failovers) {
  std::string out;
  appendFamily(&out, "nox_state_primary", "gauge",
               "The session store's primary in use, found through Sentinel (1, by address).");
  if (!primary.empty()) {
    out.append("nox_state_primary{address=\"").append(prometheusLabel(primary)).append("\"} 1\n");
  }
  appendMetricSample(&out, "nox_state_failovers_total", "counter",
               "Times the sentinels named another primary than the one in use before.",
               std::to_string(failovers));
  return out;
}

}  // namespace gw
