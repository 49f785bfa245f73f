# Writes a C++ source that holds every file below SOURCE_DIR, for the
# gateway to serve without reading the disk:
#   cmake -DSOURCE_DIR=console -DOUTPUT=console_files.cc -P embed_files.cmake
# The source defines gw::embeddedConsoleFiles() (gateway/console_files.h).
# Files whose name starts with a dot are left out.
file(GLOB_RECURSE files LIST_DIRECTORIES false RELATIVE ${SOURCE_DIR} ${SOURCE_DIR}/*)
list(SORT files)
set(arrays "")
set(entries "")
set(index 0)
foreach(name ${files})
  get_filename_component(base ${name} NAME)
  if(base MATCHES "^\\.")
    continue()
  endif()
  # The name becomes a C++ string literal and a URL path as it stands.
  if(NOT name MATCHES "^[A-Za-z0-9._/-]+$")
    message(FATAL_ERROR "console file ${name}: use letters, digits, '.', '_', '-' and '/' only")
  endif()
  file(READ ${SOURCE_DIR}/${name} hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  # A trailing zero keeps an empty file's array legal; it is not served.
  string(APPEND arrays "const unsigned char kFile${index}[] = {${bytes}0x00};\n")
  string(APPEND entries "      {\"${name}\", std::string(reinterpret_cast<const char*>(kFile${index}), ${size})},\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE ${OUTPUT}.tmp
"// Generated from console/ by gateway/embed_files.cmake; do not edit.
#include \"console_files.h\"

namespace gw {

namespace {

${arrays}
}  // namespace

std::map<std::string, std::string> embeddedConsoleFiles() {
  return {
${entries}  };
}

}  // namespace gw
")
# Unchanged output keeps its time stamp: nothing is recompiled.
execute_process(COMMAND ${CMAKE_COMMAND} -E copy_if_different ${OUTPUT}.tmp ${OUTPUT})
file(REMOVE ${OUTPUT}.tmp)
