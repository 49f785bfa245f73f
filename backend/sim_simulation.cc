// The simulated backend's life: the simulation that moves tasks and alarms
// on, the change log that numbers every change, and the long poll that
// answers "changes after sequence N".
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <thread>
#include <string>
#include <vector>

#include "backend_protocol.h"
#include "demo_seed.h"
#include "request_cells.h"
#include "sim_backend_impl.h"

namespace {

// Changes kept in the log; older ones are dropped (a reader that far behind
// reloads instead).
constexpr long long kChangesKept = 10000;
// Changes in one answer at most, and by default.
constexpr long long kMaxChangesPerAnswer = 1000;
constexpr long long kDefaultChangesPerAnswer = 500;
// The longest a "changes after" call is held, whatever it asks.
constexpr long long kMaxWaitMs = 25000;

void changeCells(CR3MRecordV3& r, long long seq, uint32_t kind) {
  r[proto::kTagChangeSeq].setUInt64(proto::kTagChangeSeq, static_cast<uint64_t>(seq));
  r[proto::kTagChangeKind].setUInt32(proto::kTagChangeKind, kind);
}

SeedTask taskOfRow(const Statement& row) {
  SeedTask t;
  t.id = row.columnText(0);
  t.name = row.columnText(1);
  t.type = static_cast<int>(row.columnInt(2));
  t.status = static_cast<int>(row.columnInt(3));
  t.progress = static_cast<int>(row.columnInt(4));
  t.startTime = row.columnInt(5);
  t.endTime = row.columnInt(6);
  t.resource = row.columnText(7);
  t.detail = row.columnText(8);
  t.errorInfo = row.columnText(9);
  return t;
}

}  // namespace

using simbackend::kAlarmColumns;
using simbackend::kTaskColumns;
using simbackend::nowSeconds;

long long SimulatedBackend::Impl::recordChange(uint32_t kind, const std::string& object) {
  store.statement("INSERT INTO changes(kind, object, time) VALUES(?,?,?)")
      .bind(1, static_cast<long long>(kind))
      .bind(2, object)
      .bind(3, nowSeconds())
      .run();
  const long long seq = store.lastInsertId();
  store.statement("DELETE FROM changes WHERE seq <= ?").bind(1, seq - kChangesKept).run();
  return seq;
}

void SimulatedBackend::Impl::publishHead(long long seq) {
  {
    std::lock_guard<std::mutex> lock(changeMutex);
    if (seq <= headSeq) return;
    headSeq = seq;
  }
  changed.notify_all();
}

void SimulatedBackend::Impl::startSimulation(double seconds, unsigned seed) {
  std::lock_guard<std::mutex> lock(simulationMutex);
  random.seed(seed);
  if (seconds <= 0) return;
  simulating = true;
  const auto period = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(seconds));
  simulation = std::thread([this, period] {
    auto next = std::chrono::steady_clock::now() + period;
    std::unique_lock<std::mutex> wait(simulationMutex);
    while (simulating) {
      if (simulationWake.wait_until(wait, next, [this] { return !simulating; })) break;
      wait.unlock();
      try {
        simulateStep();
      } catch (const std::exception&) {
        // A busy or failing store skips this step; the next one tries again.
      }
      wait.lock();
      next += period;
    }
  });
}

int SimulatedBackend::Impl::simulateStep() {
  std::lock_guard<std::mutex> stepping(simulationMutex);
  const long long now = nowSeconds();
  SqliteStore::Lock lock(store, std::chrono::seconds(30));
  if (!lock.held()) return 0;
  SqliteStore::Transaction tx(store);
  std::vector<std::pair<uint32_t, std::string>> changes;
  // Running tasks move on, each with an even chance.
  std::vector<SeedTask> running;
  {
    Statement rows = store.statement(std::string("SELECT ") + kTaskColumns +
                                     " FROM tasks WHERE status = 2 ORDER BY id");
    while (rows.step()) running.push_back(taskOfRow(rows));
  }
  for (SeedTask& t : running) {
    if (random() % 2 != 0) continue;
    advanceTask(t, static_cast<unsigned>(random()), now);
    insertTask(t);
    changes.emplace_back(proto::kChangeTask, t.id);
  }
  // The task queued longest starts now and then, at once when none runs.
  if (running.empty() || random() % 4 == 0) {
    Statement next = store.statement(std::string("SELECT ") + kTaskColumns +
                                     " FROM tasks WHERE status = 1 ORDER BY start_time, id LIMIT 1");
    if (next.step()) {
      SeedTask t = taskOfRow(next);
      startTask(t, now);
      insertTask(t);
      changes.emplace_back(proto::kChangeTask, t.id);
    }
  }
  // New tasks are scheduled, so that the queue never runs dry.
  if (random() % 6 == 0) {
    Statement last = store.statement("SELECT COALESCE(MAX(CAST(id AS INTEGER)), 1000) FROM tasks");
    const long long id = last.step() ? last.columnInt(0) + 1 : 1001;
    insertTask(scheduledTask(std::to_string(id), static_cast<unsigned>(random()), now));
    changes.emplace_back(proto::kChangeTask, std::to_string(id));
  }
  // Alarms are raised and cleared now and then.
  if (random() % 8 == 0) {
    insertAlarm(raisedAlarm(static_cast<unsigned>(random()), now));
    changes.emplace_back(proto::kChangeAlarm, std::to_string(store.lastInsertId()));
  }
  if (random() % 8 == 0) {
    Statement oldest = store.statement(
        "SELECT id FROM alarms WHERE clear_time = 0 ORDER BY occur_time, id LIMIT 1");
    if (oldest.step()) {
      const long long id = oldest.columnInt(0);
      store.statement("UPDATE alarms SET clear_time = ? WHERE id = ?").bind(1, now).bind(2, id).run();
      changes.emplace_back(proto::kChangeAlarm, std::to_string(id));
    }
  }
  long long seq = 0;
  for (const auto& change : changes) seq = recordChange(change.first, change.second);
  tx.commit();
  if (seq > 0) publishHead(seq);
  return static_cast<int>(changes.size());
}

