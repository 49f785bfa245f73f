#include "staged_uploads.h"

StagedUploads::StagedUploads(size_t maxEntries, Clock::duration maxAge)
    : maxEntries_(maxEntries > 0 ? maxEntries : 1), maxAge_(maxAge) {}

std::vector<std::string> StagedUploads::add(const std::string& localPath, const Upload& upload,
                                            Clock::time_point now) {
  std::vector<std::string> forgotten;
  std::lock_guard<std::mutex> lock(mutex_);
  auto same = byPath_.find(localPath);
  if (same != byPath_.end()) {
    byOrder_.erase(same->second.order);
    byPath_.erase(same);
  }
  // Callers pass the clock's now, so entries are added in time order and
  // the oldest is in front.
  while (!byOrder_.empty()) {
    auto oldest = byPath_.find(byOrder_.begin()->second);
    const bool full = byPath_.size() >= maxEntries_;
    if (!full && now - oldest->second.added < maxAge_) break;
    forgotten.push_back(oldest->first);
    byOrder_.erase(byOrder_.begin());
    byPath_.erase(oldest);
  }
  const uint64_t order = nextOrder_++;
  byPath_[localPath] = Entry{upload, now, order};
  byOrder_[order] = localPath;
  return forgotten;
}

bool StagedUploads::find(const std::string& localPath, Upload* upload) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = byPath_.find(localPath);
  if (it == byPath_.end()) return false;
  *upload = it->second.upload;
  return true;
}

bool StagedUploads::setWritten(const std::string& localPath, long long storeCode) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = byPath_.find(localPath);
  if (it == byPath_.end()) return false;
  it->second.upload.written = true;
  it->second.upload.storeCode = storeCode;
  return true;
}

bool StagedUploads::take(const std::string& localPath, Upload* upload) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = byPath_.find(localPath);
  if (it == byPath_.end()) return false;
  *upload = it->second.upload;
  byOrder_.erase(it->second.order);
  byPath_.erase(it);
  return true;
}

size_t StagedUploads::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return byPath_.size();
}
