#include "options.h"

#include <cstring>

#include "metrics.h"
#include "redis_state_store.h"
#include "remote_backend.h"
#include "simulate_options.h"
#include "verify_code.h"

namespace gw {

namespace {

const GatewayOptions kDefaults;

// The options without a value.
struct SwitchOption {
  const char* name;
  bool GatewayOptions::*member;
};
const SwitchOption kSwitches[] = {
    {"--help", &GatewayOptions::help},
    {"-h", &GatewayOptions::help},
    {"--version", &GatewayOptions::version},
    {"--tls-self-signed", &GatewayOptions::tlsSelfSigned},
    {"--expose-verify-code", &GatewayOptions::exposeVerifyCode},
};

// The numeric settings: threads, time-outs and limits, each with its range.
struct NumberOption {
  const char* name;
  long long min;
  long long max;
  const char* unit;  // "... wants <unit> from <min> to <max>"
  void (*set)(GatewayOptions*, long long);
};

#define NOX_SETTER(member) \
  [](GatewayOptions* o, long long v) { o->member = static_cast<decltype(o->member)>(v); }
const NumberOption kNumbers[] = {
    {"--io-threads", 1, 256, "a number", NOX_SETTER(server.ioThreads)},
    {"--threads", 1, 1024, "a number", NOX_SETTER(threads)},
    {"--queue", 0, 1000000, "a number", NOX_SETTER(server.queueLimit)},
    {"--login-threads", 1, 1024, "a number", NOX_SETTER(server.loginThreads)},
    {"--header-timeout", 1, 3600, "seconds", NOX_SETTER(server.headerTimeout)},
    {"--read-timeout", 1, 3600, "seconds", NOX_SETTER(server.readTimeout)},
    {"--min-body-rate", 0, 1LL << 30, "bytes per second", NOX_SETTER(server.minBodyRate)},
    {"--keep-alive-timeout", 1, 3600, "seconds", NOX_SETTER(server.keepAliveTimeout)},
    {"--write-timeout", 1, 3600, "seconds", NOX_SETTER(server.writeTimeout)},
    {"--max-connections", 1, 1000000, "a number", NOX_SETTER(server.maxConnections)},
    {"--max-header-bytes", 1024, 1LL << 20, "a number of bytes", NOX_SETTER(server.maxHeaderBytes)},
    {"--max-headers", 1, 10000, "a number", NOX_SETTER(server.maxHeaders)},
    {"--drain-timeout", 0, 3600, "seconds", NOX_SETTER(server.drainTimeout)},
    {"--max-body", 1024, 1LL << 32, "a number of bytes", NOX_SETTER(server.maxBody)},
    {"--hsts-max-age", 0, 10LL * 365 * 24 * 3600, "seconds", NOX_SETTER(server.hstsMaxAge)},
    {"--session-idle", 1, 7LL * 24 * 3600, "seconds", NOX_SETTER(sessionIdle)},
    {"--verify-code-lifetime", 1, 3600, "seconds", NOX_SETTER(verifyCodeLifetime)},
    {"--state-timeout-ms", 10, 60000, "milliseconds", NOX_SETTER(stateTimeoutMs)},
    {"--state-wait-ms", 0, 60000, "milliseconds", NOX_SETTER(stateWaitMs)},
    {"--backend-timeout", 1, 3600, "seconds", NOX_SETTER(backendTimeout)},
    {"--events-per-session", 1, 1000, "a number", NOX_SETTER(events.perSession)},
    {"--events-max", 1, 1000000, "a number", NOX_SETTER(events.total)},
    {"--events-backlog", 10, 1000000, "a number", NOX_SETTER(feed.backlog)},
};
#undef NOX_SETTER

// The options whose text is taken as it is: names of files and folders.
struct TextOption {
  const char* name;
  std::string* (*field)(GatewayOptions*);
};

#define NOX_FIELD(member) [](GatewayOptions* o) { return &o->member; }
const TextOption kTexts[] = {
    {"--plugin", NOX_FIELD(plugin)},
    {"--home", NOX_FIELD(home)},
    {"--data", NOX_FIELD(dataDir)},
    {"--init-password", NOX_FIELD(initPassword)},
    {"--log", NOX_FIELD(log)},
    {"--log-level", NOX_FIELD(logLevel)},
    {"--access-log", NOX_FIELD(accessLog)},
    {"--audit-log", NOX_FIELD(auditLog)},
    {"--access", NOX_FIELD(access)},
    {"--tls-cert", NOX_FIELD(server.tlsCert)},
    {"--tls-key", NOX_FIELD(server.tlsKey)},
};
#undef NOX_FIELD

bool takeSwitch(const std::string& name, GatewayOptions* options) {
  for (const SwitchOption& row : kSwitches) {
    if (name != row.name) continue;
    options->*row.member = true;
    return true;
  }
  return false;
}

// The options whose value is checked by its own rule.
OptionVerdict takeCheckedValue(const CommandOption& option, GatewayOptions* options,
                               std::string* error) {
  const std::string& name = option.name;
  const std::string& value = option.value;
  std::string why;
  if (name == "--listen") {
    const std::string example =
        kDefaults.server.host + ":" + std::to_string(kDefaults.server.port);
    if (!takeHostPort(option, example, &options->server.host, &options->server.port, error)) {
      return kOptionRefused;
    }
  } else if (name == "--backend") {
    RemoteBackendOptions address;
    if (!RemoteBackend::parseAddress(value, &address, error)) {
      *error = "--backend wants tcp://HOST:PORT, not '" + value + "'";
      return kOptionRefused;
    }
    options->backend = value;
  } else if (name == "--state") {
    if (value != "memory" && value.compare(0, 8, kRedisScheme) != 0 &&
        value.compare(0, std::strlen(kRedisSentinelScheme), kRedisSentinelScheme) != 0) {
      *error = "--state wants memory, redis://[[USER]:PASSWORD@]HOST[:PORT][/DB] or "
               "redis-sentinel://[PASSWORD@]HOST:PORT[,HOST:PORT...]/MASTER, not '" +
               value + "'";
      return kOptionRefused;
    }
    options->state = value == "memory" ? std::string() : value;
  } else if (name == "--log-format") {
    if (value != "text" && value != "json") {
      *error = "--log-format wants text or json, not '" + value + "'";
      return kOptionRefused;
    }
    options->accessLogJson = value == "json";
  } else if (name == "--metrics-allow") {
    std::vector<AddressRange> ranges;
    if (!parseAddressRanges(value, &ranges, &why)) {
      *error = "--metrics-allow wants addresses or ranges like 127.0.0.0/8,::1: " + why;
      return kOptionRefused;
    }
    options->metricsAllow = value;
  } else if (name == "--trusted-proxies") {
    if (!parseAddressRanges(value, &options->server.trustedProxies, &why)) {
      *error = "--trusted-proxies wants addresses or ranges like 10.0.0.0/8,::1: " + why;
      return kOptionRefused;
    }
  } else {
    return takeSimulateOption(option, &options->simulation, error);
  }
  return kOptionTaken;
}

OptionVerdict takeValue(const CommandOption& option, GatewayOptions* options,
                        std::string* error) {
  for (const NumberOption& row : kNumbers) {
    if (option.name != row.name) continue;
    long long number = 0;
    if (!takeNumber(option, row.min, row.max, row.unit, &number, error)) return kOptionRefused;
    row.set(options, number);
    return kOptionTaken;
  }
  for (const TextOption& row : kTexts) {
    if (option.name != row.name) continue;
    *row.field(options) = option.value;
    return kOptionTaken;
  }
  return takeCheckedValue(option, options, error);
}

// The options that only make sense together, or apart.
bool checkTlsChoice(const GatewayOptions& options, std::string* error) {
  if (options.server.tlsCert.empty() != options.server.tlsKey.empty()) {
    *error = "--tls-cert and --tls-key go together";
    return false;
  }
  if (options.tlsSelfSigned && !options.server.tlsCert.empty()) {
    *error = "--tls-self-signed and --tls-cert exclude each other";
    return false;
  }
  return true;
}

std::string number(long long value) { return std::to_string(value); }

}  // namespace

bool parseOptions(const std::vector<std::string>& args, GatewayOptions* options,
                  std::string* error) {
  return parseArguments(
             args, [options](const std::string& name) { return takeSwitch(name, options); },
             [options](const CommandOption& option, std::string* why) {
               return takeValue(option, options, why);
             },
             error) &&
         checkTlsChoice(*options, error);
}

namespace {

// Where the gateway finds and keeps things, and its logs.
std::string usageFilesAndLogs() {
  return std::string() + "usage: nox-gateway [options]\n"
         "  --listen HOST:PORT      address to serve (default " +
         kDefaults.server.host +
         ":" +
         number(kDefaults.server.port) +
         "; port 0 picks a free\n"
         "                          port and prints 'listening on HOST:PORT')\n"
         "  --plugin PATH           the plug-in (default <home>/lib/libucore_nox.so)\n"
         "  --home DIR              installation folder holding bin/, lib/, conf/ (default: the\n"
         "                          folder above the executable's bin/)\n"
         "  --data DIR              the backend's data folder (default <home>/data); with\n"
         "                          --backend only for the files of --tls-self-signed\n"
         "  --backend tcp://HOST:PORT  use nox-backend at HOST:PORT instead of the simulated\n"
         "                          backend in this process\n"
         "  --init-password PW      demo users' password on first start (default: generated)\n" +
         simulateUsageText() +
         "  --log FILE              trace log (default stderr)\n"
         "  --log-level LEVEL       trace, debug, info, warn, error, off (default " +
         kDefaults.logLevel +
         ")\n"
         "  --access-log FILE       access log (default stderr)\n"
         "  --log-format text|json  the access log's lines: text (default) or one JSON object each\n"
         "  --audit-log FILE        audit trail: one JSON object per line for each security\n"
         "                          event (default: none)\n";
}

// The server's threads, time-outs and limits.
std::string usageServer() {
  return std::string() +
         "  --io-threads N          threads reading and writing connections (default: one\n"
         "                          per core)\n"
         "  --threads N             worker threads running operations; the requests beyond\n"
         "                          them wait in line (default two per core, at least 4; with\n"
         "                          --backend eight per core, at least 8)\n"
         "  --queue N               requests that may wait for a worker; beyond it 503\n"
         "                          (default " + number(kDefaults.server.queueLimit) + ")\n"
         "  --login-threads N       threads of their own for the logins, at a lower priority,\n"
         "                          so that logins never hold up other requests (default " +
         number(kDefaults.server.loginThreads) +
         ")\n"
         "  --max-connections N     open connections; new ones beyond it are closed at once\n"
         "                          (default " + number(kDefaults.server.maxConnections) + ")\n"
         "  --header-timeout SECONDS  time for a whole request header (default " +
         number(kDefaults.server.headerTimeout) +
         ")\n"
         "  --read-timeout SECONDS  longest silence while a request body arrives (default " +
         number(kDefaults.server.readTimeout) +
         ")\n"
         "  --min-body-rate BYTES   bytes per second a body must average once it has taken\n"
         "                          --read-timeout seconds (default " +
         number(kDefaults.server.minBodyRate) +
         ")\n"
         "  --keep-alive-timeout SECONDS  idle time between requests on a connection (default " +
         number(kDefaults.server.keepAliveTimeout) +
         ")\n"
         "  --write-timeout SECONDS time a client may take to read an answer (default " +
         number(kDefaults.server.writeTimeout) +
         ")\n"
         "  --max-header-bytes BYTES  request line and header lines together (default " +
         number(kDefaults.server.maxHeaderBytes) +
         ")\n"
         "  --max-headers N         header lines of a request (default " +
         number(kDefaults.server.maxHeaders) +
         ")\n"
         "  --drain-timeout SECONDS on SIGTERM, time for requests in flight (default " +
         number(kDefaults.server.drainTimeout) +
         ")\n"
         "  --max-body BYTES        largest JSON body or upload (default " +
         number(kDefaults.server.maxBody) +
         ")\n"
         "  --events-per-session N  event streams (GET /events) one session may hold open\n"
         "                          (default " + number(static_cast<long long>(kDefaults.events.perSession)) + ")\n"
         "  --events-max N          event streams the gateway holds open (default " +
         number(static_cast<long long>(kDefaults.events.total)) + ")\n"
         "  --events-backlog N      the newest changes kept for streams that resume with\n"
         "                          Last-Event-ID (default " +
         number(static_cast<long long>(kDefaults.feed.backlog)) + ")\n";
}

// Sessions, who may call what, and HTTPS.
std::string usageSessionsAndTls() {
  return std::string(
         "  --session-idle SECONDS  idle time after which a session ends\n"
         "  --state memory|redis://[[USER]:PASSWORD@]HOST[:PORT][/DB]\n"
         "        |redis-sentinel://[PASSWORD@]HOST:PORT[,HOST:PORT...]/MASTER\n"
         "                          where sessions, verification codes and login failure\n"
         "                          counts live (default memory: this process only; Redis:\n"
         "                          shared by every gateway that names the same one; with\n"
         "                          Sentinel: the primary the sentinels name, followed\n"
         "                          through a failover)\n"
         "  --state-timeout-ms MS   time-out of each Redis command (default " +
         number(kDefaults.stateTimeoutMs) +
         ")\n"
         "  --state-wait-ms MS      with redis-sentinel://, how long a login or logout waits\n"
         "                          for one replica to take its write; none within it: 503\n"
         "                          (default " +
         number(kDefaults.stateWaitMs) +
         "; 0: no wait)\n"
         "  --metrics-allow LIST    client addresses that may read GET /metrics, as addresses\n"
         "                          and ranges (default " +
         kDefaults.metricsAllow +
         "; others get 404)\n"
         "  --trusted-proxies LIST  proxies, as addresses and ranges, whose X-Forwarded-For\n"
         "                          names the client (its right-most untrusted entry); the\n"
         "                          login throttle, logs and --metrics-allow then see that\n"
         "                          client (default none: the connection's address)\n"
         "  --backend-timeout SECONDS  time-out of backend requests\n"
         "  --access FILE           the access table: who may call what (default\n"
         "                          ../conf/access.json from bin/, else the built-in table)\n"
         "  --tls-cert FILE --tls-key FILE   serve HTTPS with this certificate and key (PEM)\n"
         "  --tls-self-signed       serve HTTPS with a key pair made in <data>/tls/ (trial runs)\n"
         "  --hsts-max-age SECONDS  over HTTPS, the max-age of Strict-Transport-Security\n"
         "                          (default " +
         number(kDefaults.server.hstsMaxAge) +
         ", one year; 0 sends no such header)\n"
         "  --verify-code-lifetime SECONDS  how long a GET /login challenge lives (default ") +
         std::to_string(VerifyCodeStore::kDefaultLifetime) +
         ";\n"
         "                          for tests and sites that need another time)\n"
         "  --expose-verify-code    put the verification code's text into the GET /login\n"
         "                          challenge (tests only; off by default)\n"
         "  --help, --version\n";
}

}  // namespace

std::string usageText() {
  return usageFilesAndLogs() + usageServer() + usageSessionsAndTls();
}

}  // namespace gw