long long SimulatedBackend::Impl::changesAfter(const TlvCall& call, const CR3MRecordV3& request,
                                               CR3MPackageV3& reply) {
  const long long after = optionalTime(request, proto::kTagChangeAfter, 0);
  const long long limit = std::min(
      optionalCount(request, proto::kTagChangeLimit, kDefaultChangesPerAnswer),
      kMaxChangesPerAnswer);
  long long tail = 0;
  readInt(request, proto::kTagChangeTail, &tail);
  // Held at most until a second before the caller gives up.
  long long waitMs = std::min(optionalCount(request, proto::kTagChangeWait, 0), kMaxWaitMs);
  if (call.timeout > 0) waitMs = std::min(waitMs, std::max(0LL, call.timeout * 1000LL - 1000));
  long long head = 0;
  {
    std::unique_lock<std::mutex> lock(changeMutex);
    if (tail == 0 && waitMs > 0) {
      changed.wait_for(lock, std::chrono::milliseconds(waitMs),
                       [&] { return headSeq > after || closing; });
    }
    head = headSeq;
  }
  SqliteStore::Reader reader(store, simbackend::storeWait(call));
  if (!reader.held()) return kErrBackendTimeout;
  Statement oldest = reader.statement("SELECT MIN(seq) FROM changes");
  const long long floor = oldest.step() && !oldest.columnIsNull(0) ? oldest.columnInt(0) - 1 : head;
  CR3MRecordV3& summary = reply.addRecord(request.command(), proto::kWord);
  summary[proto::kTagChangeHead].setUInt64(proto::kTagChangeHead, static_cast<uint64_t>(head));
  summary[proto::kTagChangeFloor].setUInt64(proto::kTagChangeFloor, static_cast<uint64_t>(floor));
  Statement rows = reader.statement(
      tail != 0 ? "SELECT seq, kind, object FROM (SELECT seq, kind, object FROM changes WHERE "
                  "seq <= ?1 ORDER BY seq DESC LIMIT ?2) ORDER BY seq"
                : "SELECT seq, kind, object FROM changes WHERE seq > ?1 AND seq <= ?3 ORDER BY "
                  "seq LIMIT ?2");
  rows.bind(1, tail != 0 ? head : after).bind(2, limit);
  if (tail == 0) rows.bind(3, head);
  while (rows.step()) {
    const long long seq = rows.columnInt(0);
    const uint32_t kind = static_cast<uint32_t>(rows.columnInt(1));
    const std::string object = rows.columnText(2);
    if (kind == proto::kChangeTask) {
      Statement row =
          reader.statement(std::string("SELECT ") + kTaskColumns + " FROM tasks WHERE id = ?");
      row.bind(1, object);
      if (!row.step()) continue;
      CR3MRecordV3& r = reply.addRecord(proto::moCommand(proto::kTaskObjType, proto::kMoList),
                                        proto::kWord);
      simbackend::taskRecord(row, r);
      changeCells(r, seq, kind);
    } else {
      Statement row =
          reader.statement(std::string("SELECT ") + kAlarmColumns + " FROM alarms WHERE id = ?");
      row.bind(1, std::atoll(object.c_str()));
      if (!row.step()) continue;
      CR3MRecordV3& r =
          reply.addRecord(static_cast<uint32_t>(proto::kAlarmList & 0xFFFFFFFFULL), proto::kWord);
      simbackend::alarmRecord(row, r, "en", true);
      changeCells(r, seq, kind);
    }
  }
  return 0;
}
