// Free functions of the host the plug-in calls.
#ifndef NOX_INCLUDE_HOST_FUNCTIONS_H_
#define NOX_INCLUDE_HOST_FUNCTIONS_H_

#include <string>

#include "nox_visibility.h"

// Writes `length` bytes of `data` to the file at `path`, creating or
// truncating it (mode 0600 before the caller narrows or widens it). Returns
// the number of bytes written, or -1 on failure (nothing is left half-written
// under `path`: the bytes go to a temporary file that is renamed into place).
// The file is not synced to disk: a caller that must survive a power cut
// syncs it itself.
HOST_API int writeFile(const char* path, const char* data, unsigned int length);

// The decimal value of `text`: optional blanks, optional sign, digits; the
// conversion stops at the first other character. Text without digits gives 0;
// values beyond the range of long long are clamped to it.
//   strToLL("42") == 42, strToLL(" -7x") == -7, strToLL("") == 0
HOST_API long long strToLL(std::string text);

#endif  // NOX_INCLUDE_HOST_FUNCTIONS_H_
