#include "change_feed.h"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "alarm_row.h"
#include "backend_protocol.h"
#include "qpn_debug_kit.h"
#include "reply_json.h"
#include "tlv_backend.h"

namespace {

constexpr int kModule = 2;
constexpr char kFunction[] = "ChangeFeed";
// Changes asked for in one call when following.
constexpr uint32_t kFollowLimit = 1000;
// The call's own time-out, in seconds: well beyond the held wait.
constexpr int kCallTimeout = 30;

// The member a record's change cells would get from the generic conversion.
std::string tagMember(unsigned short tag) { return "tag" + std::to_string(tag); }

std::shared_ptr<const ChangeEvent> taskEvent(const CR3MRecordV3& record, long long seq) {
  auto event = std::make_shared<ChangeEvent>();
  event->seq = seq;
  event->kind = ChangeEvent::kTask;
  event->data = reply::recordToJson(record, proto::kTaskObjType);
  event->data.removeMember(tagMember(proto::kTagChangeSeq));
  event->data.removeMember(tagMember(proto::kTagChangeKind));
  event->data["id"] = event->data["taskId"];
  event->dataZh = event->data;
  return event;
}

std::shared_ptr<const ChangeEvent> alarmEvent(const CR3MRecordV3& record, long long seq) {
  auto event = std::make_shared<ChangeEvent>();
  event->seq = seq;
  event->kind = ChangeEvent::kAlarm;
  event->data = alarmRowJson(record);
  event->dataZh = event->data;
  const CTLVCell* name = record.find(proto::kTagAlarmNameZh);
  const CTLVCell* detail = record.find(proto::kTagAlarmDetailZh);
  if (name != nullptr && !name->toString().empty()) event->dataZh["name"] = name->toString();
  if (detail != nullptr && !detail->toString().empty()) {
    event->dataZh["detail"] = detail->toString();
  }
  return event;
}

}  // namespace

ChangeFeed::ChangeFeed(Options options) : options_(options) {}

ChangeFeed::~ChangeFeed() { stop(); }

void ChangeFeed::setListener(std::function<void(const Events&)> listener) {
  listener_ = std::move(listener);
}

void ChangeFeed::start() {
  if (thread_.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = false;
  }
  thread_ = std::thread([this] { run(); });
}

void ChangeFeed::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

bool ChangeFeed::since(long long after, Events* out) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (after < floor_) return false;
  for (const auto& event : backlog_) {
    if (event->seq > after) out->push_back(event);
  }
  return true;
}

long long ChangeFeed::head() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return head_;
}

long long ChangeFeed::floor() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return floor_;
}

bool ChangeFeed::following() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return following_;
}

ChangeFeed::Events ChangeFeed::eventsOf(const CR3MPackageV3& reply) {
  Events events;
  for (size_t i = 1; i < reply.size(); ++i) {
    const CR3MRecordV3& record = reply.recordAt(i);
    const CTLVCell* seq = record.find(proto::kTagChangeSeq);
    const CTLVCell* kind = record.find(proto::kTagChangeKind);
    if (seq == nullptr || kind == nullptr) continue;
    if (kind->toInt64() == proto::kChangeTask) {
      events.push_back(taskEvent(record, seq->toInt64()));
    } else if (kind->toInt64() == proto::kChangeAlarm) {
      events.push_back(alarmEvent(record, seq->toInt64()));
    }
  }
  return events;
}

void ChangeFeed::run() {
  for (;;) {
    bool tail = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) return;
      tail = !started_;
    }
    if (poll(tail)) continue;
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait_for(lock, std::chrono::milliseconds(options_.retryMs), [this] { return stopping_; });
  }
}

bool ChangeFeed::poll(bool tail) {
  CQPNDebugKitGuard guard(kModule, kFunction);
  CR3MPackageV3 request;
  CR3MRecordV3& r = request.addRecord(proto::kChangesAfter, proto::kWord);
  r[proto::kTagChangeAfter].setUInt64(proto::kTagChangeAfter, static_cast<uint64_t>(head()));
  r[proto::kTagChangeWait].setUInt32(proto::kTagChangeWait, static_cast<uint32_t>(options_.waitMs));
  r[proto::kTagChangeLimit].setUInt32(
      proto::kTagChangeLimit, tail ? static_cast<uint32_t>(options_.backlog) : kFollowLimit);
  if (tail) r[proto::kTagChangeTail].setUInt32(proto::kTagChangeTail, 1);
  CDeviceID device;
  UserContext user;
  TlvCall call{device, user, "v1", kCallTimeout, CommunicationTarget::TARGET_BACKEND, ""};
  CR3MPackageV3 reply;
  long long code = kErrBackendUnavailable;
  Events fresh;
  long long replyHead = 0;
  long long replyFloor = 0;
  try {
    std::shared_ptr<TlvBackend> backend = installedTlvBackend();
    if (backend) code = backend->handle(call, request, reply);
    if (code == 0 && reply.size() > 0) {
      replyHead = reply.recordAt(0).find(proto::kTagChangeHead) != nullptr
                      ? reply.recordAt(0).find(proto::kTagChangeHead)->toInt64() : 0;
      replyFloor = reply.recordAt(0).find(proto::kTagChangeFloor) != nullptr
                       ? reply.recordAt(0).find(proto::kTagChangeFloor)->toInt64() : 0;
      fresh = eventsOf(reply);
    } else if (code == 0) {
      code = kErrBackendFailure;
    }
  } catch (const std::exception& e) {
    guard.warn(0, kFunction, __LINE__, "the change log's answer could not be read: %s", e.what());
    code = kErrBackendFailure;
  }
  bool wasFollowing = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    wasFollowing = following_;
    following_ = code == 0;
  }
  if (code != 0) {
    if (wasFollowing || !started_) {
      guard.warn(0, kFunction, __LINE__, "cannot follow the backend's changes: code 0x%08llX",
                 static_cast<unsigned long long>(code));
    }
    return false;
  }
  const size_t asked = tail ? options_.backlog : kFollowLimit;
  keep(fresh, replyFloor, tail);
  {
    // Every change up to the backend's head was answered (some rows may be
    // gone): the next call starts there.
    std::lock_guard<std::mutex> lock(mutex_);
    if (fresh.size() < asked) head_ = std::max(head_, replyHead);
    if (tail) floor_ = fresh.size() < asked ? std::min(replyFloor, head_) : floor_;
    started_ = true;
  }
  if (!fresh.empty() && listener_) listener_(fresh);
  return true;
}

void ChangeFeed::keep(const Events& fresh, long long backendFloor, bool tail) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (tail) {
    backlog_.clear();
    floor_ = fresh.empty() ? head_ : fresh.front()->seq - 1;
  } else if (backendFloor > head_) {
    // Changes between the last one kept and the backend's floor are gone.
    floor_ = std::max(floor_, backendFloor);
  }
  for (const auto& event : fresh) {
    if (event->seq <= head_) continue;
    backlog_.push_back(event);
    head_ = event->seq;
  }
  while (backlog_.size() > options_.backlog) {
    floor_ = backlog_.front()->seq;
    backlog_.pop_front();
  }
}
