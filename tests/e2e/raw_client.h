// RawClient: one TCP connection to the gateway on 127.0.0.1 for what an
// HTTP client library would not do: send half a request, send it slowly,
// stay silent, or stop reading. Answers read with readAnswer() are recorded
// for the API contract check.
//
//   RawClient raw(gateway.port());
//   ASSERT_TRUE(raw.connected());
//   raw.send("GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n");
//   std::string answer = raw.readAnswer();      // "HTTP/1.1 200 OK\r\n..."
//
//   RawClient other(gateway.port(), "127.0.0.5");  // from another loopback address
//
// Thread-safety: one thread per client.
#ifndef NOX_TESTS_E2E_RAW_CLIENT_H_
#define NOX_TESTS_E2E_RAW_CLIENT_H_

#include <string>

class RawClient {
 public:
  // Connects at once. `receiveBuffer` > 0 sets the socket's receive buffer
  // first (small: a client whose window fills quickly when it stops reading).
  explicit RawClient(int port, int receiveBuffer = 0);
  // Connects at once from `sourceAddress` (an IPv4 address of this host, such
  // as any of 127.0.0.0/8), so that the gateway sees that client address.
  RawClient(int port, const std::string& sourceAddress);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool connected() const { return connected_; }
  // Sends all of `bytes`; false when the connection is gone.
  bool send(const std::string& bytes);
  // Whether something (an answer, or the end) is waiting to be read now.
  bool readable() const;
  // One answer: its head and the Content-Length bytes of body that follow
  // (at most 60 s; what came when the server closed or time ran out).
  std::string readAnswer();
  // Reads until the server closes (true) or `timeoutMs` pass (false); what
  // came meanwhile is appended to *received when given.
  bool waitForClose(int timeoutMs, std::string* received = nullptr);
  void close();

 private:
  // Connects fd_ to 127.0.0.1:port; true on success.
  bool connectTo(int port);

  int fd_ = -1;
  bool connected_ = false;
  std::string request_;
};

#endif  // NOX_TESTS_E2E_RAW_CLIENT_H_
