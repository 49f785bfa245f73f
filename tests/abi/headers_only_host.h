// A second host, written from include/ alone.
//
// headers_only_host.cc implements every host member the plug-in may import
// (tests/abi/host_imports.txt) with small stub behaviour, and is built as a
// library named libucore_tlv.so in a folder of its own. A test program that
// links it and then loads the real libucore_nox.so shows that the plug-in
// needs nothing of the reference host's internals: the dynamic loader takes
// this library for the plug-in's libucore_tlv.so.
//
// What the stub host records, for the test to read back:
//   calls()      one line per host operation the plug-in called, e.g.
//                "queryAlarm 0xd00c90041 true", "login9 u p 0 en  ''"
//   traces()     every text the plug-in's guards passed to CQPNDebugKit::trace
//   logs()       "LEVEL text" for every other kit record
//   sent()       the command code of every package sent to the backend
//   refuse()     URLs the registry refuses (the object is released at once)
//
// Thread-safety: none; the test drives one request at a time.
#ifndef NOX_TESTS_ABI_HEADERS_ONLY_HOST_H_
#define NOX_TESTS_ABI_HEADERS_ONLY_HOST_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "nox_visibility.h"

namespace stub_host {

HOST_API std::vector<std::string>& calls();
HOST_API std::vector<std::string>& traces();
HOST_API std::vector<std::string>& logs();
HOST_API std::vector<uint32_t>& sent();
HOST_API std::set<std::string>& refuse();
// The folder the backend names for staged uploads.
HOST_API std::string& uploadFolder();
// Clears everything recorded.
HOST_API void reset();

}  // namespace stub_host

#endif  // NOX_TESTS_ABI_HEADERS_ONLY_HOST_H_
