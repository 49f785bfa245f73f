#include "data_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "password_hash.h"

namespace {

// Larger uploads are refused by the plug-in already; this bounds what the
// backend reads from a folder it shares with it.
constexpr off_t kMaxUploadBytes = off_t{2} * 1024 * 1024;

}  // namespace

bool makeFolder(const std::string& path, std::string* error) {
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    *error = "cannot create " + path + ": " + errnoText(errno);
    return false;
  }
  struct stat st;
  if (lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    *error = path + " is not a folder";
    return false;
  }
  // The folder holds password hashes and accepted CAs: owner only.
  if ((st.st_mode & 0777) != 0700 && chmod(path.c_str(), 0700) != 0) {
    *error = "cannot restrict " + path + ": " + errnoText(errno);
    return false;
  }
  return true;
}

bool makeFolders(const std::string& path, std::string* error) {
  if (path.empty()) {
    *error = "no data folder given";
    return false;
  }
  // Parents first; only those this call creates get mode 0700.
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string parent = path.substr(0, slash);
    if (mkdir(parent.c_str(), 0700) != 0 && errno != EEXIST) {
      *error = "cannot create " + parent + ": " + errnoText(errno);
      return false;
    }
  }
  return makeFolder(path, error);
}

void emptyFolder(const std::string& dir, const std::string& suffix) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  // Start-up only, one thread.
  while (struct dirent* e = readdir(d)) {  // NOLINT(concurrency-mt-unsafe)
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    if (name.size() < suffix.size() ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
      continue;
    }
    std::string path = dir;
    path += "/";
    path += name;
    struct stat st;
    if (lstat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) unlink(path.c_str());
  }
  closedir(d);
}

bool directChild(const std::string& dir, const std::string& path) {
  if (path.size() <= dir.size() + 1 || path.compare(0, dir.size(), dir) != 0 ||
      path[dir.size()] != '/') {
    return false;
  }
  const std::string name = path.substr(dir.size() + 1);
  return name.find('/') == std::string::npos && name != "." && name != "..";
}

ReadResult readUpload(const std::string& path, std::string* bytes) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? ReadResult::kMissing : ReadResult::kRefused;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxUploadBytes) {
    close(fd);
    return ReadResult::kRefused;
  }
  bytes->clear();
  char buffer[16384];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      close(fd);
      return ReadResult::kRefused;
    }
    if (n == 0) break;
    bytes->append(buffer, static_cast<size_t>(n));
    if (bytes->size() > static_cast<size_t>(kMaxUploadBytes)) {
      close(fd);
      return ReadResult::kRefused;
    }
  }
  close(fd);
  return ReadResult::kOk;
}

bool sameContent(const std::string& path, const std::string& bytes) {
  std::string stored;
  return readUpload(path, &stored) == ReadResult::kOk && stored == bytes;
}

bool writeWhole(const std::string& path, const std::string& bytes) {
  // A temporary name of this call's own: two writers of the same file
  // (the same certificate imported twice at once) never share one.
  const std::string temp = path + "." + toHex(randomBytes(8)) + ".new";
  const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return false;
  // Gives up, keeping the errno of the step that failed for the caller.
  auto giveUp = [&temp](int openFd) {
    const int error = errno;
    if (openFd >= 0) close(openFd);
    unlink(temp.c_str());
    errno = error;
    return false;
  };
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return giveUp(fd);
    done += static_cast<size_t>(n);
  }
  if (fsync(fd) != 0) return giveUp(fd);
  if (close(fd) != 0) return giveUp(-1);
  if (rename(temp.c_str(), path.c_str()) != 0) return giveUp(-1);
  // The rename itself reaches the disk only with its folder.
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const int dirFd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    fsync(dirFd);
    close(dirFd);
  }
  return true;
}
