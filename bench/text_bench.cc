// Speed of the text utilities.
//
//   (cd build/bin && ./text_bench --benchmark_min_time=0.2
//       --benchmark_repetitions=3 --benchmark_report_aggregates_only=true)
//
// The trace level stays at its default (info), so the debug records of split
// are dropped before they are formatted, as in a production gateway.
//
// Targets (medians): splitUsingRegex of the 100-byte text at "#@#" within 6
// times BM_PlainSplit of the same text; split at "," within 1.5 times the plain
// split of the comma text; getUTF8ChineseCharNum at 500 MB/s or more.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "qpn_debug_kit.h"
#include "string_utils.h"

namespace {

// Fields of mixed length (some fit the short-string buffer, some do not),
// joined with `separator` until the text reaches `size` bytes.
std::string makeText(size_t size, const std::string& separator) {
  static const char* const kFields[] = {
      "task_1024",      "backup_policy_daily_full", "192.168.10.21",      "OK",
      "storage-pool-3", "2026-11-21 10:00:00",      "vm_web_frontend_07", "0",
  };
  std::string text;
  size_t k = 0;
  while (text.size() < size) {
    if (!text.empty()) text += separator;
    text += kFields[k++ % (sizeof(kFields) / sizeof(kFields[0]))];
  }
  text.resize(size);
  // No separator cut in half at the end, and no trailing separator.
  while (!text.empty() && separator.find(text.back()) != std::string::npos) text.pop_back();
  return text;
}

// The baseline: the usual hand-written split at every occurrence of a
// separator, advancing past it.
void plainSplit(const std::string& text, const std::string& separator,
                std::vector<std::string>& out) {
  size_t start = 0;
  size_t pos;
  while ((pos = text.find(separator, start)) != std::string::npos) {
    out.emplace_back(text, start, pos - start);
    start = pos + separator.size();
  }
  out.emplace_back(text, start);
}

void BM_PlainSplit(benchmark::State& state, const std::string& separator) {
  const std::string text = makeText(static_cast<size_t>(state.range(0)), separator);
  for (auto _ : state) {
    std::vector<std::string> out;
    plainSplit(text, separator, out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
}

void BM_Split(benchmark::State& state, const std::string& separator) {
  const std::string text = makeText(static_cast<size_t>(state.range(0)), separator);
  for (auto _ : state) {
    std::vector<std::string> out;
    CCommon::split(text, separator, out, false);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
}

void BM_SplitUsingRegex(benchmark::State& state, const std::string& separator) {
  const std::string text = makeText(static_cast<size_t>(state.range(0)), separator);
  for (auto _ : state) {
    std::vector<std::string> out;
    CCommon::splitUsingRegex(text, separator, out, false);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
}

BENCHMARK_CAPTURE(BM_PlainSplit, hash_at_hash, std::string("#@#"))->Arg(100)->Arg(10 * 1024);
BENCHMARK_CAPTURE(BM_SplitUsingRegex, hash_at_hash, std::string("#@#"))->Arg(100)->Arg(10 * 1024);
BENCHMARK_CAPTURE(BM_PlainSplit, comma, std::string(","))->Arg(100)->Arg(10 * 1024);
BENCHMARK_CAPTURE(BM_Split, comma, std::string(","))->Arg(100)->Arg(10 * 1024);
BENCHMARK_CAPTURE(BM_SplitUsingRegex, comma, std::string(","))->Arg(100)->Arg(10 * 1024);

// The floor under split and splitUsingRegex: the trace guard with its
// "enter"/"leave" records and one debug record, all filtered at info level.
void BM_TraceGuardOnly(benchmark::State& state) {
  const std::string text = "a,b";
  for (auto _ : state) {
    CQPNDebugKitGuard guard(18, "split");
    guard.debug(0, "split", __LINE__, "the split string is [%s], separator is [%s].", text.c_str(),
                ",");
  }
}
BENCHMARK(BM_TraceGuardOnly);

// Case-blind search of a 1 KB text whose only match is at the end.
void BM_FindCaseBlind(benchmark::State& state) {
  std::string text = makeText(1024 - 10, " ");
  text += "BackupTask";
  const std::string pattern = "backuptask";
  size_t found = 0;
  for (auto _ : state) {
    found = findCase(text, pattern, STR_CASE_EQUAL_PRE);
    benchmark::DoNotOptimize(found);
  }
  if (found != text.size() - pattern.size()) state.SkipWithError("pattern not found at the end");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_FindCaseBlind);

// 1 MB of Chinese text mixed with ASCII, as in rendered task details.
void BM_Utf8ChineseCharNum(benchmark::State& state) {
  const std::string piece =
      "\xe5\xa4\x87\xe4\xbb\xbd\xe4\xbb\xbb\xe5\x8a\xa1 task_1024 "
      "\xe5\xb7\xb2\xe5\xae\x8c\xe6\x88\x90, 100% \xe3\x80\x82";
  std::string text;
  while (text.size() < (1u << 20)) text += piece;
  text.resize(1u << 20);
  int bytes = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(getUTF8ChineseCharNum(text, bytes));
    benchmark::DoNotOptimize(bytes);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_Utf8ChineseCharNum);

}  // namespace

BENCHMARK_MAIN();
