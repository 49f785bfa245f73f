// The HTTP(S) side of the gateway: an event-driven HTTP/1.1 server on
// Boost.Beast. A few I/O threads (one per core by default) read and write
// every connection; a request, once whole, goes to a worker pool, where the
// dispatcher (and through it the plug-in) may block on the backend without
// delaying any other connection. The health check and the metrics read
// only what the gateway already knows (HealthMonitor) and are answered on
// the I/O threads; the fixed documents (/openapi.json, the console) have a
// small pool of their own, where nothing waits for the backend or the
// session store, so they never wait behind operations.
//
//   HttpServer server(config, dispatcher, accessLog);
//   if (!server.start(&error)) ...      // binds; server.port() is the port taken
//   server.run();                       // serves until stop(), then drains
//
// Limits are time and bytes per connection (ServerConfig); each refusal is
// an answer with the error envelope (408, 413, 414, 431, 503) in the access
// log, then the connection is closed.
//
// Thread-safety: stop() and the counters may be called from any thread (a
// signal thread, the metrics); everything else from the main thread.
#ifndef NOX_GATEWAY_HTTP_SERVER_H_
#define NOX_GATEWAY_HTTP_SERVER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "access_log.h"
#include "http_mapping.h"
#include "metrics.h"

namespace gw {

class EventHub;

struct ServerConfig {
  std::string host = "127.0.0.1";
  int port = 8080;  // 0: any free port
  int ioThreads = 0;             // threads reading and writing; 0: one per core
  int workers = 4;               // operations running at once
  size_t queueLimit = 1024;      // requests waiting for a worker; beyond it 503
  // Logins (the access table's login rules) run on threads of their own:
  // a login holds its thread for a pause after it succeeds, and that must
  // not hold up other requests. Their threads run at a lower priority.
  int loginThreads = 16;
  size_t maxBody = size_t{2} * 1024 * 1024;
  int headerTimeout = 10;        // seconds for a whole request header
  int readTimeout = 30;          // seconds of silence while a body arrives
  size_t minBodyRate = 1024;     // bytes per second a body must average after readTimeout
  int keepAliveTimeout = 5;      // seconds a connection may wait idle between requests
  int writeTimeout = 30;         // seconds a client may take to read an answer
  size_t maxConnections = 10000;  // open connections; beyond it new ones are closed at once
  size_t maxHeaderBytes = 8192;  // request line and header lines together
  size_t maxHeaders = 100;       // header lines
  int drainTimeout = 30;         // seconds stop() lets requests in flight finish
  std::string tlsCert;  // both set: HTTPS
  std::string tlsKey;
  long long hstsMaxAge = 31536000;  // Strict-Transport-Security max-age over HTTPS; 0: none
  // Proxies whose X-Forwarded-For names the client (forwarded_for.h); none:
  // the client is the connection's address.
  std::vector<AddressRange> trustedProxies;
};

// Room for the multipart framing around an upload of maxBody bytes: part
// headers, boundaries and form fields.
constexpr size_t kMultipartOverhead = size_t{64} * 1024;

class HttpServer {
 public:
  HttpServer(ServerConfig config, const Dispatcher& dispatcher, AccessLog& accessLog);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Sets up TLS and binds the address. Returns false with *error set when
  // TLS cannot be set up or the address cannot be bound.
  bool start(std::string* error);
  // The bound port (after start).
  int port() const;
  // Serves until stop(); returns once the requests in flight are answered
  // (or the drain time-out passed). A connection whose handler throws is
  // dropped, logged and counted; the others are served on.
  void run();
  // Stops accepting, closes idle connections and lets run() return once the
  // requests in flight are answered. Any thread; before run() too.
  void stop();
  // Whether run() has started serving (and not yet ended).
  bool running() const;

  TransportCounts counts() const;

  // Serves GET /events with `events` (event_stream.h); before start(). The
  // hub outlives the server's run().
  void setEvents(EventHub* events);

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace gw

#endif  // NOX_GATEWAY_HTTP_SERVER_H_
