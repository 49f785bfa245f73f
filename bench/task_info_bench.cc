// doBuildTaskInfo on task details of 10, 100, 1,000 and 10,000 progress
// entries with three parameters each, beside a bare jsoncpp parse of the same
// detail text (the floor jsoncpp sets for any rendering).
//
//   build/bin/task_info_bench --benchmark_repetitions=5
//       --benchmark_report_aggregates_only=true    (one command line)
//
// Runs against its own small catalogues in a temporary folder; the trace
// level stays at the host's default, so debug records are dropped before
// they are formatted.
#include <benchmark/benchmark.h>
#include <json/json.h>

#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

#include "../tests/support/catalogue_dir.h"
#include "NOXTaskOp.h"
#include "trace_sink.h"

namespace {

// Entries cycle through three catalogue messages, three parameters each.
std::string makeDetail(int entries) {
  static const char* const kIds[] = {"1600000004", "1600000011", "1600000003"};
  std::string json = "[";
  for (int i = 0; i < entries; ++i) {
    if (i > 0) json += ",";
    json += "{\"id\":\"" + std::string(kIds[i % 3]) + "\",\"params\":[{\"param\":\"" +
            std::to_string(1700000000 + i) + "\"},{\"param\":\"vol" + std::to_string(i) +
            "\"},{\"param\":\"" + std::to_string(i % 5) + "\"},{\"param\":\"" +
            std::to_string(i * 7) + "\"}]}";
  }
  return json + "]";
}

struct Fixture {
  Fixture() {
    setenv("TZ", "UTC", 1);
    tzset();
    setTraceLevel(TraceLevel::kInfo);
    dir.write("task_extra_info_en.xml",
              "<catalogue><messages>\n"
              "<message id=\"1600000004\" template=\"Creating a snapshot of volume ##0 (##1 of "
              "##2).\"/>\n"
              "<message id=\"1600000011\" template=\"Connection to client ##0 lost. Retry ##1 "
              "of ##2.\"/>\n"
              "<message id=\"1600000003\" template=\"Scan finished: ##0 volumes, ##1 files, "
              "##2 in total.\"/>\n"
              "</messages></catalogue>\n");
    dir.write("task_extra_info_zh.xml", "<catalogue><messages/></catalogue>\n");
    dir.write("enum_en.xml", "<catalogue><param_enum/></catalogue>\n");
    dir.write("enum_zh.xml", "<catalogue><param_enum/></catalogue>\n");
    op = std::make_unique<NOXTaskOp>(0xE012);
  }
  CatalogueDir dir;
  std::unique_ptr<NOXTaskOp> op;
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

void BM_BuildTaskInfo(benchmark::State& state) {
  NOXTaskOp& op = *fixture().op;
  CR3MRecordV3 record;
  record[0x58].setString(0x58, makeDetail(static_cast<int>(state.range(0))));
  std::string detail;
  for (auto _ : state) {
    std::string code = "1600000011";
    op.doBuildTaskInfo(record, detail, false, code);
    benchmark::DoNotOptimize(detail.data());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_BareJsonParse(benchmark::State& state) {
  const std::string json = makeDetail(static_cast<int>(state.range(0)));
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  for (auto _ : state) {
    Json::Value root;
    reader->parse(json.data(), json.data() + json.size(), &root, nullptr);
    benchmark::DoNotOptimize(root);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

BENCHMARK(BM_BuildTaskInfo)
    ->Arg(10)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BareJsonParse)
    ->Arg(10)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
