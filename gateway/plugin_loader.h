// Loading the plug-in: dlopen of the shared object, lookup of its entry
// NOXRegisterOperations, and the one call that fills the route registry.
//
//   std::string error;
//   std::unique_ptr<PluginLibrary> plugin = PluginLibrary::load(path, &error);
//   if (!plugin) { fprintf(stderr, "%s\n", error.c_str()); return 1; }
//   plugin->registerOperations(&registry);
//
// Thread-safety: used on the main thread at start-up only.
#ifndef NOX_GATEWAY_PLUGIN_LOADER_H_
#define NOX_GATEWAY_PLUGIN_LOADER_H_

#include <memory>
#include <string>

#include "operation_base.h"

namespace gw {

class PluginLibrary {
 public:
  using EntryFunction = int (*)(CSpecifyProc*);

  // Loads the shared object at `path` and finds its entry. On success returns
  // the library; on failure returns null and stores in *error what failed and
  // what to do about it.
  static std::unique_ptr<PluginLibrary> load(const std::string& path, std::string* error);

  // Keeps the library loaded: the registered operations' code lives in it and
  // objects may outlive this handle until the registry releases them.
  ~PluginLibrary() = default;
  PluginLibrary(const PluginLibrary&) = delete;
  PluginLibrary& operator=(const PluginLibrary&) = delete;

  // Calls the entry once with `registry`; returns the entry's result. A
  // second call does nothing and returns -1.
  int registerOperations(CSpecifyProc* registry);

  const std::string& path() const { return path_; }

 private:
  PluginLibrary(std::string path, void* handle, EntryFunction entry)
      : path_(std::move(path)), handle_(handle), entry_(entry) {}

  std::string path_;
  void* handle_;
  EntryFunction entry_;
  bool called_ = false;
};

}  // namespace gw

#endif  // NOX_GATEWAY_PLUGIN_LOADER_H_
