// StagedUploads: the uploads a remote backend has handed out paths for, each
// under the exact local path the host writes it to. RemoteBackend keeps one
// (remote_backend.h): an entry is made when the backend hands out a staging
// path, marked when the host has written the file and its bytes went to the
// backend, and taken when a call names the path again.
//
//   StagedUploads staged(4096, std::chrono::minutes(10));
//   StagedUploads::Upload upload;
//   upload.remotePath = "/var/lib/nox/tmp/cert-1f0c.upload";
//   staged.add("/var/lib/gw/staging/cert-1f0c.upload", upload, now);   // handed out
//   staged.setWritten("/var/lib/gw/staging/cert-1f0c.upload", 0);       // sent on
//   staged.take("/var/lib/gw/staging/cert-1f0c.upload", &upload);       // the check
//
// Only a path that was added is ever found: nothing is guessed from a path's
// look. Memory is bounded entry by entry: add() forgets every entry older
// than maxAge, and when maxEntries are kept, the oldest one to make room. It
// returns the local paths it forgot so that the caller removes their files.
// No entry is forgotten for any other reason.
//
// Thread-safety: every method may be called from any thread at once.
#ifndef NOX_HOST_STAGED_UPLOADS_H_
#define NOX_HOST_STAGED_UPLOADS_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "nox_visibility.h"

class HOST_API StagedUploads {
 public:
  using Clock = std::chrono::steady_clock;

  struct Upload {
    std::string remotePath;   // the backend's path for the upload
    int timeoutSeconds = 0;   // of the call that handed it out; 0: it gave none
    bool written = false;     // the host wrote the file (setWritten)
    long long storeCode = 0;  // once written: 0 (the backend has it) or why not
  };

  StagedUploads(size_t maxEntries, Clock::duration maxAge);
  StagedUploads(const StagedUploads&) = delete;
  StagedUploads& operator=(const StagedUploads&) = delete;

  // Remembers `upload` under `localPath` at `now` (an entry of the same path
  // is replaced). Returns the local paths of the entries forgotten by age or
  // to make room, oldest first.
  std::vector<std::string> add(const std::string& localPath, const Upload& upload,
                               Clock::time_point now);
  // True and *upload when `localPath` is remembered; false otherwise.
  bool find(const std::string& localPath, Upload* upload) const;
  // Marks the upload at `localPath` written with the store's outcome; false
  // (and nothing changes) when it is not remembered.
  bool setWritten(const std::string& localPath, long long storeCode);
  // Removes the upload at `localPath` into *upload; false when it is not
  // remembered.
  bool take(const std::string& localPath, Upload* upload);
  size_t size() const;

 private:
  struct Entry {
    Upload upload;
    Clock::time_point added;
    uint64_t order = 0;  // key in byOrder_
  };

  const size_t maxEntries_;
  const Clock::duration maxAge_;
  mutable std::mutex mutex_;
  std::map<std::string, Entry> byPath_;      // guarded by mutex_
  std::map<uint64_t, std::string> byOrder_;  // oldest first; guarded by mutex_
  uint64_t nextOrder_ = 0;                   // guarded by mutex_
};

#endif  // NOX_HOST_STAGED_UPLOADS_H_
