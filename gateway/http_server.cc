#include "http_server.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <pthread.h>
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

#include "error_table.h"
#include "event_loop.h"
#include "event_stream.h"
#include "http_answer.h"
#include "qpn_debug_kit.h"
#include "request_checks.h"
#include "tls.h"
#include "trace_sink.h"
#include "worker_pool.h"

namespace gw {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kTraceModule = 4;  // the gateway's records in the trace log
// Threads of the pool for the fixed documents (their line is --queue too).
constexpr size_t kServiceThreads = 2;
// How much lower the login threads' priority is (nice(2)): a login's
// password hash, in a backend in process, yields to other requests.
constexpr int kLoginNiceness = 10;
// After a refusal the connection is closed once the client has stopped
// sending or after this long: closing with unread bytes would reset the
// connection and could destroy the answer before the client reads it.
constexpr auto kLingerTime = std::chrono::seconds(2);
constexpr size_t kLingerBytes = size_t{1} << 20;

int defaultIoThreads() {
  const unsigned cores = std::thread::hardware_concurrency();
  return cores > 0 ? static_cast<int>(cores) : 1;
}

// One event loop per I/O thread, each told it has one thread (its queue is
// still safe to post to from the workers).
std::vector<std::unique_ptr<boost::asio::io_context>> makeLoops(int count) {
  std::vector<std::unique_ptr<boost::asio::io_context>> loops;
  for (int i = 0; i < std::max(count, 1); ++i) {
    loops.push_back(std::make_unique<boost::asio::io_context>(1));
  }
  return loops;
}

}  // namespace

// What every connection shares: the settings, the pools, the counters and
// the list of open connections (for stop()).
struct HttpServer::Impl {
  Impl(ServerConfig c, const Dispatcher& d, AccessLog& log)
      : config(std::move(c)),
        dispatcher(d),
        accessLog(log),
        transportLimit(config.maxBody + kMultipartOverhead),
        operations("operations",
                   static_cast<size_t>(config.workers > 0 ? config.workers : 1),
                   config.queueLimit),
        service("service", kServiceThreads, config.queueLimit),
        logins("logins", static_cast<size_t>(config.loginThreads > 0 ? config.loginThreads : 1),
               config.queueLimit, kLoginNiceness),
        loops(makeLoops(config.ioThreads > 0 ? config.ioThreads : defaultIoThreads())),
        acceptor(*loops.front()) {}

  class Connection;  // what stop() reaches on every open connection

  void accept();
  void onAccept(beast::error_code ec, tcp::socket socket);
  void beginStop();
  void checkDrained();

  size_t track(const std::shared_ptr<Connection>& connection);
  void untrack(size_t id) {
    std::lock_guard<std::mutex> lock(connectionsMutex);
    connections.erase(id);
  }

  const ServerConfig config;
  const Dispatcher& dispatcher;
  AccessLog& accessLog;
  const size_t transportLimit;
  EventHub* events = nullptr;  // GET /events, when set
  std::optional<net::ssl::context> tls;
  std::string hsts;
  int port = -1;

  WorkerPool operations;
  WorkerPool service;
  WorkerPool logins;

  std::atomic<size_t> open{0};
  std::atomic<uint64_t> refused{0};
  std::atomic<uint64_t> handlerFailures{0};
  std::atomic<bool> stopping{false};
  std::atomic<bool> serving{false};
  std::atomic<bool> stopBegun{false};

  std::mutex connectionsMutex;
  std::unordered_map<size_t, std::weak_ptr<Connection>> connections;
  size_t nextId = 0;

  // Last: destroyed first, with every handler (and connection) they hold,
  // while the rest is still there.
  //
  // Each I/O thread runs a loop of its own, and a connection lives on one
  // loop for its whole life: its handlers run one after another on that
  // thread without a strand, and no loop's lock or wake-up is shared with
  // another thread's connections. The listener is on the first loop and
  // deals new connections out in turn.
  std::vector<std::unique_ptr<net::io_context>> loops;
  size_t nextLoop = 0;  // the listener's loop only
  tcp::acceptor acceptor;
  std::vector<net::executor_work_guard<net::io_context::executor_type>> work;
  std::optional<net::steady_timer> drainTimer;
  Clock::time_point drainDeadline;
};

