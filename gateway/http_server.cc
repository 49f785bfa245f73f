#include "http_server.h"

#include <httplib.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <memory>

#include "error_table.h"
#include "qpn_debug_kit.h"
#include "secure_random.h"
#include "trace_sink.h"
#include "tls.h"

namespace gw {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTraceModule = 4;  // the gateway's records in the trace log

// One connection is served by one worker from the request's headers to the
// access log line, so the per-request values the logger needs travel in
// thread-locals.
thread_local Clock::time_point t_started;
thread_local std::string t_user;
thread_local std::string t_session;
// The request's identifier: the client's X-Request-Id when it is sane, else
// a new one; sent back with the answer and carried by the trace records.
thread_local std::string t_requestId;
// The answer's route label for the metrics; empty: the dispatcher never saw the request.
thread_local std::string t_route;
// The connection is to be closed after this answer, which has no body.
thread_local bool t_stopReading = false;

// Header lines a request may carry (cpp-httplib adds four of its own).
constexpr size_t kMaxHeaderCount = 100;
constexpr size_t kLibraryHeaders = 4;

HttpInput toInput(const httplib::Request& req) {
  HttpInput in;
  in.method = req.method;
  in.target = req.target;
  in.clientAddress = req.remote_addr;
  for (const auto& header : req.headers) in.headers.emplace_back(header.first, header.second);
  return in;
}

// Over HTTPS the session cookie is marked Secure, so that a browser never
// sends it over plain HTTP.
void writeOutput(const HttpOutput& out, httplib::Response& res, bool secure) {
  res.status = out.status;
  for (const auto& header : out.headers) {
    std::string value = header.second;
    if (secure && strcasecmp(header.first.c_str(), "Set-Cookie") == 0 &&
        value.find("; Secure") == std::string::npos) {
      value += "; Secure";
    }
    res.headers.emplace(header.first, value);
  }
  const std::string type = out.contentType.empty() ? "application/json" : out.contentType;
  if (out.compressible) {
    res.set_content(out.body, type);
  } else {
    // cpp-httplib compresses a body set with set_content when the client
    // accepts it, but never one that a content provider of known length
    // writes: the bytes go out as they are.
    auto body = std::make_shared<std::string>(out.body);
    res.set_content_provider(
        body->size(), type, [body](size_t offset, size_t length, httplib::DataSink& sink) {
          return sink.write(body->data() + offset, length);
        });
  }
  t_user = out.user;
  t_session = out.session;
  t_route = out.route;
}

// The client's X-Request-Id when it is 1 to 64 characters of letters,
// digits, '.', '_' and '-' (safe in every log); else 128 new random bits.
std::string requestIdOf(const httplib::Request& req) {
  const std::string given = req.get_header_value("X-Request-Id");
  bool sane = !given.empty() && given.size() <= 64;
  for (char c : given) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') sane = false;
  }
  return sane ? given : secureRandomHex(16);
}

bool isChunked(const httplib::Request& req) {
  return strcasecmp(req.get_header_value("Transfer-Encoding").c_str(), "chunked") == 0;
}

// The Content-Length of `req`, 0 without one; a value that is not a number
// counts as endless.
unsigned long long declaredLength(const httplib::Request& req) {
  if (!req.has_header("Content-Length")) return 0;
  const std::string value = req.get_header_value("Content-Length");
  if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos ||
      value.size() > 19) {
    return ~0ULL;
  }
  return std::stoull(value);
}

// Sends the body of `res` (already set) and then ends the connection. Used
// when the bytes after this request cannot be trusted to start a new one: a
// body left unread, a framing the gateway refuses. cpp-httplib keeps a
// connection while its handlers succeed, so the body goes out through a
// content provider that reports failure once everything is written.
void closeAfter(httplib::Response& res) {
  auto body = std::make_shared<std::string>(std::move(res.body));
  res.body.clear();
  std::string type = res.get_header_value("Content-Type");
  if (type.empty()) type = "application/json";
  res.headers.erase("Content-Type");
  res.headers.erase("Connection");
  res.set_header("Connection", "close");
  res.set_content_provider(
      body->size(), type, [body](size_t offset, size_t length, httplib::DataSink& sink) {
        if (offset < body->size()) sink.write(body->data() + offset, length);
        return false;
      });
}

// Answers with the error envelope of `code` under `status` and closes.
void refuse(httplib::Response& res, int status, long long code, const std::string& description) {
  res.status = status;
  res.set_content(toCompactJson(errorEnvelope(code, description)), "application/json");
  closeAfter(res);
}

