// Registers the installed plug-in's routes with the installed reference
// host, the way a host integrator would: headers from the contract,
// libucore_tlv from the package, the plug-in loaded with dlopen.
#include <dlfcn.h>

#include <cstdio>

#include "operation_base.h"
#include "tlv_package.h"

int main() {
  // An inline member of the contract and one of the host library.
  CR3MPackageV3 package;
  package.addRecord(0xE0000052, 13)[70].set_i(CTLVCell::TLV_STRING, 70, const_cast<char*>("x"), 2);
  if (package.size() != 1) return 1;

  void* plugin = dlopen(PLUGIN_PATH, RTLD_NOW);
  if (plugin == nullptr) {
    std::fprintf(stderr, "dlopen: %s\n", dlerror());
    return 1;
  }
  using Entry = int (*)(CSpecifyProc*);
  Entry entry = reinterpret_cast<Entry>(dlsym(plugin, "NOXRegisterOperations"));
  if (entry == nullptr) return 1;
  CSpecifyProc registry;
  if (entry(&registry) != 0) return 1;
  std::printf("%zu routes\n", registry.routes().size());
  registry.releaseAll();
  return registry.routes().empty() ? 0 : 1;
}
