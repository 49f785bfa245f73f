// The web console's files (the repository's console/ folder), compiled into
// the gateway by gateway/embed_files.cmake and served below /console/.
//
//   std::map<std::string, std::string> files = gw::embeddedConsoleFiles();
//   files["index.html"]   // "<!doctype html>..."
//
// Thread-safety: embeddedConsoleFiles() only reads constant data.
#ifndef NOX_GATEWAY_CONSOLE_FILES_H_
#define NOX_GATEWAY_CONSOLE_FILES_H_

#include <map>
#include <string>

namespace gw {

// Every file of the console by its path below console/ ("index.html",
// "js/app.js"), with its bytes.
std::map<std::string, std::string> embeddedConsoleFiles();

}  // namespace gw

#endif  // NOX_GATEWAY_CONSOLE_FILES_H_
