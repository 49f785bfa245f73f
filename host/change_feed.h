// ChangeFeed: the gateway's one follower of the backend's change log. A
// thread of its own keeps one "changes after N" call open at a time
// (proto::kChangesAfter, held by the backend until there is a change), turns
// each change into an event and hands the new events to the listener; a
// bounded backlog of the newest events lets a client that reconnects resume
// where it stopped, on this gateway or another (the numbers are the
// backend's).
//
//   ChangeFeed feed(ChangeFeed::Options{});
//   feed.setListener([](const ChangeFeed::Events& fresh) { ... });   // on the feed's thread
//   feed.start();
//   ChangeFeed::Events missed;
//   if (!feed.since(lastEventId, &missed)) ...   // too far behind: reload
//   feed.stop();
//
// When the backend cannot be asked, the feed retries every
// options.retryMs; events are never made up and never skipped: the next
// call asks for the changes after the last one it has.
//
// Thread-safety: since(), head() and floor() may be called from any thread;
// setListener() before start(); start() and stop() from one thread.
#ifndef NOX_HOST_CHANGE_FEED_H_
#define NOX_HOST_CHANGE_FEED_H_

#include <json/json.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "nox_visibility.h"
#include "tlv_package.h"

// One change as clients see it. `data` is a row as the task list or the
// alarm list answers it (a task with "id" added: its identifier, as the
// list's "taskId"); an alarm's name and detail in English in `data`, in
// Chinese in `dataZh` (for a task, dataZh is data).
struct ChangeEvent {
  enum Kind { kTask, kAlarm };
  long long seq = 0;
  Kind kind = kTask;
  Json::Value data;
  Json::Value dataZh;
  const char* name() const { return kind == kTask ? "task" : "alarm"; }
};

class HOST_API ChangeFeed {
 public:
  using Events = std::vector<std::shared_ptr<const ChangeEvent>>;
  struct Options {
    size_t backlog = 1000;  // events kept for resuming
    int waitMs = 2000;      // how long one call is held at most
    int retryMs = 1000;     // pause after a failed call
  };

  explicit ChangeFeed(Options options);
  ~ChangeFeed();
  ChangeFeed(const ChangeFeed&) = delete;
  ChangeFeed& operator=(const ChangeFeed&) = delete;

  // Called on the feed's thread with each batch of new events, in order.
  void setListener(std::function<void(const Events&)> listener);
  // Fills the backlog with the newest changes, then follows the log.
  void start();
  // Ends the thread (within one held call).
  void stop();

  // The kept events after `after`, in order, into *out. False when events
  // after `after` are no longer kept (it lies below floor()): the caller
  // missed some and must reload. A number beyond head() gives none.
  bool since(long long after, Events* out) const;
  // The newest sequence number seen (0: none yet).
  long long head() const;
  // Events up to this number are not kept.
  long long floor() const;
  // Whether the last call to the backend succeeded.
  bool following() const;

  // The events of a "changes after" reply (records 1..), in order; records
  // that are not changes are left out. Exposed for tests.
  static Events eventsOf(const CR3MPackageV3& reply);

 private:
  void run();
  // One call; false when it failed. With `tail`, the newest changes.
  bool poll(bool tail);
  void keep(const Events& fresh, long long backendFloor, bool tail);

  const Options options_;
  std::function<void(const Events&)> listener_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::shared_ptr<const ChangeEvent>> backlog_;
  long long head_ = 0;
  long long floor_ = 0;
  bool following_ = false;
  bool started_ = false;  // the backlog was filled
  bool stopping_ = false;
  std::thread thread_;
};

#endif  // NOX_HOST_CHANGE_FEED_H_
