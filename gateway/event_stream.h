// Server-sent events: GET /events (and /v1/events) streams the backend's
// changes to a client as `task` and `alarm` events, text/event-stream.
//
//   id: 42                      <- the backend's sequence number
//   event: task
//   data: {"id":"1002","taskId":"1002","status":2,"progress":46,...}
//
// EventHub is the gateway's side of it: it admits a stream (a session, the
// access table's rule for GET /events, the limits per session and in
// total), replays the changes a resuming client missed (Last-Event-ID, or
// the query argument lastEventId) from the ChangeFeed's backlog or tells it
// to reload (event `reset`), hands each new change to every stream (through
// the LoopQueue of the stream's I/O loop), sends a heartbeat comment
// (": ping") to each every heartbeatSeconds, and ends the streams whose
// session ended (logout, expiry), checked every sessionCheckSeconds without
// keeping the session alive.
//
// A stream lives on the I/O thread of its connection (EventWriter below) and
// holds no worker: only the admission (the session store may be asked)
// runs on one, once.
//
// Thread-safety: every member of EventHub may be called from any thread.
#ifndef NOX_GATEWAY_EVENT_STREAM_H_
#define NOX_GATEWAY_EVENT_STREAM_H_

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>

#include "access_table.h"
#include "change_feed.h"
#include "http_mapping.h"

namespace gw {

// The paths of the stream (the default interface and "v1").
constexpr char kEventsPath[] = "/events";
constexpr char kEventsPathV1[] = "/v1/events";
// The header and the query argument that name the last event a client has.
constexpr char kLastEventIdHeader[] = "Last-Event-ID";
constexpr char kLastEventIdArg[] = "lastEventId";

// True when `path` (without query) names the stream.
bool isEventsPath(const std::string& path);

struct EventLimits {
  size_t perSession = 4;      // streams one session may hold open
  size_t total = 2000;        // streams the gateway holds open
  int heartbeatSeconds = 15;  // a ": ping" comment this often
  int sessionCheckSeconds = 2;  // how often ended sessions are looked for
  size_t maxQueuedBytes = size_t{1} << 20;  // a stream that falls this far behind is closed
};

// Where a stream's text goes: a connection, on its own I/O loop.
class EventSink {
 public:
  virtual ~EventSink() = default;
  // The loop the sink writes on.
  virtual boost::asio::any_io_executor loop() = 0;
  // Queues `text` to be written; on loop() only.
  virtual void write(std::shared_ptr<const std::string> text) = 0;
  // Writes what is queued, then closes; any thread.
  virtual void end() = 0;
};

// The texts on their way to the streams of one I/O loop, in order. They are
// written a few streams per turn of the loop: a request on the loop waits
// for one turn's writes at most, never for a change's whole fan-out.
class LoopQueue : public std::enable_shared_from_this<LoopQueue> {
 public:
  static constexpr size_t kWritesPerTurn = 8;

  explicit LoopQueue(boost::asio::any_io_executor loop) : loop_(std::move(loop)) {}
  // Queues `text` for `sink` (whose loop this is); any thread.
  void push(std::shared_ptr<EventSink> sink, std::shared_ptr<const std::string> text);

 private:
  // One turn's writes; on the loop.
  void drain();

  const boost::asio::any_io_executor loop_;
  std::mutex mutex_;
  std::deque<std::pair<std::shared_ptr<EventSink>, std::shared_ptr<const std::string>>> items_;
  bool scheduled_ = false;
};

// What the admission found: either a refusal to answer, or the stream's
// session, language and resume point.
struct EventAdmission {
  bool admitted = false;
  HttpOutput refusal;
  std::string token;      // the session's token: kept in memory only, never logged
  std::string sessionId;  // its public identifier (per-session limit)
  std::string user;
  std::string language;   // "en" or "zh": the alarms' texts
  long long lastEventId = -1;  // -1: none given, the stream starts now
};

class EventHub {
 public:
  // Looks a session up (and keeps it alive: the stream's request counts as
  // one); tells whether a session lives without keeping it alive.
  using Lookup = SessionLookup;
  using Alive = std::function<bool(const std::string& token)>;

  EventHub(ChangeFeed& feed, std::shared_ptr<const AccessTable> access, Lookup lookup,
           Alive alive, const EventLimits& limits);
  ~EventHub();
  EventHub(const EventHub&) = delete;
  EventHub& operator=(const EventHub&) = delete;

  // Starts the heartbeat and session thread; stop() ends every stream.
  void start();
  void stop();

  // Checks a request for the stream; may wait for the session store.
  EventAdmission admit(const HttpInput& in) const;
  // Opens an admitted stream within the limits: makes its sink with
  // `makeSink` (which gets the stream's id), writes the head of the answer
  // and what the client missed, and from then on every change. False, with
  // the refusal in *refusal, when a limit is reached (makeSink not called).
  bool attach(const EventAdmission& admission,
              const std::function<std::shared_ptr<EventSink>(uint64_t id)>& makeSink,
              HttpOutput* refusal);
  // The sink of stream `id` is closed.
  void detach(uint64_t id);
  // New changes (the feed's listener).
  void publish(const ChangeFeed::Events& events);