class HttpServer::Impl::Connection : public std::enable_shared_from_this<Connection> {
 public:
  virtual ~Connection() = default;
  // Closes the connection if it waits for a request; one being served is
  // closed after its answer.
  virtual void closeIfIdle() = 0;
};

namespace {

using Impl = HttpServer::Impl;

// What a connection knows of the request in hand, for its answer and its
// access log line; cleared after each answer.
struct RequestFacts {
  std::string method;
  std::string target;
  RequestTarget parts;  // target cut at its '?', once
  std::string client;   // the client takeInput found; "": the connection's peer
  unsigned version = 11;
  bool keepAlive = false;
  bool head = false;
  bool tooLargeUpload = false;  // refused 413 on a route that takes uploads
  AnswerContext context;  // secure and hstsMaxAge stay for the connection

  // Notes the method, target and version the parser took, where not yet
  // noted (a refusal may come before the header is whole).
  void noteRequestLine(const BeastRequest& req) {
    if (method.empty()) method = std::string(req.method_string());
    if (target.empty()) {
      target = std::string(req.target());
      parts = splitTarget(target);
    }
    version = req.version();
  }

  AccessRecord record(const HttpOutput& out, size_t bytes, const std::string& peer) const {
    AccessRecord r;
    r.client = client.empty() ? peer : client;
    r.method = method.empty() ? "-" : method;
    r.path = target.empty() ? "-" : parts.path;
    r.status = out.status;
    r.bytes = bytes;
    r.user = out.user;
    r.session = out.session;
    r.requestId = context.requestId;
    return r;
  }

  void clear() {
    method.clear();
    target.clear();
    parts = RequestTarget();
    client.clear();
    tooLargeUpload = false;
    context.requestId.clear();
    context.acceptEncoding.clear();
  }
};

// One client connection over `Stream` (a TCP stream, or TLS over one).
template <class Stream>
class Connection final : public Impl::Connection {
 public:
  Connection(Impl& server, Stream stream, std::string client)
      : server_(server),
        stream_(std::move(stream)),
        timer_(stream_.get_executor()),
        client_(std::move(client)) {
    ++server_.open;
    facts_.context.secure = !std::is_same_v<Stream, beast::tcp_stream>;
    facts_.context.hstsMaxAge = server_.config.hstsMaxAge;
  }
  ~Connection() override {
    server_.untrack(id_);
    --server_.open;
  }

  // Called on the listener's loop; the connection goes on on its own.
  void begin(size_t id) {
    id_ = id;
    net::post(stream_.get_executor(), [self = self()] { self->start(); });
  }

  void closeIfIdle() override {
    // The timer's executor: the stream may have gone to an event stream.
    net::post(timer_.get_executor(), [self = self()] {
      beast::error_code ignored;
      if (self->waiting_) self->socket().cancel(ignored);
    });
  }

 private:
  // What the deadline timer does when it fires.
  enum class Expiry { kClose, kTimeOut };

  void start() {
    if constexpr (std::is_same_v<Stream, beast::tcp_stream>) {
      waitForRequest(true);
    } else {
      arm(server_.config.headerTimeout, Expiry::kClose);
      stream_.async_handshake(net::ssl::stream_base::server,
                              [self = self()](beast::error_code ec) {
                                self->timer_.cancel();
                                if (ec) return self->closeNow();
                                self->waitForRequest(true);
                              });
    }
  }

  std::shared_ptr<Connection> self() {
    return std::static_pointer_cast<Connection>(shared_from_this());
  }
  tcp::socket& socket() { return beast::get_lowest_layer(stream_).socket(); }

  // Starts the deadline: when it passes, the pending read is cancelled and
  // `timedOut_` tells its handler why.
  void arm(int seconds, Expiry expiry) {
    timedOut_ = false;
    timer_.expires_after(std::chrono::seconds(seconds));
    timer_.async_wait([self = self(), expiry](beast::error_code ec) {
      if (ec) return;  // cancelled: the read finished first
      self->timedOut_ = true;
      beast::error_code ignored;
      if (expiry == Expiry::kClose) {
        self->socket().shutdown(tcp::socket::shutdown_both, ignored);
      }
      self->socket().cancel(ignored);
    });
  }

