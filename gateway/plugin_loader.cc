#include "plugin_loader.h"

#include <dlfcn.h>

namespace gw {

namespace {
const char kEntryName[] = "NOXRegisterOperations";
}  // namespace

// The dl* calls run once, on the main thread before any worker exists, so
// dlerror's shared state is not raced.
// NOLINTBEGIN(concurrency-mt-unsafe)
std::unique_ptr<PluginLibrary> PluginLibrary::load(const std::string& path, std::string* error) {
  dlerror();
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* why = dlerror();
    *error = "cannot load the plug-in " + path + ": " + (why != nullptr ? why : "unknown error") +
             "\n  Build it (cmake --build <build> --target ucore_nox) or name the right file with"
             " --plugin PATH; if it was built elsewhere, rebuild libucore_nox against this"
             " gateway's include/ and host library.";
    return nullptr;
  }
  dlerror();
  void* symbol = dlsym(handle, kEntryName);
  if (symbol == nullptr) {
    // dlerror's text lives only until the next dl* call: copy it first.
    const char* reason = dlerror();
    const std::string why = reason != nullptr ? reason : "";
    dlclose(handle);
    *error = "the plug-in " + path + " does not export " + kEntryName + " (" +
             (why.empty() ? "symbol not found" : why) +
             ")\n  It is not a libucore_nox plug-in, or it was built without its entry: rebuild"
             " libucore_nox against this gateway's include/.";
    return nullptr;
  }
  // dlsym hands back a data pointer; POSIX guarantees it converts to the
  // function pointer it really is.
  EntryFunction entry = reinterpret_cast<EntryFunction>(symbol);
  return std::unique_ptr<PluginLibrary>(new PluginLibrary(path, handle, entry));
}
// NOLINTEND(concurrency-mt-unsafe)

int PluginLibrary::registerOperations(CSpecifyProc* registry) {
  if (called_) return -1;
  called_ = true;
  return entry_(registry);
}

}  // namespace gw
