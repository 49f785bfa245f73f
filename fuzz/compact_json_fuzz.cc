// Fuzzes the gateway's compact JSON writer against jsoncpp's own: any JSON
// text jsoncpp reads (comments dropped) must be written byte for byte as
// jsoncpp writes it.
#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "compact_json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Json::CharReaderBuilder* readers = [] {
    auto* builder = new Json::CharReaderBuilder;
    (*builder)["collectComments"] = false;
    return builder;
  }();
  static const Json::StreamWriterBuilder* writers = [] {
    auto* builder = new Json::StreamWriterBuilder;
    (*builder)["indentation"] = "";
    (*builder)["emitUTF8"] = true;
    return builder;
  }();
  std::unique_ptr<Json::CharReader> reader(readers->newCharReader());
  const char* text = reinterpret_cast<const char*>(data);
  Json::Value value;
  if (!reader->parse(text, text + size, &value, nullptr)) return 0;
  if (gw::toCompactJson(value) != Json::writeString(*writers, value)) std::abort();
  return 0;
}