  // Waits for the first byte of the next request: the header time-out on a
  // new connection, the keep-alive time-out between requests. A connection
  // that sends nothing is closed without an answer.
  void waitForRequest(bool first) {
    if (server_.stopping) return closeNow();
    waiting_ = true;
    if (buffer_.size() > 0) return readHeader();
    arm(first ? server_.config.headerTimeout : server_.config.keepAliveTimeout, Expiry::kClose);
    // A waiting connection holds no buffer: the last request's goes, and
    // over plain TCP the wait is for the socket to become readable. (TLS
    // may hold decrypted bytes already, so it reads a first small piece.)
    buffer_.shrink_to_fit();
    if constexpr (std::is_same_v<Stream, beast::tcp_stream>) {
      socket().async_wait(tcp::socket::wait_read, [self = self()](beast::error_code ec) {
        self->timer_.cancel();
        if (ec) return self->closeNow();
        self->readHeader();
      });
    } else {
      stream_.async_read_some(buffer_.prepare(512),
                              [self = self()](beast::error_code ec, size_t n) {
                                self->timer_.cancel();
                                if (ec) return self->closeNow();
                                self->buffer_.commit(n);
                                self->readHeader();
                              });
    }
  }

  // Reads the header piece by piece, counting what the parser takes: the
  // limit holds for the whole header, however it is cut into packets.
  void readHeader() {
    waiting_ = false;
    parser_.emplace();
    parser_->header_limit(static_cast<std::uint32_t>(server_.config.maxHeaderBytes));
    parser_->body_limit(server_.transportLimit);
    headerBytes_ = 0;
    started_ = Clock::now();
    arm(server_.config.headerTimeout, Expiry::kTimeOut);
    readHeaderSome();
  }

  void readHeaderSome() {
    http::async_read_some(stream_, buffer_, *parser_,
                          [self = self()](beast::error_code ec, size_t n) {
                            self->headerBytes_ += n;
                            if (!ec && self->headerBytes_ > self->server_.config.maxHeaderBytes) {
                              ec = http::error::header_limit;
                            }
                            if (!ec && !self->parser_->is_header_done()) {
                              return self->readHeaderSome();
                            }
                            self->timer_.cancel();
                            self->onHeader(ec);
                          });
  }

  void onHeader(beast::error_code ec) {
    if (timedOut_) {
      return refuse(408, kErrRequestTimeout, "The request header did not arrive in time.");
    }
    if (ec) return onHeaderError(ec);
    const auto& req = parser_->get();
    facts_.noteRequestLine(req);
    // Each refusal here closes the connection: a body may follow that was
    // never read.
    if (!headerAcceptable()) return;
    if (parser_->is_done()) return dispatch();
    bodyStarted_ = Clock::now();
    if (req.version() >= 11 && beast::iequals(req[http::field::expect], "100-continue")) {
      return sendContinue();
    }
    readBody();
  }

  // The header could not be read: the client went away, or sent too much
  // or something unreadable.
  void onHeaderError(beast::error_code ec) {
    const std::optional<Refusal> refusal =
        headerReadRefusal(ec, !parser_->get().method_string().empty());
    if (!refusal) return closeNow();
    refuse(*refusal);
  }

  // Whether the header read is one the gateway serves; refuses it otherwise.
  bool headerAcceptable() {
    const std::optional<Refusal> refusal =
        headerRefusal(parser_->get(), parser_->chunked(), server_.config);
    if (refusal) refuse(*refusal);
    return !refusal;
  }

  // The client waits for "100 Continue" before it sends the body.
  void sendContinue() {
    auto go = std::make_shared<http::response<http::empty_body>>(http::status::continue_, 11);
    beast::get_lowest_layer(stream_).expires_after(
        std::chrono::seconds(server_.config.writeTimeout));
    http::async_write(stream_, *go, [self = self(), go](beast::error_code ec, size_t) {
      beast::get_lowest_layer(self->stream_).expires_never();
      if (ec) return self->closeNow();
      self->readBody();
    });
  }

