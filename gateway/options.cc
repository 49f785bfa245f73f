#include "options.h"

#include "metrics.h"
#include "remote_backend.h"
#include "verify_code.h"

namespace gw {

namespace {

// The server's numeric settings: threads, time-outs and limits.
struct TransportNumber {
  const char* name;
  long long min;
  long long max;
  const char* unit;  // "... wants <unit> from <min> to <max>"
  void (*set)(GatewayOptions*, long long);
};

#define NOX_SETTER(member) [](GatewayOptions* o, long long v) { o->member = static_cast<decltype(o->member)>(v); }
const TransportNumber kTransportNumbers[] = {
    {"--io-threads", 1, 256, "a number", NOX_SETTER(ioThreads)},
    {"--threads", 1, 1024, "a number", NOX_SETTER(threads)},
    {"--queue", 0, 1000000, "a number", NOX_SETTER(queueLimit)},
    {"--login-threads", 1, 1024, "a number", NOX_SETTER(loginThreads)},
    {"--header-timeout", 1, 3600, "seconds", NOX_SETTER(headerTimeout)},
    {"--read-timeout", 1, 3600, "seconds", NOX_SETTER(readTimeout)},
    {"--min-body-rate", 0, 1LL << 30, "bytes per second", NOX_SETTER(minBodyRate)},
    {"--keep-alive-timeout", 1, 3600, "seconds", NOX_SETTER(keepAliveTimeout)},
    {"--write-timeout", 1, 3600, "seconds", NOX_SETTER(writeTimeout)},
    {"--max-connections", 1, 1000000, "a number", NOX_SETTER(maxConnections)},
    {"--max-header-bytes", 1024, 1LL << 20, "a number of bytes", NOX_SETTER(maxHeaderBytes)},
    {"--max-headers", 1, 10000, "a number", NOX_SETTER(maxHeaders)},
    {"--drain-timeout", 0, 3600, "seconds", NOX_SETTER(drainTimeout)},
};
#undef NOX_SETTER

const TransportNumber* findTransportNumber(const std::string& name) {
  for (const TransportNumber& row : kTransportNumbers) {
    if (name == row.name) return &row;
  }
  return nullptr;
}

}  // namespace

bool parseOptions(const std::vector<std::string>& args, GatewayOptions* options,
                  std::string* error) {
  for (size_t i = 0; i < args.size(); ++i) {
    CommandOption option = splitOption(args[i]);
    const std::string& name = option.name;
    // Switches without a value.
    if (name == "--help" || name == "-h") {
      options->help = true;
      continue;
    }
    if (name == "--version") {
      options->version = true;
      continue;
    }
    if (name == "--tls-self-signed") {
      options->tlsSelfSigned = true;
      continue;
    }
    if (name == "--expose-verify-code") {
      options->exposeVerifyCode = true;
      continue;
    }
    if (!takeOptionValue(args, &i, &option, error)) return false;
    const std::string& value = option.value;
    long long number = 0;
    if (const TransportNumber* row = findTransportNumber(name)) {
      if (!parseNumber(value, row->min, row->max, &number)) {
        *error = name;
        *error += " wants ";
        *error += row->unit;
        *error += " from " + std::to_string(row->min);
        *error += " to " + std::to_string(row->max);
        *error += ", not '" + value + "'";
        return false;
      }
      row->set(options, number);
    } else if (name == "--listen") {
      if (!parseHostPort(value, &options->listenHost, &options->listenPort)) {
        *error = "--listen wants HOST:PORT, e.g. 127.0.0.1:8080, not '" + value + "'";
        return false;
      }
    } else if (name == "--plugin") {
      options->plugin = value;
    } else if (name == "--home") {
      options->home = value;
    } else if (name == "--data") {
      options->dataDir = value;
    } else if (name == "--backend") {
      RemoteBackendOptions address;
      if (!RemoteBackend::parseAddress(value, &address, error)) {
        *error = "--backend wants tcp://HOST:PORT, not '" + value + "'";
        return false;
      }
      options->backend = value;
    } else if (name == "--init-password") {
      options->initPassword = value;
    } else if (name == "--log") {
      options->log = value;
    } else if (name == "--log-level") {
      options->logLevel = value;
    } else if (name == "--access-log") {
      options->accessLog = value;
    } else if (name == "--audit-log") {
      options->auditLog = value;
    } else if (name == "--max-body") {
      if (!parseNumber(value, 1024, 1LL << 32, &number)) {
        *error = "--max-body wants a number of bytes from 1024 to 4294967296, not '" + value + "'";
        return false;
      }
      options->maxBody = static_cast<size_t>(number);
    } else if (name == "--session-idle") {
      if (!parseNumber(value, 1, 7LL * 24 * 3600, &number)) {
        *error = "--session-idle wants seconds from 1 to 604800, not '" + value + "'";
        return false;
      }
      options->sessionIdle = static_cast<int>(number);
    } else if (name == "--verify-code-lifetime") {
      if (!parseNumber(value, 1, 3600, &number)) {
        *error = "--verify-code-lifetime wants seconds from 1 to 3600, not '" + value + "'";
        return false;
      }
      options->verifyCodeLifetime = static_cast<int>(number);
    } else if (name == "--state") {
      if (value != "memory" && value.compare(0, 8, "redis://") != 0) {
        *error = "--state wants memory or redis://[[USER]:PASSWORD@]HOST[:PORT][/DB], not '" +
                 value + "'";
        return false;
      }
      options->state = value == "memory" ? std::string() : value;
    } else if (name == "--log-format") {
      if (value != "text" && value != "json") {
        *error = "--log-format wants text or json, not '" + value + "'";
        return false;
      }
      options->accessLogJson = value == "json";
    } else if (name == "--metrics-allow") {
      std::vector<AddressRange> ranges;
      std::string why;
      if (!parseAddressRanges(value, &ranges, &why)) {
        *error = "--metrics-allow wants addresses or ranges like 127.0.0.0/8,::1: " + why;
        return false;
      }
      options->metricsAllow = value;
    } else if (name == "--state-timeout-ms") {
      if (!parseNumber(value, 10, 60000, &number)) {
        *error = "--state-timeout-ms wants milliseconds from 10 to 60000, not '" + value + "'";
        return false;
      }
      options->stateTimeoutMs = static_cast<int>(number);
    } else if (name == "--backend-timeout") {
      if (!parseNumber(value, 1, 3600, &number)) {
        *error = "--backend-timeout wants seconds from 1 to 3600, not '" + value + "'";
        return false;
      }
      options->backendTimeout = static_cast<int>(number);
    } else if (name == "--hsts-max-age") {
      if (!parseNumber(value, 0, 10LL * 365 * 24 * 3600, &number)) {
        *error = "--hsts-max-age wants seconds from 0 to 315360000, not '" + value + "'";
        return false;
      }
      options->hstsMaxAge = number;
    } else if (name == "--access") {
      options->access = value;
    } else if (name == "--tls-cert") {
      options->tlsCert = value;
    } else if (name == "--tls-key") {
      options->tlsKey = value;
    } else {
      *error = "unknown option " + name + " (see --help)";
      return false;
    }
  }
  if (options->tlsCert.empty() != options->tlsKey.empty()) {
    *error = "--tls-cert and --tls-key go together";
    return false;
  }
  if (options->tlsSelfSigned && !options->tlsCert.empty()) {
    *error = "--tls-self-signed and --tls-cert exclude each other";
    return false;
  }
  return true;
}

std::string usageText() {
  return std::string("usage: nox-gateway [options]\n"
             "  --listen HOST:PORT      address to serve (default 127.0.0.1:8080; port 0 picks a free\n"
         "                          port and prints 'listening on HOST:PORT')\n"
         "  --plugin PATH           the plug-in (default <home>/lib/libucore_nox.so)\n"
         "  --home DIR              installation folder holding bin/, lib/, conf/ (default: the\n"
         "                          folder above the executable's bin/)\n"
         "  --data DIR              the backend's data folder (default <home>/data); with\n"
         "                          --backend only for the files of --tls-self-signed\n"
         "  --backend tcp://HOST:PORT  use nox-backend at HOST:PORT instead of the simulated\n"
         "                          backend in this process\n"
         "  --init-password PW      demo users' password on first start (default: generated)\n"
         "  --log FILE              trace log (default stderr)\n"
         "  --log-level LEVEL       trace, debug, info, warn, error, off (default info)\n"
         "  --access-log FILE       access log (default stderr)\n"
         "  --log-format text|json  the access log's lines: text (default) or one JSON object each\n"
         "  --audit-log FILE        audit trail: one JSON object per line for each security\n"
         "                          event (default: none)\n"
         "  --io-threads N          threads reading and writing connections (default: one\n"
         "                          per core)\n"
         "  --threads N             worker threads running operations; the requests beyond\n"
         "                          them wait in line (default two per core, at least 4; with\n"
         "                          --backend eight per core, at least 8)\n"
         "  --queue N               requests that may wait for a worker; beyond it 503\n"
         "                          (default 1024)\n"
         "  --login-threads N       threads of their own for the logins, at a lower priority,\n"
         "                          so that logins never hold up other requests (default 16)\n"
         "  --max-connections N     open connections; new ones beyond it are closed at once\n"
         "                          (default 10000)\n"
         "  --header-timeout SECONDS  time for a whole request header (default 10)\n"
         "  --read-timeout SECONDS  longest silence while a request body arrives (default 30)\n"
         "  --min-body-rate BYTES   bytes per second a body must average once it has taken\n"
         "                          --read-timeout seconds (default 1024)\n"
         "  --keep-alive-timeout SECONDS  idle time between requests on a connection (default 5)\n"
         "  --write-timeout SECONDS time a client may take to read an answer (default 30)\n"
         "  --max-header-bytes BYTES  request line and header lines together (default 8192)\n"
         "  --max-headers N         header lines of a request (default 100)\n"
         "  --drain-timeout SECONDS on SIGTERM, time for requests in flight (default 30)\n"
         "  --max-body BYTES        largest JSON body or upload (default 2097152)\n"
         "  --session-idle SECONDS  idle time after which a session ends\n"
         "  --state memory|redis://[[USER]:PASSWORD@]HOST[:PORT][/DB]\n"
         "                          where sessions, verification codes and login failure\n"
         "                          counts live (default memory: this process only; Redis:\n"
         "                          shared by every gateway that names the same one)\n"
         "  --state-timeout-ms MS   time-out of each Redis command (default 500)\n"
         "  --metrics-allow LIST    client addresses that may read GET /metrics, as addresses\n"
         "                          and ranges (default 127.0.0.0/8,::1; others get 404)\n"
         "  --backend-timeout SECONDS  time-out of backend requests\n"
         "  --access FILE           the access table: who may call what (default\n"
         "                          ../conf/access.json from bin/, else the built-in table)\n"
         "  --tls-cert FILE --tls-key FILE   serve HTTPS with this certificate and key (PEM)\n"
         "  --tls-self-signed       serve HTTPS with a key pair made in <data>/tls/ (trial runs)\n"
         "  --hsts-max-age SECONDS  over HTTPS, the max-age of Strict-Transport-Security\n"
         "                          (default 31536000, one year; 0 sends no such header)\n"
         "  --verify-code-lifetime SECONDS  how long a GET /login challenge lives (default ") +
         std::to_string(VerifyCodeStore::kDefaultLifetime) +
         ";\n"
         "                          for tests and sites that need another time)\n"
         "  --expose-verify-code    put the verification code's text into the GET /login\n"
         "                          challenge (tests only; off by default)\n"
         "  --help, --version\n";
}

}  // namespace gw
