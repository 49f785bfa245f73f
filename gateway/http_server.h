// The HTTP(S) side of the gateway: a cpp-httplib server with a fixed pool of
// worker threads that turns each request into an HttpInput, hands it to the
// Dispatcher and writes the HttpOutput back, logging one access line.
//
//   HttpServer server(config, dispatcher, accessLog);
//   if (!server.start(&error)) ...      // binds; server.port() is the port taken
//   server.run();                       // serves until stop()
//
// Thread-safety: stop() may be called from any thread (a signal thread);
// everything else from the main thread.
#ifndef NOX_GATEWAY_HTTP_SERVER_H_
#define NOX_GATEWAY_HTTP_SERVER_H_

#include <cstddef>
#include <memory>
#include <string>

#include "access_log.h"
#include "http_mapping.h"

namespace httplib {
class Server;
}

namespace gw {

struct ServerConfig {
  std::string host = "127.0.0.1";
  int port = 8080;  // 0: any free port
  int threads = 8;
  size_t maxBody = size_t{2} * 1024 * 1024;
  int readTimeout = 30;  // seconds to wait for more of a request, and to write an answer
  std::string tlsCert;  // both set: HTTPS
  std::string tlsKey;
  long long hstsMaxAge = 31536000;  // Strict-Transport-Security max-age over HTTPS; 0: none
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

  // Creates the server and binds the address. Returns false with *error set
  // when TLS cannot be set up or the address cannot be bound.
  bool start(std::string* error);
  // The bound port (after start).
  int port() const { return port_; }
  // Serves until stop(); returns after in-flight requests have finished.
  // Returns false when the server failed while listening.
  bool run();
  // Stops accepting; run() returns once the workers are done.
  void stop();
  // Whether run() has started accepting (and not yet ended). Thread-safe.
  bool running() const;

 private:
  void install();

  ServerConfig config_;
  const Dispatcher& dispatcher_;
  AccessLog& accessLog_;
  std::unique_ptr<httplib::Server> server_;
  int listenSocket_ = -1;  // the bound socket, to widen its backlog
  int port_ = -1;
};

}  // namespace gw

#endif  // NOX_GATEWAY_HTTP_SERVER_H_
