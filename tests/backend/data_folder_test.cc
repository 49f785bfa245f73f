// The data folder helpers: which paths count as inside a folder, reading
// uploads without following links, and whole-file writes.
#include "data_folder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "backend_fixture.h"

namespace {

TEST(DirectChildTest, OnlyOnePlainNameBelowTheFolder) {
  const struct {
    const char* path;
    bool inside;
  } cases[] = {
      {"/d/tmp/cert-1.upload", true},
      {"/d/tmp/.hidden", true},  // a dot file is still a plain name
      {"/d/tmp/...", true},      // three dots are a name, not a step up
      {"/d/tmp/", false},        // no name
      {"/d/tmp", false},         // the folder itself
      {"/d/tmp/.", false},
      {"/d/tmp/..", false},
      {"/d/tmp/../nox.db", false},  // climbing out
      {"/d/tmp/a/b", false},        // deeper
      {"/d/tmpx/a", false},         // a sibling with the same start
      {"/d/tm", false},
      {"d/tmp/a", false},  // relative
      {"", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(directChild("/d/tmp", c.path), c.inside) << c.path;
  }
}

TEST(ReadUploadTest, RefusesLinksFoldersAndLargeFiles) {
  TempFolder folder;
  const std::string file = folder.path() + "/file";
  writeText(file, "content");
  std::string bytes;
  EXPECT_EQ(readUpload(file, &bytes), ReadResult::kOk);
  EXPECT_EQ(bytes, "content");
  EXPECT_EQ(readUpload(folder.path() + "/none", &bytes), ReadResult::kMissing);
  const std::string link = folder.path() + "/link";
  ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
  EXPECT_EQ(readUpload(link, &bytes), ReadResult::kRefused);
  EXPECT_EQ(readUpload(folder.path(), &bytes), ReadResult::kRefused);
  const std::string large = folder.path() + "/large";
  writeText(large, std::string(2 * 1024 * 1024 + 1, 'x'));
  EXPECT_EQ(readUpload(large, &bytes), ReadResult::kRefused);
  writeText(large, std::string(2 * 1024 * 1024, 'x'));
  EXPECT_EQ(readUpload(large, &bytes), ReadResult::kOk);
}

TEST(WriteWholeTest, WritesPrivateFilesAndReplaces) {
  TempFolder folder;
  const std::string file = folder.path() + "/ca.pem";
  ASSERT_TRUE(writeWhole(file, "one"));
  ASSERT_TRUE(writeWhole(file, "two"));
  std::string bytes;
  ASSERT_EQ(readUpload(file, &bytes), ReadResult::kOk);
  EXPECT_EQ(bytes, "two");
  struct stat st;
  ASSERT_EQ(stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(folderNames(folder.path()), std::vector<std::string>({"ca.pem"}));
  EXPECT_FALSE(writeWhole(folder.path() + "/no/such/folder/x", "x"));
  EXPECT_EQ(errno, ENOENT);
}

TEST(SameContentTest, OnlyARegularFileWithTheSameBytes) {
  TempFolder folder;
  const std::string file = folder.path() + "/ca.pem";
  EXPECT_FALSE(sameContent(file, "one")) << "missing";
  writeText(file, "one");
  EXPECT_TRUE(sameContent(file, "one"));
  EXPECT_FALSE(sameContent(file, "on"));
  EXPECT_FALSE(sameContent(file, "one!"));
  const std::string link = folder.path() + "/link.pem";
  ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
  EXPECT_FALSE(sameContent(link, "one")) << "links are not followed";
}

TEST(MakeFolderTest, NarrowsAnExistingFolder) {
  TempFolder folder;
  const std::string dir = folder.path() + "/open";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  std::string error;
  ASSERT_TRUE(makeFolder(dir, &error)) << error;
  struct stat st;
  ASSERT_EQ(stat(dir.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  writeText(folder.path() + "/plain", "x");
  EXPECT_FALSE(makeFolder(folder.path() + "/plain", &error));
  EXPECT_FALSE(error.empty());
}

}  // namespace