// Framing the gateway does not accept: Content-Length given twice, both a
// length and chunks (a front proxy and the gateway could then disagree on
// where the request ends), or a transfer coding other than plain chunks.
bool ambiguousFraming(const httplib::Request& req) {
  const size_t lengths = req.get_header_value_count("Content-Length");
  const bool coded = req.has_header("Transfer-Encoding");
  return lengths > 1 || (lengths == 1 && coded) || (coded && !isChunked(req));
}

// Whether cpp-httplib reads a request body for `method` (it does for these
// only).
bool expectsBody(const std::string& method) {
  return method == "POST" || method == "PUT" || method == "PATCH" || method == "DELETE";
}

// The address text of a socket address, as cpp-httplib writes it.
std::string addressText(const sockaddr_storage& address, int* port) {
  char text[INET6_ADDRSTRLEN] = "";
  if (address.ss_family == AF_INET) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(&address);
    inet_ntop(AF_INET, &in->sin_addr, text, sizeof(text));
    *port = ntohs(in->sin_port);
  } else if (address.ss_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&address);
    inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof(text));
    *port = ntohs(in6->sin6_port);
  }
  return text;
}

// Ends reading on the connection `req` came on, so that cpp-httplib closes it
// instead of waiting for another request. Only once the answer is out:
// cpp-httplib writes nothing more to a socket it cannot read. For answers
// without a body (HEAD), which closeAfter cannot use. The socket is found by
// its address pair, which only this connection has, and which cannot be
// closed while its request is served.
void stopReading(const httplib::Request& req) {
  if (req.local_port <= 0 || req.remote_port <= 0) return;
  DIR* fds = opendir("/proc/self/fd");
  if (fds == nullptr) return;
  while (const dirent* entry = readdir(fds)) {  // NOLINT(concurrency-mt-unsafe): own stream
    const int fd = atoi(entry->d_name);
    if (fd <= 2 || fd == dirfd(fds)) continue;
    sockaddr_storage local{};
    sockaddr_storage peer{};
    socklen_t localSize = sizeof(local);
    socklen_t peerSize = sizeof(peer);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localSize) != 0 ||
        getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerSize) != 0) {
      continue;
    }
    int localPort = -1;
    int peerPort = -1;
    const std::string localText = addressText(local, &localPort);
    const std::string peerText = addressText(peer, &peerPort);
    if (localPort == req.local_port && peerPort == req.remote_port &&
        localText == req.local_addr && peerText == req.remote_addr) {
      shutdown(fd, SHUT_RD);
      break;
    }
  }
  closedir(fds);
}

// The methods the gateway serves; TRACE, CONNECT and others are refused
// before routing.
bool servedMethod(const std::string& method) {
  static const char* const kServed[] = {"GET", "HEAD", "POST", "PUT", "PATCH", "DELETE",
                                        "OPTIONS"};
  for (const char* served : kServed) {
    if (method == served) return true;
  }
  return false;
}

// The envelope for answers cpp-httplib makes itself (body too large,
// malformed request).
long long codeForLibraryStatus(int status) {
  switch (status) {
    case 413:
      return kErrBodyTooLarge;
    case 404:
      return kErrRouteNotFound;
    case 405:
      return kErrMethodNotAllowed;
    case 500:
      return kErrInternal;
    default:
      return kErrBadRequest;
  }
}

}  // namespace

HttpServer::HttpServer(ServerConfig config, const Dispatcher& dispatcher, AccessLog& accessLog)
    : config_(std::move(config)), dispatcher_(dispatcher), accessLog_(accessLog) {}

HttpServer::~HttpServer() = default;

bool HttpServer::start(std::string* error) {
  if (!config_.tlsCert.empty()) {
    std::string tlsError;
    const std::string cert = config_.tlsCert;
    const std::string key = config_.tlsKey;
    auto tls = std::make_unique<httplib::SSLServer>(
        [&](SSL_CTX& ctx) { return configureTlsContext(&ctx, cert, key, &tlsError); });
    if (!tls->is_valid()) {
      *error = tlsError.empty() ? "cannot set up TLS" : tlsError;
      return false;
    }
    server_ = std::move(tls);
  } else {
    server_ = std::make_unique<httplib::Server>();
  }
  install();
  if (config_.port == 0) {
    port_ = server_->bind_to_any_port(config_.host);
  } else {
    port_ = server_->bind_to_port(config_.host, config_.port) ? config_.port : -1;
  }
  // cpp-httplib listens with a backlog of five; under many connecting
  // clients the kernel then drops SYNs and each retry costs a second. A second
  // listen() on the bound socket widens the queue.
  if (port_ >= 0 && listenSocket_ >= 0) ::listen(listenSocket_, SOMAXCONN);
  if (port_ < 0) {
    *error = "cannot listen on " + config_.host + ":" + std::to_string(config_.port) +
             " (address in use or not local?)";
    return false;
  }
  return true;
}

