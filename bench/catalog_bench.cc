// Catalogue speed: loading a large messages file, a cached lookup, and the
// substitution pass on growing templates.
//
//   build/bin/catalog_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <tinyxml2.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "trace_sink.h"
#include "xml_config_parser.h"

namespace {

// A temporary folder with a 5 MB messages file and a small enumerations file,
// made once and removed at exit.
struct Files {
  std::string dir;
  std::string messages;
  std::string enums;

  Files() {
    char tmpl[] = "/tmp/nox_catalog_bench_XXXXXX";
    const char* made = mkdtemp(tmpl);
    if (made == nullptr) abort();
    dir = made;
    messages = dir + "/messages.xml";
    enums = dir + "/enums.xml";
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<catalogue>\n<messages>\n";
    for (int i = 0; xml.size() < 5 * 1024 * 1024; ++i) {
      xml += "<message id=\"" + std::to_string(1600000000 + i) +
             "\" template=\"Backup task ##0 transferred ##1 ##2{data_unit} of volume ##3 in "
             "##4 seconds.\"/>\n";
    }
    xml += "</messages>\n</catalogue>\n";
    write(messages, xml);
    write(enums,
          "<e><param_enum><enum_type name=\"data_unit\"><enum_member value=\"3\">GB"
          "</enum_member></enum_type></param_enum></e>");
  }
  ~Files() {
    unlink(messages.c_str());
    unlink(enums.c_str());
    rmdir(dir.c_str());
  }
  static void write(const std::string& path, const std::string& content) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) abort();
    std::fwrite(content.data(), 1, content.size(), f);
    std::fclose(f);
  }
};

Files& files() {
  static Files f;
  return f;
}

// Debug records are filtered out by the trace level, as in production.
struct Quiet {
  Quiet() { setTraceLevel(TraceLevel::kInfo); }
};
Quiet quiet;

void BM_InitFiveMegabytes(benchmark::State& state) {
  for (auto _ : state) {
    CXmlConfigParser<MessageInfo> parser;
    parser.init(files().messages, files().enums);
    if (parser.infoMap_.empty()) state.SkipWithError("nothing loaded");
    benchmark::DoNotOptimize(parser.infoMap_.size());
  }
}
BENCHMARK(BM_InitFiveMegabytes)->Unit(benchmark::kMillisecond);

void BM_TinyxmlLoadFileAlone(benchmark::State& state) {
  for (auto _ : state) {
    tinyxml2::XMLDocument doc;
    if (doc.LoadFile(files().messages.c_str()) != tinyxml2::XML_SUCCESS) {
      state.SkipWithError("load failed");
    }
    benchmark::DoNotOptimize(doc.FirstChildElement());
  }
}
BENCHMARK(BM_TinyxmlLoadFileAlone)->Unit(benchmark::kMillisecond);

void BM_GetXmlInfoCached(benchmark::State& state) {
  std::string dir = files().dir;
  std::string xml = dir + "/small.xml";
  Files::write(xml,
               "<c><messages><message id=\"1600000007\" template=\"Volume ##0 backed up: ##1 "
               "files, ##2 GB.\"/></messages></c>");
  CXmlConfigParser<MessageInfo> parser;
  parser.init(xml, files().enums);
  for (auto _ : state) {
    MessageInfo info;
    info.init();
    if (parser.getXmlInfo("1600000007", "C:#@#1520#@#3.2", info, "#@#") != 0) {
      state.SkipWithError("lookup failed");
    }
    benchmark::DoNotOptimize(info.template_.data());
  }
  unlink(xml.c_str());
}
BENCHMARK(BM_GetXmlInfoCached)->Unit(benchmark::kMicrosecond);

// A template of `size` bytes with a placeholder every 32 bytes.
std::string makeTemplate(size_t size) {
  const std::string chunk = "abcdefghijklmnopqrstuvwxyz ##1 ";  // 31 bytes + 1 below
  std::string text;
  while (text.size() < size) text += chunk + ".";
  text.resize(size);
  return text;
}

void BM_ReplaceParameter(benchmark::State& state) {
  const std::string text = makeTemplate(static_cast<size_t>(state.range(0)));
  const std::vector<std::string> params{"alpha", "beta", "gamma"};
  CXmlConfigParser<MessageInfo> parser;
  for (auto _ : state) {
    std::string out = StringUtil::replaceParameter(
        text, params, &CXmlConfigParser<MessageInfo>::getEnumString, parser);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_ReplaceParameter)->Arg(1 << 10)->Arg(16 << 10)->Arg(256 << 10);

void BM_PlainCopy1K(benchmark::State& state) {
  const std::string text = makeTemplate(1 << 10);
  for (auto _ : state) {
    std::string copy = text;
    benchmark::DoNotOptimize(copy.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (1 << 10));
}
BENCHMARK(BM_PlainCopy1K);

}  // namespace

BENCHMARK_MAIN();