  void readBody() {
    arm(server_.config.readTimeout, Expiry::kTimeOut);
    http::async_read_some(stream_, buffer_, *parser_,
                          [self = self()](beast::error_code ec, size_t) {
                            self->timer_.cancel();
                            self->onBody(ec);
                          });
  }

  void onBody(beast::error_code ec) {
    const size_t received = parser_->get().body().size();
    if (ec == http::error::body_limit) {
      return refuse(413, kErrBodyTooLarge, describeCode(kErrBodyTooLarge));
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - bodyStarted_).count();
    const bool tooSlow = !ec && !parser_->is_done() && seconds > server_.config.readTimeout &&
                         static_cast<double>(received) <
                             seconds * static_cast<double>(server_.config.minBodyRate);
    if (timedOut_ || tooSlow || ec) {
      // The client went away, stopped sending or sends too slowly: nothing
      // of the body reaches an operation, so nothing is imported or written.
      const auto& req = parser_->get();
      const auto length = req.find(http::field::content_length);
      CQPNDebugKitGuard guard(kTraceModule, "readBody");
      guard.warn(0, "readBody", __LINE__,
                 "request body of %s %s from %s cut off after %zu of %s bytes",
                 facts_.method.c_str(), facts_.parts.path.c_str(), client_.c_str(), received,
                 length != req.end() ? std::string(length->value()).c_str() : "(chunked)");
      if (timedOut_ || tooSlow) {
        return refuse(408, kErrRequestTimeout,
                      tooSlow ? "The request body arrives too slowly."
                              : "The request body did not arrive in time.");
      }
      if (ec == http::error::partial_message || ec == net::error::eof ||
          ec == http::error::end_of_stream || ec == net::error::connection_reset) {
        return closeNow();
      }
      return refuse(400, kErrBadRequest, "The request body could not be read.");
    }
    if (!parser_->is_done()) return readBody();
    dispatch();
  }

  // The request is whole: it goes to a worker; the answer comes back here.
  void dispatch() {
    HttpInput in = takeInput();
    if (std::optional<Refusal> refusal = decodeRequestBody(&in, server_.transportLimit)) {
      return refuse(*refusal);
    }
    // The health check and the metrics read only what the gateway already
    // knows and cost next to nothing: answered here, without a hand-over to
    // a thread, so no stalled backend or session store can delay them.
    if (server_.events != nullptr && isEventsPath(facts_.parts.path)) {
      if (facts_.method != "GET") {
        return answer(refusal(405, kErrMethodNotAllowed, describeCode(kErrMethodNotAllowed)));
      }
      return openEvents(std::move(in));
    }
    RoutePlan plan = server_.dispatcher.plan(in.method, facts_.parts);
    if (plan.builtIn == BuiltInPath::kCheck) {
      HttpOutput out = server_.dispatcher.handle(in, plan);
      return answer(std::move(out));
    }
    WorkerPool& pool = plan.builtIn != BuiltInPath::kNone ? server_.service
                       : plan.rule->login                 ? server_.logins
                                                          : server_.operations;
    const bool queued = pool.submit([self = self(), in = std::move(in), plan = std::move(plan)] {
      setTraceRequestId(self->facts_.context.requestId);
      HttpOutput out = self->server_.dispatcher.handle(in, plan);
      setTraceRequestId(std::string());
      // Compressing is work too: done here, not on the I/O thread.
      finishAnswer(&out, self->facts_.context);
      net::post(self->stream_.get_executor(), [self, out = std::move(out)]() mutable {
        self->write(std::move(out));
      });
    });
    // The refusal carries Retry-After, as every 503 does (errorOutput).
    if (!queued) answer(refusal(503, kErrBusy, describeCode(kErrBusy)));
  }

  // GET /events: the session is checked on a worker (the store may be
  // asked), then the connection's stream goes to an EventWriter on this
  // loop, which holds it for as long as the stream lasts; no worker waits.
  void openEvents(HttpInput in) {
    const bool queued = server_.operations.submit([self = self(), in = std::move(in)] {
      auto admission = std::make_shared<EventAdmission>(self->server_.events->admit(in));
      net::post(self->stream_.get_executor(), [self, admission] { self->startEvents(*admission); });
    });
    if (!queued) answer(refusal(503, kErrBusy, describeCode(kErrBusy)));
  }

