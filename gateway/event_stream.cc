#include "event_stream.h"

#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <set>
#include <vector>

#include "compact_json.h"
#include "error_table.h"
#include "request_decoding.h"
#include "request_session.h"

namespace gw {

namespace {

// How long a client waits before it reconnects after the stream ends.
constexpr int kRetryMs = 2000;
constexpr char kPing[] = ": ping\n\n";
constexpr char kEventsRuleMethod[] = "GET";

// A sequence number as a client sends it: digits only; -1 for anything else.
long long parseEventId(const std::string& text) {
  if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos) {
    return -1;
  }
  return std::atoll(text.c_str());
}

// What the query may say: the language, and the resume point.
struct StreamArguments {
  std::string language;
  std::string lastEventId;
};

// The first of each argument counts.
StreamArguments argumentsOf(const std::string& query) {
  StreamArguments args;
  bool language = false;
  bool lastEventId = false;
  for (auto& arg : parseQuery(query)) {
    if (arg.first == "LANGUAGE" && !language) {
      args.language = std::move(arg.second);
      language = true;
    } else if (arg.first == kLastEventIdArg && !lastEventId) {
      args.lastEventId = std::move(arg.second);
      lastEventId = true;
    }
  }
  return args;
}

// The resume point: the Last-Event-ID header, else the query argument.
long long lastEventIdOf(const HttpInput& in, const StreamArguments& args) {
  const std::string header = headerValue(in.headers, kLastEventIdHeader);
  return parseEventId(header.empty() ? args.lastEventId : header);
}

// "event: reset" with the head the client may go on from once it reloaded.
std::string resetText(long long head) {
  Json::Value data(Json::objectValue);
  data["reason"] = "The events after the given id are no longer kept: reload, then go on.";
  data["lastEventId"] = static_cast<Json::Int64>(head);
  return "id: " + std::to_string(head) + "\nevent: reset\ndata: " + toCompactJson(data) + "\n\n";
}

}  // namespace

bool isEventsPath(const std::string& path) {
  return path == kEventsPath || path == kEventsPathV1;
}

EventHub::EventHub(ChangeFeed& feed, std::shared_ptr<const AccessTable> access, Lookup lookup,
                   Alive alive, const EventLimits& limits)
    : feed_(feed),
      access_(std::move(access)),
      lookup_(std::move(lookup)),
      alive_(std::move(alive)),
      limits_(limits) {}

EventHub::~EventHub() { stop(); }

void EventHub::start() {
  if (thread_.joinable()) return;
  thread_ = std::thread([this] { run(); });
}

void EventHub::stop() {
  std::map<uint64_t, Stream> ending;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    ending = streams_;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
  for (auto& stream : ending) stream.second.sink->end();
}

EventAdmission EventHub::admit(const HttpInput& in) const {
  EventAdmission admission;
  const RequestTarget target = splitTarget(in.target);
  const std::string& path = target.path;
  const std::string& query = target.query;
  HttpRequest connection(in.method, path, in.clientAddress);
  for (const auto& header : in.headers) connection.addHeader(header.first, header.second);
  CSessionInfo info;
  RequestSession session = findRequestSession(connection, lookup_, info);
  if (session.unavailable) {
    admission.refusal = std::move(*session.unavailable);
    return admission;
  }
  if (!session.found) {
    admission.refusal = errorOutput(kErrSessionRequired, describeCode(kErrSessionRequired));
    return admission;
  }
  const StreamArguments args = argumentsOf(query);
  const std::string language = languageFromArgument(args.language);
  if (!language.empty()) info.setLanguage(language);
  if (!access_->rule(path, kEventsRuleMethod).allows(info.getUserContext().scope_)) {
    admission.refusal =
        errorOutput(kErrScopeForbidden, describeCode(kErrScopeForbidden, info.language()));
    return admission;
  }
  admission.admitted = true;
  admission.token = session.token;
  admission.sessionId = info.getHttpSession() ? info.getHttpSession()->getId() : session.token;
  admission.user = info.getUserContext().userName_;
  admission.language = info.language();
  admission.lastEventId = lastEventIdOf(in, args);
  return admission;
}

