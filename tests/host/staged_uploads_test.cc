#include "staged_uploads.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

using Clock = StagedUploads::Clock;
using std::chrono::minutes;
using std::chrono::seconds;

StagedUploads::Upload uploadAt(const std::string& remote) {
  StagedUploads::Upload upload;
  upload.remotePath = remote;
  upload.timeoutSeconds = 30;
  return upload;
}

TEST(StagedUploadsTest, FindsOnlyTheExactPathAndTakesItOnce) {
  StagedUploads staged(8, minutes(10));
  const Clock::time_point t0 = Clock::now();
  EXPECT_TRUE(
      staged.add("/gw/staging/cert-1.upload", uploadAt("/be/tmp/cert-1.upload"), t0).empty());
  StagedUploads::Upload found;
  // Only the very path: no prefix, no other folder, no trailing slash.
  for (const char* near : {"/gw/staging/cert-1.upload/", "/gw/staging/cert-1", "cert-1.upload",
                           "/gw/staging/../staging/cert-1.upload", "/be/tmp/cert-1.upload"}) {
    EXPECT_FALSE(staged.find(near, &found)) << near;
  }
  ASSERT_TRUE(staged.find("/gw/staging/cert-1.upload", &found));
  EXPECT_EQ(found.remotePath, "/be/tmp/cert-1.upload");
  EXPECT_EQ(found.timeoutSeconds, 30);
  EXPECT_FALSE(found.written);

  EXPECT_TRUE(staged.setWritten("/gw/staging/cert-1.upload", 0x03000101));
  StagedUploads::Upload taken;
  ASSERT_TRUE(staged.take("/gw/staging/cert-1.upload", &taken));
  EXPECT_TRUE(taken.written);
  EXPECT_EQ(taken.storeCode, 0x03000101);
  EXPECT_FALSE(staged.take("/gw/staging/cert-1.upload", &taken));
  EXPECT_FALSE(staged.setWritten("/gw/staging/cert-1.upload", 0));
  EXPECT_EQ(staged.size(), 0u);
}

TEST(StagedUploadsTest, EntriesExpireOneByOneByAge) {
  StagedUploads staged(100, minutes(10));
  const Clock::time_point t0 = Clock::now();
  staged.add("/l/a", uploadAt("/r/a"), t0);
  staged.add("/l/b", uploadAt("/r/b"), t0 + minutes(4));
  staged.add("/l/c", uploadAt("/r/c"), t0 + minutes(8));
  // At 10 minutes "a" is due, "b" and "c" are not.
  EXPECT_EQ(staged.add("/l/d", uploadAt("/r/d"), t0 + minutes(10)),
            std::vector<std::string>{"/l/a"});
  EXPECT_EQ(staged.size(), 3u);
  // At 14 minutes and a second, "b" goes; "c" (6 minutes old) stays.
  EXPECT_EQ(staged.add("/l/e", uploadAt("/r/e"), t0 + minutes(14) + seconds(1)),
            std::vector<std::string>{"/l/b"});
  StagedUploads::Upload found;
  EXPECT_TRUE(staged.find("/l/c", &found));
  EXPECT_FALSE(staged.find("/l/a", &found));
}

TEST(StagedUploadsTest, AFullRegistryForgetsOnlyItsOldestEntry) {
  StagedUploads staged(3, minutes(10));
  const Clock::time_point t0 = Clock::now();
  staged.add("/l/1", uploadAt("/r/1"), t0);
  staged.add("/l/2", uploadAt("/r/2"), t0 + seconds(1));
  staged.add("/l/3", uploadAt("/r/3"), t0 + seconds(2));
  // One more: the oldest makes room, nothing else is dropped.
  EXPECT_EQ(staged.add("/l/4", uploadAt("/r/4"), t0 + seconds(3)),
            std::vector<std::string>{"/l/1"});
  EXPECT_EQ(staged.size(), 3u);
  StagedUploads::Upload found;
  for (const char* live : {"/l/2", "/l/3", "/l/4"}) EXPECT_TRUE(staged.find(live, &found)) << live;
  // A taken entry leaves room of its own: the next add forgets nothing.
  ASSERT_TRUE(staged.take("/l/3", &found));
  EXPECT_TRUE(staged.add("/l/5", uploadAt("/r/5"), t0 + seconds(4)).empty());
  EXPECT_EQ(staged.size(), 3u);
}

TEST(StagedUploadsTest, AddingAPathAgainReplacesItsEntry) {
  StagedUploads staged(2, minutes(10));
  const Clock::time_point t0 = Clock::now();
  staged.add("/l/x", uploadAt("/r/old"), t0);
  staged.setWritten("/l/x", 0);
  staged.add("/l/y", uploadAt("/r/y"), t0 + seconds(1));
  // The same path again: one entry, the new one, and it is the newest now.
  EXPECT_TRUE(staged.add("/l/x", uploadAt("/r/new"), t0 + seconds(2)).empty());
  EXPECT_EQ(staged.size(), 2u);
  StagedUploads::Upload found;
  ASSERT_TRUE(staged.find("/l/x", &found));
  EXPECT_EQ(found.remotePath, "/r/new");
  EXPECT_FALSE(found.written);
  EXPECT_EQ(staged.add("/l/z", uploadAt("/r/z"), t0 + seconds(3)),
            std::vector<std::string>{"/l/y"});
}

}  // namespace