  void startEvents(const EventAdmission& admission) {
    HttpOutput refused;
    if (admission.admitted &&
        server_.events->attach(admission, [this](uint64_t id) {
          auto writer = std::make_shared<EventWriter<Stream>>(
              std::move(stream_), *server_.events, id, server_.events->maxQueuedBytes());
          writer->watch();
          return writer;
        }, &refused)) {
      return;
    }
    if (!admission.admitted) return answer(admission.refusal);
    answer(std::move(refused));
  }

  // The parsed request as the dispatcher takes it; notes what the answer
  // needs (keep-alive, version, HEAD, request id, encodings).
  HttpInput takeInput() {
    auto& req = parser_->get();
    HttpInput in;
    in.method = facts_.method;
    in.target = facts_.target;
    for (const auto& field : req) {
      in.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
    }
    facts_.client = requestClientOf(req, client_, server_.config.trustedProxies);
    in.clientAddress = facts_.client;
    in.body = std::move(req.body());
    facts_.keepAlive = req.keep_alive();
    facts_.version = req.version();
    facts_.head = facts_.method == "HEAD";
    facts_.context.requestId = requestIdFor(headerValue(in.headers, "X-Request-Id"));
    facts_.context.acceptEncoding = headerValue(in.headers, "Accept-Encoding");
    return in;
  }

  // Refuses the request in hand and closes the connection after the answer.
  void refuse(const Refusal& refusal) {
    refuse(refusal.status, refusal.code, refusal.description);
  }
  void refuse(int status, long long code, const std::string& description) {
    // What the parser took of the request line, for the access log.
    if (parser_ && !parser_->get().method_string().empty()) facts_.noteRequestLine(parser_->get());
    if (facts_.context.requestId.empty()) facts_.context.requestId = requestIdFor(std::string());
    facts_.keepAlive = false;
    facts_.head = facts_.method == "HEAD";
    if (status == 413 && !facts_.method.empty()) {
      // No plan was made for a request refused before it was whole: made
      // here, so that the metrics count an upload refused for its size.
      const RoutePlan plan = server_.dispatcher.plan(facts_.method, facts_.parts);
      facts_.tooLargeUpload = plan.rule != nullptr && plan.rule->upload;
    }
    HttpOutput out = refusal(status, code, description);
    out.route = std::string();  // no route saw it
    answer(std::move(out));
  }

  // Completes `out` (see finishAnswer) and writes it.
  void answer(HttpOutput out) {
    finishAnswer(&out, facts_.context);
    write(std::move(out));
  }

  void write(HttpOutput out) {
    const size_t bytes = out.body.size();
    res_.emplace(wireAnswer(out, facts_.version, facts_.keepAlive && !server_.stopping, facts_.head));
    record_ = facts_.record(out, bytes, client_);
    route_ = out.route;
    beast::get_lowest_layer(stream_).expires_after(
        std::chrono::seconds(server_.config.writeTimeout));
    if (facts_.head) {
      serializer_.emplace(*res_);
      http::async_write_header(stream_, *serializer_,
                               [self = self()](beast::error_code ec, size_t) { self->onWritten(ec); });
    } else {
      http::async_write(stream_, *res_,
                        [self = self()](beast::error_code ec, size_t) { self->onWritten(ec); });
    }
  }

  void onWritten(beast::error_code ec) {
    beast::get_lowest_layer(stream_).expires_never();
    const Clock::time_point now = Clock::now();
    record_.milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now - started_).count();
    server_.accessLog.write(record_);
    if (Metrics* metrics = server_.dispatcher.metrics()) {
      // Refused by the transport before any route saw it: counted under
      // "other", and an upload refused for its size counted as such.
      if (route_.empty() && facts_.tooLargeUpload) metrics->uploadRefused("too_large");
      metrics->observe(route_.empty() ? kOtherRoute : route_, record_.status,
                       std::chrono::duration<double>(now - started_).count());
    }
    const bool keep = !ec && res_->keep_alive();
    serializer_.reset();
    res_.reset();
    parser_.reset();
    facts_.clear();
    if (ec) return closeNow();
    if (!keep) return closeGently();
    waitForRequest(false);
  }