bool EventHub::attach(const EventAdmission& admission,
                      const std::function<std::shared_ptr<EventSink>(uint64_t id)>& makeSink,
                      HttpOutput* refusal) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopping_ || streams_.size() >= limits_.total ||
      perSession_[admission.sessionId] >= limits_.perSession) {
    ++counts_.refusedLimit;
    *refusal = errorOutput(stopping_ ? kErrBusy : kErrTooManyStreams,
                           describeCode(stopping_ ? kErrBusy : kErrTooManyStreams));
    return false;
  }
  const uint64_t id = ++nextId_;
  Stream stream;
  stream.sink = makeSink(id);
  stream.queue = queueOf(*stream.sink);
  stream.token = admission.token;
  stream.sessionId = admission.sessionId;
  stream.chinese = admission.language == "zh";
  send(stream, std::make_shared<const std::string>(answerHead()));
  // What the client missed, from the backlog, or a word that it must reload.
  ChangeFeed::Events missed;
  if (admission.lastEventId < 0) {
    stream.lastSent = feed_.head();
  } else if (feed_.since(admission.lastEventId, &missed)) {
    stream.lastSent = admission.lastEventId;
    for (const auto& event : missed) {
      send(stream, std::make_shared<const std::string>(eventText(*event, stream.chinese)));
      stream.lastSent = event->seq;
      ++counts_.events;
    }
  } else {
    stream.lastSent = feed_.head();
    send(stream, std::make_shared<const std::string>(resetText(stream.lastSent)));
    ++counts_.resets;
  }
  ++perSession_[stream.sessionId];
  streams_.emplace(id, std::move(stream));
  ++counts_.opened;
  return true;
}

std::shared_ptr<LoopQueue> EventHub::queueOf(EventSink& sink) {
  boost::asio::any_io_executor loop = sink.loop();
  const boost::asio::execution_context* context =
      &boost::asio::query(loop, boost::asio::execution::context);
  std::shared_ptr<LoopQueue>& queue = queues_[context];
  if (!queue) queue = std::make_shared<LoopQueue>(std::move(loop));
  return queue;
}

void EventHub::send(const Stream& stream, std::shared_ptr<const std::string> text) {
  stream.queue->push(stream.sink, std::move(text));
}

void EventHub::detach(uint64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = streams_.find(id);
  if (it == streams_.end()) return;
  auto held = perSession_.find(it->second.sessionId);
  if (held != perSession_.end() && --held->second == 0) perSession_.erase(held);
  streams_.erase(it);
}

void EventHub::publish(const ChangeFeed::Events& events) {
  if (events.empty()) return;
  // Each event is written out once per language and shared by the streams;
  // a stream that has none of the batch yet (the usual case) gets it in one
  // piece: one write for the whole batch.
  std::vector<std::pair<std::shared_ptr<const std::string>, std::shared_ptr<const std::string>>>
      texts;
  std::string wholeEn;
  std::string wholeZh;
  for (const auto& event : events) {
    texts.emplace_back(std::make_shared<const std::string>(eventText(*event, false)),
                       std::make_shared<const std::string>(eventText(*event, true)));
    wholeEn += *texts.back().first;
    wholeZh += *texts.back().second;
  }
  auto batchEn = std::make_shared<const std::string>(std::move(wholeEn));
  auto batchZh = std::make_shared<const std::string>(std::move(wholeZh));
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& entry : streams_) {
    Stream& stream = entry.second;
    if (stream.lastSent < events.front()->seq) {
      send(stream, stream.chinese ? batchZh : batchEn);
      stream.lastSent = events.back()->seq;
      counts_.events += events.size();
      continue;
    }
    for (size_t i = 0; i < events.size(); ++i) {
      // A client that resumed ahead of this gateway (from another one) has these.
      if (events[i]->seq <= stream.lastSent) continue;
      send(stream, stream.chinese ? texts[i].second : texts[i].first);
      stream.lastSent = events[i]->seq;
      ++counts_.events;
    }
  }
}

