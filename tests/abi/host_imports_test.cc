// The plug-in imports from its host only what the host framework declares.
//
// The real gateway's host library is closed: any symbol the plug-in imports
// that the host does not export is an "undefined symbol" when the real
// gateway loads it. This test reads the built plug-in's undefined dynamic
// symbols, sets aside those of the system libraries it names (libc,
// libstdc++, libgcc: versioned symbols; jsoncpp, tinyxml2, PCRE2, ACE: the
// ones those libraries define) and compares the rest, the host's part, with
// the checked-in list tests/abi/host_imports.txt, where each entry says
// where the host declares it.
#include <cxxabi.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "command_lines.h"

namespace {

std::string shellQuoted(const std::string& path) { return "'" + path + "'"; }

// Demangled, with the long std::string spelled std::string.
std::string readable(const std::string& mangled) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> out(
      abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status), std::free);
  std::string name = status == 0 && out ? out.get() : mangled;
  const std::string longForm =
      "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >";
  for (size_t at = name.find(longForm); at != std::string::npos; at = name.find(longForm, at)) {
    name.replace(at, longForm.size(), "std::string");
  }
  return name;
}

// Symbols a sanitizer or coverage build adds; never the host's.
bool isToolSymbol(const std::string& name) {
  for (const char* prefix :
       {"__asan", "__ubsan", "__tsan", "__lsan", "__msan", "__sanitizer", "__sancov"}) {
    if (name.compare(0, std::char_traits<char>::length(prefix), prefix) == 0) return true;
  }
  return false;
}

// The unversioned symbols that the libraries the plug-in needs define,
// except the host library itself.
std::set<std::string> systemLibrarySymbols() {
  std::set<std::string> names;
  for (const std::string& line :
       commandLines("ldd " + shellQuoted(NOX_PLUGIN_PATH) + " 2>/dev/null")) {
    // "\tlibjsoncpp.so.25 => /lib/x86_64-linux-gnu/libjsoncpp.so.25 (0x...)"
    const size_t arrow = line.find("=> ");
    if (arrow == std::string::npos) continue;
    const std::string soname = line.substr(0, arrow);
    if (soname.find("libucore_tlv") != std::string::npos) continue;
    std::istringstream rest(line.substr(arrow + 3));
    std::string path;
    rest >> path;
    if (path.empty() || path[0] != '/') continue;
    for (const std::string& def :
         commandLines("nm -D --defined-only " + shellQuoted(path) + " 2>/dev/null")) {
      std::istringstream fields(def);
      std::string address, type, name;
      fields >> address >> type >> name;
      const size_t at = name.find('@');
      if (at != std::string::npos) name.erase(at);
      if (!name.empty()) names.insert(name);
    }
  }
  return names;
}

// The host's part of the plug-in's imports, demangled.
std::set<std::string> hostImports() {
  const std::set<std::string> system = systemLibrarySymbols();
  std::set<std::string> host;
  for (const std::string& line :
       commandLines("nm -D --undefined-only " + shellQuoted(NOX_PLUGIN_PATH) + " 2>/dev/null")) {
    std::istringstream fields(line);
    std::string type, name;
    fields >> type >> name;
    // A weak reference does not stop the plug-in from loading.
    if (type != "U") continue;
    // libc, libstdc++ and libgcc version every symbol they export.
    if (name.find('@') != std::string::npos) continue;
    if (system.count(name) != 0 || isToolSymbol(name)) continue;
    host.insert(readable(name));
  }
  return host;
}

// symbol -> where the host declares it, from the checked-in list.
std::map<std::string, std::string> declaredImports() {
  std::map<std::string, std::string> entries;
  std::ifstream in(NOX_HOST_IMPORTS_LIST);
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    const size_t bar = line.find(" | ");
    const std::string symbol = line.substr(0, bar);
    entries[symbol] = bar == std::string::npos ? std::string() : line.substr(bar + 3);
  }
  return entries;
}

TEST(HostImportsTest, ListSaysWhereEachSymbolIsDeclared) {
  const std::map<std::string, std::string> declared = declaredImports();
  ASSERT_GT(declared.size(), 40u) << "could not read " << NOX_HOST_IMPORTS_LIST;
  for (const auto& entry : declared) {
    // "header | where": both parts present.
    const size_t bar = entry.second.find(" | ");
    EXPECT_TRUE(bar != std::string::npos && bar > 0 && bar + 3 < entry.second.size())
        << "entry without header and place: " << entry.first;
  }
}

TEST(HostImportsTest, PluginImportsOnlyDeclaredHostSymbols) {
  const std::set<std::string> imports = hostImports();
  // The registry is always imported; an empty set means nm or ldd failed.
  ASSERT_EQ(imports.count("CSpecifyProc::regReqProc(std::string const&, CSpecifyOp*, bool)"), 1u)
      << "could not read the imports of " << NOX_PLUGIN_PATH;
  const std::map<std::string, std::string> declared = declaredImports();
  std::string undeclared;
  for (const std::string& name : imports) {
    if (declared.count(name) == 0) undeclared += "  " + name + "\n";
  }
  EXPECT_TRUE(undeclared.empty())
      << "the plug-in imports host symbols the host framework does not declare; a real "
         "gateway would refuse to load it with \"undefined symbol\". Use the declared members "
         "(include/, docs/host-framework.md) instead of:\n"
      << undeclared;

  // Listed entries the build does not import (an optimisation may call a
  // slot directly or not): only reported, the list is what may be imported.
  for (const auto& entry : declared) {
    if (imports.count(entry.first) == 0)
      std::printf("listed, not imported: %s\n", entry.first.c_str());
  }
}

}  // namespace
