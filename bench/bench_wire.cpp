// The wire layer's large-payload cost, as a ratio to a plain memcpy of the same 64 MiB into a freshly
// allocated buffer, all measured in this run: writing a parameters message that holds one 64 MiB double
// array into a fresh buffer, and reading a result that holds one (into a new array).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "call_messages.h"
#include "serialization.h"
#include "veltradata/veltradata.h"

namespace {

using namespace foundation::veltradata;
namespace pc = foundation::protobuf::common;
namespace vp = foundation::veltradata::protobuf;

constexpr std::size_t kBytes = std::size_t{64} << 20;
constexpr std::uint64_t kDoubles = kBytes / sizeof(double);

const TypedArray<double>& bigArray() {
    static const TypedArray<double> a = [] {
        ClientArrayFactory f;
        TypedArray<double> t = f.createArray<double>({kDoubles, 1});
        double* p = t.data();
        for (std::uint64_t i = 0; i < kDoubles; ++i) p[i] = static_cast<double>(i) * 0.5;
        return t;
    }();
    return a;
}

// A VELTRA_Result with the array as its one output.
const std::string& bigResult() {
    static const std::string bytes = [] {
        const Array& a = bigArray();
        const std::size_t body = vp::encodedSize(a);
        std::string out(1 + 10 + body, '\0');
        auto* p = reinterpret_cast<std::uint8_t*>(out.data());
        std::uint8_t* q = p;
        *q++ = (pc::VELTRA_Result::kLhsFieldNumber << 3) | 2;
        for (std::uint64_t v = body; ; v >>= 7) {
            if (v < 0x80) { *q++ = static_cast<std::uint8_t>(v); break; }
            *q++ = static_cast<std::uint8_t>(v | 0x80);
        }
        q = vp::encodeArray(a, q);
        out.resize(static_cast<std::size_t>(q - p));
        return out;
    }();
    return bytes;
}

void BM_Memcpy64MiB(benchmark::State& state) {
    const double* src = bigArray().data();
    for (auto _ : state) {
        std::unique_ptr<std::uint8_t[]> dst(new std::uint8_t[kBytes]);
        std::memcpy(dst.get(), src, kBytes);
        benchmark::DoNotOptimize(dst.get());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBytes));
}

void BM_WriteParams64MiB(benchmark::State& state) {
    ClientArrayFactory f;
    const Array args = f.createCellArray({1, 1}, {bigArray()});
    for (auto _ : state) {
        pc::ParamsMessage params(args, 1);
        std::unique_ptr<std::uint8_t[]> dst(new std::uint8_t[params.byteSize()]);
        params.writeTo(dst.get());
        benchmark::DoNotOptimize(dst.get());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBytes));
}

void BM_ReadResult64MiB(benchmark::State& state) {
    const std::string& bytes = bigResult();
    for (auto _ : state) {
        Array out = pc::readResult(bytes);
        benchmark::DoNotOptimize(out.getImpl());
        if (out.getNumberOfElements() != 1) state.SkipWithError("the result did not read back");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBytes));
}

BENCHMARK(BM_Memcpy64MiB)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_WriteParams64MiB)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadResult64MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

// Keeps each benchmark's times per iteration for the ratios printed at the end (the median over
// --benchmark_repetitions, which a busy machine needs).
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs)
            if (r.run_type == Run::RT_Iteration && !r.error_occurred)
                times[r.run_name.function_name].push_back(r.GetAdjustedRealTime());
        ConsoleReporter::ReportRuns(runs);
    }
    double median(const std::string& name) {
        std::vector<double>& v = times[name];
        if (v.empty()) return 0;
        std::sort(v.begin(), v.end());
        return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
    }
    std::map<std::string, std::vector<double>> times;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    bigArray();
    bigResult();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const double base = reporter.median("BM_Memcpy64MiB");
    if (base <= 0) return 0;
    std::printf("\nRatios to memcpy of 64 MiB into a fresh buffer (target: at most 2.0):\n");
    for (const char* name : {"BM_WriteParams64MiB", "BM_ReadResult64MiB"}) {
        const double t = reporter.median(name);
        if (t > 0) std::printf("  %-22s %.2fx\n", name, t / base);
    }
    return 0;
}