  // The bytes a stream may have waiting to be written.
  size_t maxQueuedBytes() const { return limits_.maxQueuedBytes; }

  // For /metrics.
  struct Counts {
    size_t open = 0;
    uint64_t opened = 0;
    uint64_t refusedLimit = 0;
    uint64_t resets = 0;
    uint64_t events = 0;  // events written, over all streams
  };
  Counts counts() const;
  // The metrics' lines of the streams (docs/operations.md, "Metrics").
  std::string metricsText() const;

  // The head of a stream's answer (status line and headers).
  static std::string answerHead();
  // One event's text: "id: N\nevent: NAME\ndata: JSON\n\n".
  static std::string eventText(const ChangeEvent& event, bool chinese);

 private:
  struct Stream {
    std::shared_ptr<EventSink> sink;
    std::shared_ptr<LoopQueue> queue;  // of the sink's loop
    std::string token;
    std::string sessionId;
    bool chinese = false;
    long long lastSent = 0;
  };
  void run();
  void endStreamsOf(const std::string& token);
  // The queue of `sink`'s loop; with mutex_ held.
  std::shared_ptr<LoopQueue> queueOf(EventSink& sink);
  // Queues `text` for `stream`; with mutex_ held.
  static void send(const Stream& stream, std::shared_ptr<const std::string> text);

  ChangeFeed& feed_;
  const std::shared_ptr<const AccessTable> access_;
  const Lookup lookup_;
  const Alive alive_;
  const EventLimits limits_;

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::map<uint64_t, Stream> streams_;
  std::map<std::string, size_t> perSession_;
  std::map<const boost::asio::execution_context*, std::shared_ptr<LoopQueue>> queues_;
  uint64_t nextId_ = 0;
  Counts counts_;
  bool stopping_ = false;
  std::thread thread_;
};

// A stream's sink on a connection's own stream (TCP, or TLS over TCP): the
// connection hands its stream over once the stream is admitted, and the
// writer keeps it until the client goes, a write fails, or end(). Texts are
// written in order, one write at a time, on the stream's executor.
template <class Stream>
class EventWriter final : public EventSink, public std::enable_shared_from_this<EventWriter<Stream>> {
 public:
  EventWriter(Stream stream, EventHub& hub, uint64_t id, size_t maxQueued)
      : stream_(std::move(stream)), hub_(hub), id_(id), maxQueued_(maxQueued) {}

  // Watches for the client going away (any read that ends).
  void watch() {
    boost::beast::get_lowest_layer(stream_).expires_never();
    stream_.async_read_some(boost::asio::buffer(readBuffer_),
                            [self = this->shared_from_this()](boost::beast::error_code ec, size_t) {
                              if (ec) return self->close();
                              self->watch();
                            });
  }

  boost::asio::any_io_executor loop() override { return stream_.get_executor(); }

  void write(std::shared_ptr<const std::string> text) override {
    if (closed_) return;
    queuedBytes_ += text->size();
    // A client that does not read is not waited for without end.
    if (queuedBytes_ > maxQueued_) return close();
    queue_.push_back(std::move(text));
    if (!writing_) writeNext();
  }

  void end() override {
    boost::asio::post(stream_.get_executor(), [self = this->shared_from_this()] {
      self->ending_ = true;
      if (!self->writing_) self->close();
    });
  }

 private:
  void writeNext() {
    if (queue_.empty()) {
      if (ending_) close();
      return;
    }
    writing_ = true;
    std::shared_ptr<const std::string> text = queue_.front();
    boost::asio::async_write(stream_, boost::asio::buffer(*text),
                             [self = this->shared_from_this(), text](boost::beast::error_code ec,
                                                                     size_t) {
                               self->writing_ = false;
                               self->queuedBytes_ -= text->size();
                               self->queue_.pop_front();
                               if (ec) return self->close();
                               self->writeNext();
                             });
  }

  void close() {
    if (closed_) return;
    closed_ = true;
    boost::beast::error_code ignored;
    auto& socket = boost::beast::get_lowest_layer(stream_).socket();
    socket.shutdown(boost::asio::ip::tcp::socket::shutdown_both, ignored);
    socket.close(ignored);
    hub_.detach(id_);
  }

  Stream stream_;
  EventHub& hub_;
  const uint64_t id_;
  const size_t maxQueued_;
  std::deque<std::shared_ptr<const std::string>> queue_;
  size_t queuedBytes_ = 0;
  bool writing_ = false;
  bool ending_ = false;
  bool closed_ = false;
  char readBuffer_[64] = {};
};

}  // namespace gw

#endif  // NOX_GATEWAY_EVENT_STREAM_H_
