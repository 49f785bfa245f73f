#include "http_server.h"

#include <httplib.h>

#include <sys/socket.h>

#include <cctype>
#include <chrono>

#include "error_table.h"
#include "qpn_debug_kit.h"
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

HttpInput toInput(const httplib::Request& req) {
  HttpInput in;
  in.method = req.method;
  in.target = req.target;
  in.clientAddress = req.remote_addr;
  for (const auto& header : req.headers) in.headers.emplace_back(header.first, header.second);
  return in;
}

void writeOutput(const HttpOutput& out, httplib::Response& res) {
  res.status = out.status;
  for (const auto& header : out.headers) res.headers.emplace(header.first, header.second);
  res.set_content(out.body, out.contentType.empty() ? "application/json" : out.contentType);
  t_user = out.user;
}

bool isChunked(const httplib::Request& req) {
  std::string value = req.get_header_value("Transfer-Encoding");
  for (char& c : value) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return value.find("chunked") != std::string::npos;
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

  svr.set_pre_routing_handler([](const httplib::Request&, httplib::Response&) {
    t_started = Clock::now();
    t_user.clear();
    return httplib::Server::HandlerResponse::Unhandled;
  });

  const Dispatcher& dispatcher = dispatcher_;
  httplib::Server::Handler plain = [&dispatcher](const httplib::Request& req,
                                                 httplib::Response& res) {
    HttpInput in = toInput(req);
    in.body = req.body;
    writeOutput(dispatcher.handle(in), res);
  };
  // Chunked bodies carry no length for cpp-httplib to check, so the
  // receivers count too.
  const size_t limit = config_.maxBody + kMultipartOverhead;
  httplib::Server::HandlerWithContentReader reading =
      [&dispatcher, limit](const httplib::Request& req, httplib::Response& res,
                           const httplib::ContentReader& reader) {
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
          HttpOutput out = errorOutput(
              code, tooLarge ? describeCode(code) : "The request body could not be read.");
          writeOutput(out, res);
          // The rest of the body may still be on the wire: this connection
          // cannot carry another request.
          res.set_header("Connection", "close");
          return;
        }
        writeOutput(dispatcher.handle(in), res);
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
        if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
        const long long code = codeForLibraryStatus(res.status);
        res.set_content(toCompactJson(errorEnvelope(code, describeCode(code))), "application/json");
        return httplib::Server::HandlerResponse::Handled;
      }));
  svr.set_exception_handler(
      [](const httplib::Request&, httplib::Response& res, const std::exception_ptr&) {
        res.status = 500;
        res.set_content(toCompactJson(errorEnvelope(kErrInternal, describeCode(kErrInternal))),
                        "application/json");
      });

  AccessLog& accessLog = accessLog_;
  svr.set_logger([&accessLog](const httplib::Request& req, const httplib::Response& res) {
    AccessRecord record;
    record.client = req.remote_addr;
    record.method = req.method;
    const size_t mark = req.target.find('?');
    record.path = req.target.substr(0, mark);
    record.status = res.status;
    record.bytes = res.body.size();
    record.milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t_started).count();
    record.user = t_user;
    accessLog.write(record);
  });
}

bool HttpServer::run() { return server_->listen_after_bind(); }

bool HttpServer::running() const { return server_ && server_->is_running(); }

void HttpServer::stop() {
  if (server_) server_->stop();
}

}  // namespace gw