void HttpServer::install() {
  httplib::Server& svr = *server_;
  const int threads = config_.threads;
  svr.new_task_queue = [threads] { return new httplib::ThreadPool(static_cast<size_t>(threads)); };
  svr.set_tcp_nodelay(true);
  svr.set_socket_options([this](socket_t sock) {
    int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    listenSocket_ = sock;
  });
  svr.set_payload_max_length(config_.maxBody + kMultipartOverhead);
  svr.set_keep_alive_max_count(1000);
  svr.set_keep_alive_timeout(5);
  svr.set_read_timeout(config_.readTimeout);
  svr.set_write_timeout(config_.readTimeout);

  svr.set_pre_routing_handler([](const httplib::Request& req, httplib::Response& res) {
    t_started = Clock::now();
    t_user.clear();
    t_session.clear();
    t_route.clear();
    t_requestId = requestIdOf(req);
    setTraceRequestId(t_requestId);
    t_stopReading = false;
    // Each refusal here closes the connection: a body may follow that was
    // never read.
    if (!servedMethod(req.method)) {
      refuse(res, 405, kErrMethodNotAllowed, describeCode(kErrMethodNotAllowed));
    } else if (req.headers.size() > kMaxHeaderCount + kLibraryHeaders) {
      refuse(res, 431, kErrBadRequest, "The request carries too many headers.");
    } else if (ambiguousFraming(req)) {
      refuse(res, 400, kErrBadRequest, "The request body is framed ambiguously.");
    } else if (!expectsBody(req.method) &&
               (declaredLength(req) > 0 || req.has_header("Transfer-Encoding"))) {
      // cpp-httplib does not read a body of these methods; what the client
      // sent as one would be read as the next request.
      refuse(res, 400, kErrBadRequest, "This method takes no request body.");
    } else {
      return httplib::Server::HandlerResponse::Unhandled;
    }
    // A HEAD answer has no body to carry the close; the logger, which runs
    // once the answer is out, ends reading instead.
    t_stopReading = req.method == "HEAD";
    return httplib::Server::HandlerResponse::Handled;
  });
  // Headers every answer carries: API answers hold session data and are
  // never to be cached or sniffed as another type (the console's files say
  // "no-cache" instead: they hold no session data). Over HTTPS, browsers are
  // told to use nothing else for hstsMaxAge seconds.
  const std::string hsts = !config_.tlsCert.empty() && config_.hstsMaxAge > 0
                               ? "max-age=" + std::to_string(config_.hstsMaxAge)
                               : std::string();
  svr.set_post_routing_handler([hsts](const httplib::Request& req, httplib::Response& res) {
    if (t_requestId.empty()) t_requestId = requestIdOf(req);
    res.set_header("X-Request-Id", t_requestId);
    if (!hsts.empty()) res.set_header("Strict-Transport-Security", hsts);
    if (!res.has_header("Cache-Control")) res.set_header("Cache-Control", "no-store");
    res.set_header("X-Content-Type-Options", "nosniff");
    // The console's pages bring their own, wider policy; API answers load
    // nothing.
    if (!res.has_header("Content-Security-Policy")) {
      res.set_header("Content-Security-Policy", "default-src 'none'; frame-ancestors 'none'");
    }
    if (res.get_header_value("Connection") == "close") res.headers.erase("Keep-Alive");
  });

  const bool secure = !config_.tlsCert.empty();
  const Dispatcher& dispatcher = dispatcher_;
  httplib::Server::Handler plain = [&dispatcher, secure](const httplib::Request& req,
                                                         httplib::Response& res) {
    HttpInput in = toInput(req);
    in.body = req.body;
    writeOutput(dispatcher.handle(in), res, secure);
  };
  // Chunked bodies carry no length for cpp-httplib to check, so the
  // receivers count too.
  const size_t limit = config_.maxBody + kMultipartOverhead;
  httplib::Server::HandlerWithContentReader reading =
      [&dispatcher, limit, secure](const httplib::Request& req, httplib::Response& res,
                                   const httplib::ContentReader& reader) {
        // A declared length over the limit is refused before a byte of the
        // body is read (cpp-httplib would otherwise read and drop all of it).
        if (declaredLength(req) > limit) {
          refuse(res, 413, kErrBodyTooLarge, describeCode(kErrBodyTooLarge));
          return;
        }
        HttpInput in = toInput(req);
        size_t received = 0;
        bool tooLarge = false;
        auto count = [&](size_t length) {
          received += length;
          tooLarge = received > limit;
          return !tooLarge;
        };
        bool complete = false;
        if (!req.has_header("Content-Length") && !isChunked(req)) {
          // No length and no chunks: the body is empty (cpp-httplib would
          // otherwise wait for the client to close).
          complete = true;
        } else if (req.is_multipart_form_data()) {
          in.multipart = true;
          complete = reader(
              [&in](const httplib::MultipartFormData& part) {
                in.parts.push_back(FormPart{part.name, part.filename, part.content_type, ""});
                return true;
              },
              [&in, &count](const char* data, size_t length) {
                if (!count(length)) return false;
                if (!in.parts.empty()) in.parts.back().content.append(data, length);
                return true;
              });
        } else {
          complete = reader([&in, &count](const char* data, size_t length) {
            if (!count(length)) return false;
            in.body.append(data, length);
            return true;
          });
        }
        if (!complete) {
          // cpp-httplib refuses a declared length over the limit itself.
          if (res.status == 413) tooLarge = true;
          if (!tooLarge) {
            // The client went away or stopped sending: nothing of the body
            // reaches an operation, so nothing is imported or written.
            CQPNDebugKitGuard guard(kTraceModule, "readBody");
            guard.warn(0, "readBody", __LINE__,
                       "request body of %s %s from %s cut off after %zu of %s bytes",
                       req.method.c_str(), req.path.c_str(), req.remote_addr.c_str(), received,
                       req.has_header("Content-Length")
                           ? req.get_header_value("Content-Length").c_str()
                           : "(chunked)");
          }
          const long long code = tooLarge ? kErrBodyTooLarge : kErrBadRequest;
          // The rest of the body may still be on the wire: this connection
          // cannot carry another request.
          refuse(res, httpStatusForCode(code), code,
                 tooLarge ? describeCode(code) : "The request body could not be read.");
          return;
        }
        writeOutput(dispatcher.handle(in), res, secure);
      };
  const char* const kAll = ".*";
  svr.Get(kAll, plain);
  svr.Options(kAll, plain);
  svr.Delete(kAll, plain);  // a DELETE without a body
  svr.Post(kAll, reading);
  svr.Put(kAll, reading);
  svr.Patch(kAll, reading);
  svr.Delete(kAll, reading);

  svr.set_error_handler(
      httplib::Server::HandlerWithResponse([](const httplib::Request&, httplib::Response& res) {
        if (!res.body.empty() || res.content_provider_) {
          return httplib::Server::HandlerResponse::Unhandled;
        }
        // cpp-httplib's own refusals (a request line or header it could not
        // read, a body over its limit) leave the connection at an unknown
        // place in the stream: the answer ends it.
        const long long code = codeForLibraryStatus(res.status);
        refuse(res, res.status, code, describeCode(code));
        return httplib::Server::HandlerResponse::Handled;
      }));
  svr.set_exception_handler(
      [](const httplib::Request&, httplib::Response& res, const std::exception_ptr&) {
        res.status = 500;
        res.set_content(toCompactJson(errorEnvelope(kErrInternal, describeCode(kErrInternal))),
                        "application/json");
      });

  AccessLog& accessLog = accessLog_;
  Metrics* metrics = dispatcher_.metrics();
  svr.set_logger([&accessLog, metrics](const httplib::Request& req, const httplib::Response& res) {
    AccessRecord record;
    record.client = req.remote_addr;
    record.method = req.method;
    const size_t mark = req.target.find('?');
    record.path = req.target.substr(0, mark);
    record.status = res.status;
    record.bytes = res.body.empty() ? res.content_length_ : res.body.size();
    // Requests cpp-httplib refuses before routing never set the start time.
    const Clock::time_point started = t_started == Clock::time_point() ? Clock::now() : t_started;
    t_started = Clock::time_point();
    record.milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count();
    record.user = t_user;
    record.session = t_session;
    record.requestId = t_requestId;
    accessLog.write(record);
    if (metrics != nullptr) {
      const double seconds =
          std::chrono::duration<double>(Clock::now() - started).count();
      // Refused by the transport before any route saw it (a body over the
      // limit, a malformed request): counted under "other", and an upload
      // refused for its size counted as such.
      if (t_route.empty() && res.status == 413 && record.path.find("/import_") != std::string::npos) {
        metrics->uploadRefused("too_large");
      }
      metrics->observe(t_route.empty() ? kOtherRoute : t_route, res.status, seconds);
    }
    t_route.clear();
    t_requestId.clear();
    setTraceRequestId(std::string());
    if (t_stopReading) {
      t_stopReading = false;
      stopReading(req);
    }
  });
}

bool HttpServer::run() { return server_->listen_after_bind(); }

bool HttpServer::running() const { return server_ && server_->is_running(); }

void HttpServer::stop() {
  if (server_) server_->stop();
}

}  // namespace gw