  // Ends the connection after an answer: no more from this side, then what
  // the client still sends is read and dropped until it closes too (or a
  // short while passes), so that the answer is not lost to a reset.
  void closeGently() {
    if constexpr (!std::is_same_v<Stream, beast::tcp_stream>) {
      beast::get_lowest_layer(stream_).expires_after(kLingerTime);
      stream_.async_shutdown([self = self()](beast::error_code) { self->closeNow(); });
    } else {
      beast::error_code ignored;
      socket().shutdown(tcp::socket::shutdown_send, ignored);
      lingered_ = 0;
      beast::get_lowest_layer(stream_).expires_after(kLingerTime);
      drain();
    }
  }

  void drain() {
    buffer_.clear();
    stream_.async_read_some(buffer_.prepare(16384), [self = self()](beast::error_code ec, size_t n) {
      self->lingered_ += n;
      if (ec || self->lingered_ > kLingerBytes) return self->closeNow();
      self->drain();
    });
  }

  void closeNow() {
    waiting_ = false;
    timer_.cancel();
    beast::error_code ignored;
    socket().shutdown(tcp::socket::shutdown_both, ignored);
    socket().close(ignored);
  }

  Impl& server_;
  Stream stream_;
  net::steady_timer timer_;
  const std::string client_;
  size_t id_ = 0;
  bool waiting_ = false;  // for the first byte of a request: stop() may close it
  bool timedOut_ = false;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::optional<http::response<http::string_body>> res_;
  std::optional<http::response_serializer<http::string_body>> serializer_;
  RequestFacts facts_;
  Clock::time_point started_ = Clock::now();
  Clock::time_point bodyStarted_;
  size_t headerBytes_ = 0;
  size_t lingered_ = 0;
  AccessRecord record_;
  std::string route_;
};

}  // namespace

size_t HttpServer::Impl::track(const std::shared_ptr<Connection>& connection) {
  std::lock_guard<std::mutex> lock(connectionsMutex);
  const size_t id = ++nextId;
  connections.emplace(id, connection);
  return id;
}

void HttpServer::Impl::accept() {
  net::io_context& loop = *loops[nextLoop++ % loops.size()];
  acceptor.async_accept(loop, [this](beast::error_code ec, tcp::socket socket) {
    onAccept(ec, std::move(socket));
  });
}

void HttpServer::Impl::onAccept(beast::error_code ec, tcp::socket socket) {
  if (stopping || !acceptor.is_open()) return;
  if (ec) {
    // Out of file descriptors and the like: wait a moment rather than spin.
    auto pause = std::make_shared<net::steady_timer>(acceptor.get_executor(),
                                                     std::chrono::milliseconds(50));
    pause->async_wait([this, pause](beast::error_code) {
      if (!stopping) accept();
    });
    return;
  }
  if (open.load() >= config.maxConnections) {
    ++refused;
    beast::error_code ignored;
    socket.close(ignored);
    return accept();
  }
  beast::error_code addressError;
  const tcp::endpoint peer = socket.remote_endpoint(addressError);
  std::string client = addressError ? std::string("-") : peer.address().to_string();
  socket.set_option(tcp::no_delay(true), addressError);
  if (tls) {
    auto connection = std::make_shared<::gw::Connection<beast::ssl_stream<beast::tcp_stream>>>(
        *this, beast::ssl_stream<beast::tcp_stream>(beast::tcp_stream(std::move(socket)), *tls),
        std::move(client));
    connection->begin(track(connection));
  } else {
    auto connection = std::make_shared<::gw::Connection<beast::tcp_stream>>(
        *this, beast::tcp_stream(std::move(socket)), std::move(client));
    connection->begin(track(connection));
  }
  accept();
}

void HttpServer::Impl::beginStop() {
  if (stopBegun.exchange(true)) return;
  drainDeadline = Clock::now() + std::chrono::seconds(config.drainTimeout);
  // On the listener's loop, in this order: no connection is accepted
  // after the listener is closed, so every connection that waits for a
  // request is among those closed next.
  net::post(acceptor.get_executor(), [this] {
    beast::error_code ignored;
    acceptor.close(ignored);
    std::vector<std::shared_ptr<Connection>> live;
    {
      std::lock_guard<std::mutex> lock(connectionsMutex);
      for (auto& entry : connections) {
        if (auto connection = entry.second.lock()) live.push_back(std::move(connection));
      }
    }
    for (auto& connection : live) connection->closeIfIdle();
    drainTimer.emplace(acceptor.get_executor());
    checkDrained();
  });
}

