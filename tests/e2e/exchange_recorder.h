// Records what the end-to-end tests ask and what the gateway answers, for
// the contract test (tests/api/CMakeLists.txt), which checks every recorded
// answer against the OpenAPI document the gateway serves.
//
// Recording is on when the environment variable NOX_RECORD_EXCHANGES names a
// file: each exchange is appended to it as one JSON line
//   {"method":"GET","target":"/kestrel_task?limit=2","status":200,
//    "contentType":"application/json","body":"{...}","test":"QueriesE2E.X"}
// Without the variable nothing is written.
//
//   httplib::Client client("127.0.0.1", gateway.port());
//   recordExchanges(client);             // every answer of this client
//   recordRawAnswer(requestBytes, answerBytes);   // hand-made requests
//
// Thread-safety: any thread; each line goes out in one append.
#ifndef NOX_TESTS_E2E_EXCHANGE_RECORDER_H_
#define NOX_TESTS_E2E_EXCHANGE_RECORDER_H_

#include <httplib.h>

#include <string>

// Appends one exchange when recording is on. `target` is the request target
// as sent (path and query).
void recordExchange(const std::string& method, const std::string& target, int status,
                    const std::string& contentType, const std::string& body);

// Records the first answer in `answer` (the bytes a raw connection
// received: status line, headers, body) to the first request in `request`.
// Does nothing when either holds no complete head.
void recordRawAnswer(const std::string& request, const std::string& answer);

// Makes `client` record every answer it receives (httplib::Client or
// httplib::SSLClient).
template <class Client>
void recordExchanges(Client& client) {
  client.set_logger([](const httplib::Request& req, const httplib::Response& res) {
    recordExchange(req.method, req.path, res.status, res.get_header_value("Content-Type"),
                   res.body);
  });
}

#endif  // NOX_TESTS_E2E_EXCHANGE_RECORDER_H_
