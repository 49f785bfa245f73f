// Files and folders of the simulated backend's data folder: creating the
// private folders, reading an upload without following links, writing a file
// whole, and telling whether a path handed back by a client stays inside a
// folder.
//
// Thread-safety: plain functions; concurrent calls on different paths are
// safe, and the writes are atomic renames.
#ifndef NOX_BACKEND_DATA_FOLDER_H_
#define NOX_BACKEND_DATA_FOLDER_H_

#include <string>

#include "log_text.h"  // errnoText, which the backend's files use with these

// Creates `path` with mode 0700 when missing, or narrows an existing folder to
// 0700. Returns false with *error when it is not a usable folder.
bool makeFolder(const std::string& path, std::string* error);
// makeFolder, after creating the missing parents (mode 0700 as well).
bool makeFolders(const std::string& path, std::string* error);

// Removes the plain files of `dir` whose names end in `suffix` (all of them
// for an empty suffix): leftovers of uploads or writes a crash interrupted.
// Folders in it are left alone.
void emptyFolder(const std::string& dir, const std::string& suffix = "");

// True when `path` is `dir` + "/" + one plain name: no deeper folder, no "..",
// so that a path handed back by a client cannot leave `dir`.
//   directChild("/d/tmp", "/d/tmp/a.pem") == true
//   directChild("/d/tmp", "/d/tmp/../x") == false, directChild("/d/tmp", "/d/tmpx/a") == false
bool directChild(const std::string& dir, const std::string& path);

enum class ReadResult {
  kOk,
  kMissing,  // no such file
  kRefused,  // a symbolic link, not a regular file, larger than 2 MiB, or unreadable
};

// Reads the regular file at `path` into *bytes without following a symbolic
// link.
ReadResult readUpload(const std::string& path, std::string* bytes);

// True when the regular file at `path` holds exactly `bytes` (a symbolic
// link, a missing or unreadable file: false).
bool sameContent(const std::string& path, const std::string& bytes);

// Writes `bytes` to `path` (mode 0600) through a temporary name of its own
// ("<path>.<random>.new") and a rename, then syncs the folder, so that a
// crash leaves the old file or the new one, never half of it. Concurrent
// writers of the same path are safe: the last rename wins. Returns false
// (errno set by the step that failed) on failure.
bool writeWhole(const std::string& path, const std::string& bytes);

#endif  // NOX_BACKEND_DATA_FOLDER_H_