// Once no connection is left (or the drain time-out passed), lets run()
// return.
void HttpServer::Impl::checkDrained() {
  if (open.load() == 0) {
    work.clear();
    return;
  }
  if (Clock::now() >= drainDeadline) {
    for (auto& loop : loops) loop->stop();
    return;
  }
  drainTimer->expires_after(std::chrono::milliseconds(20));
  drainTimer->async_wait([this](beast::error_code) { checkDrained(); });
}

HttpServer::HttpServer(ServerConfig config, const Dispatcher& dispatcher, AccessLog& accessLog)
    : impl_(std::make_unique<Impl>(std::move(config), dispatcher, accessLog)) {}

HttpServer::~HttpServer() = default;

bool HttpServer::start(std::string* error) {
  Impl& s = *impl_;
  if (!s.config.tlsCert.empty()) {
    s.tls.emplace(net::ssl::context::tls_server);
    std::string tlsError;
    if (!configureTlsContext(s.tls->native_handle(), s.config.tlsCert, s.config.tlsKey,
                             &tlsError)) {
      *error = tlsError.empty() ? "cannot set up TLS" : tlsError;
      return false;
    }
  }
  beast::error_code ec;
  const net::ip::address address = net::ip::make_address(s.config.host, ec);
  const std::string where = s.config.host + ":" + std::to_string(s.config.port);
  if (ec) {
    *error = "cannot listen on " + where + ": not an IP address";
    return false;
  }
  const tcp::endpoint endpoint(address, static_cast<unsigned short>(s.config.port));
  s.acceptor.open(endpoint.protocol(), ec);
  if (!ec) s.acceptor.set_option(net::socket_base::reuse_address(true), ec);
  if (!ec) s.acceptor.bind(endpoint, ec);
  if (!ec) s.acceptor.listen(net::socket_base::max_listen_connections, ec);
  if (ec) {
    *error = "cannot listen on " + where + " (address in use or not local?)";
    return false;
  }
  s.port = s.acceptor.local_endpoint().port();
  return true;
}

int HttpServer::port() const { return impl_->port; }

void HttpServer::run() {
  Impl& s = *impl_;
  for (auto& loop : s.loops) s.work.push_back(net::make_work_guard(*loop));
  s.accept();
  s.serving = true;
  // stop() may have come before run() started: it is carried out now.
  if (s.stopping) s.beginStop();
  // A connection whose handler throws is dropped; the others are served on.
  std::vector<std::thread> threads;
  for (size_t i = 1; i < s.loops.size(); ++i) {
    threads.emplace_back([&s, &loop = *s.loops[i]] {
      pthread_setname_np(pthread_self(), "nox-io");
      runEventLoop(loop, s.handlerFailures);
    });
  }
  runEventLoop(*s.loops.front(), s.handlerFailures);
  for (std::thread& t : threads) t.join();
  // What the workers still do posts its answer to a stopped loop: finish it
  // before anything it refers to goes.
  s.operations.stop();
  s.service.stop();
  s.logins.stop();
  s.serving = false;
}

void HttpServer::setEvents(EventHub* events) { impl_->events = events; }

void HttpServer::stop() {
  Impl& s = *impl_;
  if (s.stopping.exchange(true)) return;
  if (s.serving) s.beginStop();
}

bool HttpServer::running() const { return impl_->serving; }

TransportCounts HttpServer::counts() const {
  TransportCounts counts;
  counts.openConnections = impl_->open.load();
  counts.refusedConnections = impl_->refused.load();
  counts.droppedConnections = impl_->handlerFailures.load();
  counts.waitingForWorker =
      impl_->operations.waiting() + impl_->service.waiting() + impl_->logins.waiting();
  // A login is an operation too, on threads of its own.
  counts.busyWorkers = impl_->operations.busy() + impl_->logins.busy();
  return counts;
}

}  // namespace gw
