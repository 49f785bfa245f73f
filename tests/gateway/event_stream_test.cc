// EventHub's fan-out: every stream gets the answer's head, then each change
// once and in order, written on its own loop, a few streams per turn of the
// loop so that other work on the loop never waits for a whole fan-out.
#include "event_stream.h"

#include <boost/asio.hpp>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

namespace net = boost::asio;

// A sink that keeps what is written to it, and checks it is written on its
// own loop only.
class RecordingSink : public gw::EventSink {
 public:
  explicit RecordingSink(net::io_context& loop) : loop_(loop) {}
  net::any_io_executor loop() override { return loop_.get_executor(); }
  void write(std::shared_ptr<const std::string> text) override {
    EXPECT_TRUE(loop_.get_executor().running_in_this_thread());
    written += *text;
    ++writes;
  }
  void end() override { ended = true; }

  std::string written;
  int writes = 0;
  bool ended = false;

 private:
  net::io_context& loop_;
};

std::shared_ptr<const ChangeEvent> taskChange(long long seq, int progress) {
  auto event = std::make_shared<ChangeEvent>();
  event->seq = seq;
  event->kind = ChangeEvent::kTask;
  event->data["id"] = "1002";
  event->data["progress"] = progress;
  event->dataZh = event->data;
  return event;
}

class EventHubTest : public ::testing::Test {
 protected:
  EventHubTest()
      : feed_(ChangeFeed::Options{}),
        hub_(feed_, nullptr, gw::SessionLookup(), [](const std::string&) { return true; },
             limits()) {}

  static gw::EventLimits limits() {
    gw::EventLimits limits;
    limits.perSession = 1000;
    return limits;
  }

  // A stream on `loop` that starts now, or after `lastEventId`.
  std::shared_ptr<RecordingSink> open(net::io_context& loop, const std::string& session,
                                      long long lastEventId = -1) {
    gw::EventAdmission admission;
    admission.admitted = true;
    admission.token = session;
    admission.sessionId = session;
    admission.language = "en";
    admission.lastEventId = lastEventId;
    std::shared_ptr<RecordingSink> sink;
    gw::HttpOutput refusal;
    EXPECT_TRUE(hub_.attach(admission, [&](uint64_t) {
      sink = std::make_shared<RecordingSink>(loop);
      return sink;
    }, &refusal));
    return sink;
  }

  ChangeFeed feed_;
  gw::EventHub hub_;
};

TEST_F(EventHubTest, EachStreamGetsTheHeadThenEveryChangeOnceInOrder) {
  net::io_context loopA(1);
  net::io_context loopB(1);
  std::vector<std::shared_ptr<RecordingSink>> sinks;
  for (int i = 0; i < 50; ++i) {
    sinks.push_back(open(i % 2 ? loopB : loopA, "s" + std::to_string(i)));
  }
  hub_.publish({taskChange(1, 10), taskChange(2, 20)});
  hub_.publish({taskChange(3, 30)});
  loopA.run();
  loopB.run();

  const std::string expected = gw::EventHub::answerHead() +
                               gw::EventHub::eventText(*taskChange(1, 10), false) +
                               gw::EventHub::eventText(*taskChange(2, 20), false) +
                               gw::EventHub::eventText(*taskChange(3, 30), false);
  for (const auto& sink : sinks) EXPECT_EQ(sink->written, expected);
  EXPECT_EQ(hub_.counts().events, 50u * 3u);
}

TEST_F(EventHubTest, AChangeReachesTheStreamsOfALoopAFewPerTurn) {
  net::io_context loop(1);
  const size_t streams = gw::LoopQueue::kWritesPerTurn * 4 + 3;
  std::vector<std::shared_ptr<RecordingSink>> sinks;
  for (size_t i = 0; i < streams; ++i) sinks.push_back(open(loop, "s" + std::to_string(i)));
  loop.run();
  loop.restart();
  for (const auto& sink : sinks) sink->writes = 0;

  hub_.publish({taskChange(1, 10)});
  // Work the loop got after the change waits for one turn's writes only.
  bool otherWorkRan = false;
  net::post(loop, [&] { otherWorkRan = true; });
  ASSERT_EQ(loop.run_one(), 1u);
  auto reached = [&] {
    size_t count = 0;
    for (const auto& sink : sinks) count += sink->writes;
    return count;
  };
  EXPECT_EQ(reached(), gw::LoopQueue::kWritesPerTurn);
  ASSERT_EQ(loop.run_one(), 1u);
  EXPECT_TRUE(otherWorkRan);
  EXPECT_EQ(reached(), gw::LoopQueue::kWritesPerTurn);
  loop.run();
  EXPECT_EQ(reached(), streams);
  for (const auto& sink : sinks) EXPECT_EQ(sink->writes, 1);
}

TEST_F(EventHubTest, AChangePublishedDuringAFanOutFollowsTheEarlierOne) {
  net::io_context loop(1);
  const size_t streams = gw::LoopQueue::kWritesPerTurn * 3;
  std::vector<std::shared_ptr<RecordingSink>> sinks;
  for (size_t i = 0; i < streams; ++i) sinks.push_back(open(loop, "s" + std::to_string(i)));
  hub_.publish({taskChange(1, 10)});
  ASSERT_EQ(loop.run_one(), 1u);  // part of the first change's writes
  hub_.publish({taskChange(2, 20)});
  loop.run();
  const std::string expected = gw::EventHub::answerHead() +
                               gw::EventHub::eventText(*taskChange(1, 10), false) +
                               gw::EventHub::eventText(*taskChange(2, 20), false);
  for (const auto& sink : sinks) EXPECT_EQ(sink->written, expected);
}

TEST_F(EventHubTest, AStreamThatResumedAheadGetsOnlyWhatItLacks) {
  net::io_context loop(1);
  auto behind = open(loop, "a");
  // A resume point beyond this gateway's head: the client read it from
  // another gateway; nothing is replayed.
  auto aheadSink = open(loop, "b", 2);
  hub_.publish({taskChange(1, 10), taskChange(2, 20), taskChange(3, 30)});
  loop.run();
  EXPECT_EQ(aheadSink->written,
            gw::EventHub::answerHead() + gw::EventHub::eventText(*taskChange(3, 30), false));
  EXPECT_EQ(behind->written, gw::EventHub::answerHead() +
                                 gw::EventHub::eventText(*taskChange(1, 10), false) +
                                 gw::EventHub::eventText(*taskChange(2, 20), false) +
                                 gw::EventHub::eventText(*taskChange(3, 30), false));
}

}  // namespace