void EventHub::run() {
  using Clock = std::chrono::steady_clock;
  auto nextPing = Clock::now() + std::chrono::seconds(limits_.heartbeatSeconds);
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    wake_.wait_for(lock, std::chrono::seconds(limits_.sessionCheckSeconds),
                   [this] { return stopping_; });
    if (stopping_) break;
    std::set<std::string> tokens;
    for (const auto& entry : streams_) tokens.insert(entry.second.token);
    if (Clock::now() >= nextPing) {
      auto ping = std::make_shared<const std::string>(kPing);
      for (auto& entry : streams_) send(entry.second, ping);
      nextPing = Clock::now() + std::chrono::seconds(limits_.heartbeatSeconds);
    }
    // The session store may take its time: asked without the lock.
    lock.unlock();
    std::vector<std::string> ended;
    for (const std::string& token : tokens) {
      try {
        if (!alive_(token)) ended.push_back(token);
      } catch (const std::exception&) {
        // The store cannot say now: the stream goes on until it can.
      }
    }
    for (const std::string& token : ended) endStreamsOf(token);
    lock.lock();
  }
}

void EventHub::endStreamsOf(const std::string& token) {
  std::vector<std::shared_ptr<EventSink>> sinks;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& entry : streams_) {
      if (entry.second.token == token) sinks.push_back(entry.second.sink);
    }
  }
  for (const auto& sink : sinks) sink->end();
}

EventHub::Counts EventHub::counts() const {
  std::lock_guard<std::mutex> lock(mutex_);
  Counts c = counts_;
  c.open = streams_.size();
  return c;
}

std::string EventHub::metricsText() const {
  const Counts c = counts();
  std::string out;
  appendMetricSample(&out, "nox_event_streams_open", "gauge", "Event streams (GET /events) open now.",
                     std::to_string(c.open));
  appendMetricSample(&out, "nox_event_streams_opened_total", "counter", "Event streams opened.",
                     std::to_string(c.opened));
  appendMetricSample(&out, "nox_event_streams_refused_total", "counter",
                     "Event streams refused for a limit.", std::to_string(c.refusedLimit));
  appendMetricSample(&out, "nox_event_stream_resets_total", "counter",
                     "Streams told to reload (resumed too far back).", std::to_string(c.resets));
  appendMetricSample(&out, "nox_events_sent_total", "counter", "Events written to streams.",
                     std::to_string(c.events));
  return out;
}

void LoopQueue::push(std::shared_ptr<EventSink> sink, std::shared_ptr<const std::string> text) {
  std::lock_guard<std::mutex> lock(mutex_);
  items_.emplace_back(std::move(sink), std::move(text));
  if (scheduled_) return;
  scheduled_ = true;
  boost::asio::post(loop_, [self = shared_from_this()] { self->drain(); });
}

void LoopQueue::drain() {
  std::vector<std::pair<std::shared_ptr<EventSink>, std::shared_ptr<const std::string>>> turn;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const size_t count = std::min(items_.size(), kWritesPerTurn);
    turn.assign(std::make_move_iterator(items_.begin()),
                std::make_move_iterator(items_.begin() + static_cast<std::ptrdiff_t>(count)));
    items_.erase(items_.begin(), items_.begin() + static_cast<std::ptrdiff_t>(count));
  }
  for (auto& item : turn) item.first->write(std::move(item.second));
  std::lock_guard<std::mutex> lock(mutex_);
  if (items_.empty()) {
    scheduled_ = false;
    return;
  }
  // The rest in a later turn: what the loop got meanwhile goes first.
  boost::asio::post(loop_, [self = shared_from_this()] { self->drain(); });
}

std::string EventHub::answerHead() {
  // No length: the answer lasts as long as the stream. Proxies (nginx) must
  // not hold it back in a buffer, and nobody may keep a copy.
  return "HTTP/1.1 200 OK\r\n"
         "Content-Type: text/event-stream; charset=utf-8\r\n"
         "Cache-Control: no-store\r\n"
         "X-Accel-Buffering: no\r\n"
         "X-Content-Type-Options: nosniff\r\n"
         "Connection: close\r\n"
         "\r\n"
         "retry: " + std::to_string(kRetryMs) + "\n\n";
}

std::string EventHub::eventText(const ChangeEvent& event, bool chinese) {
  return "id: " + std::to_string(event.seq) + "\nevent: " + event.name() +
         "\ndata: " + toCompactJson(chinese ? event.dataZh : event.data) + "\n\n";
}

}  // namespace gw
