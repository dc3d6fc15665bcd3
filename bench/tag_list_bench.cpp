// Tag list parsing: time to build a 100,000-line list, the heap it needs at its
// peak, and the growth of the resident set on the first build.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <new>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "bench/taglist_gen.h"
#include "tags/tag_cache.h"
#include "tags/tag_line.h"
#include "tags/tag_list.h"

namespace {

// Live and peak heap bytes, counted by the replacement operator new below.
std::atomic<size_t> g_live{0};
std::atomic<size_t> g_peak{0};
constexpr size_t kHeader = alignof(std::max_align_t);

long max_rss_kib() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

class ListFile {
public:
    ListFile() {
        char pattern[] = "/tmp/plc_bench_XXXXXX";
        if (mkdtemp(pattern) == nullptr) std::abort();
        dir_ = pattern;
        path_ = dir_ + "/PLC7F000001_1.csv";
        std::ofstream out(path_, std::ios::binary);
        plc::bench::TagListShape shape;
        shape.plain = 90000;
        shape.groups = 40;
        shape.group_size = 250;
        lines_ = shape.plain + shape.groups * shape.group_size;
        if (!plc::bench::write_tag_list(out, shape)) std::abort();
    }
    ~ListFile() {
        std::remove(path_.c_str());
        rmdir(dir_.c_str());
    }
    const char *path() const { return path_.c_str(); }
    size_t lines() const { return lines_; }

private:
    std::string dir_;
    std::string path_;
    size_t lines_ = 0;
};

const ListFile &list_file() {
    static const ListFile file;
    return file;
}

// Growth of the resident set during the first build of the process (later
// builds reuse the memory the first one returned).
long g_rss_growth_kib = -1;

void BM_BuildTagTable100k(benchmark::State &state) {
    const ListFile &file = list_file();
    size_t peak_bytes = 0;
    size_t table_bytes = 0;
    bool first = true;
    for (auto _ : state) {
        const long rss_before = g_rss_growth_kib < 0 ? max_rss_kib() : 0;
        std::vector<TagEntry> plain;
        std::vector<plc::IndexedGroup> groups;
        const size_t live_before = g_live.load();
        g_peak.store(live_before);
        const uint32_t *counts =
            plc::build_tagtable(&plain, &groups, file.path(), plc::groupID_table);
        if (counts == nullptr) {
            state.SkipWithError("build failed");
            break;
        }
        if (g_rss_growth_kib < 0) {
            g_rss_growth_kib = max_rss_kib() - rss_before;
        }
        if (first) {
            peak_bytes = g_peak.load() - live_before;
            table_bytes = g_live.load() - live_before;
            first = false;
        }
        benchmark::DoNotOptimize(plain.data());
        benchmark::DoNotOptimize(groups.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * file.lines()));
    state.counters["lines"] = static_cast<double>(file.lines());
    state.counters["heap_peak_MiB"] = static_cast<double>(peak_bytes) / (1 << 20);
    state.counters["table_MiB"] = static_cast<double>(table_bytes) / (1 << 20);
    state.counters["maxrss_delta_MiB"] = static_cast<double>(g_rss_growth_kib) / 1024;
}
BENCHMARK(BM_BuildTagTable100k)->Unit(benchmark::kMillisecond);

void BM_ParseOneLine(benchmark::State &state) {
    const char *line = "Line,Speed,REAL,[0..1_0..4],,Conveyor line speed,W100.05,ARRAY,12345\r\n";
    TagEntry entry;
    for (auto _ : state) {
        plc::LineReason why;
        benchmark::DoNotOptimize(plc::pase_str(line, entry, why));
        benchmark::DoNotOptimize(entry);
    }
}
BENCHMARK(BM_ParseOneLine);

void BM_FindIndexedEntry(benchmark::State &state) {
    std::vector<TagEntry> plain;
    std::vector<plc::IndexedGroup> groups;
    const uint32_t *counts =
        plc::build_tagtable(&plain, &groups, list_file().path(), plc::groupID_table);
    if (counts == nullptr) {
        state.SkipWithError("build failed");
        return;
    }
    plc::TagTable table;
    table.tag_str = std::move(plain);
    table.indexedtag_table = std::move(groups);
    table.tag_num = counts[0];
    table.max_index_id = counts[1];
    uint32_t id = 0x40000;
    for (auto _ : state) {
        benchmark::DoNotOptimize(plc::find_entry(table, id));
        id = id + 8192 > table.max_index_id ? 0x40000 + (id & 0xFF) + 1 : id + 8192;
    }
}
BENCHMARK(BM_FindIndexedEntry);

} // namespace

void *operator new(std::size_t size) {
    void *block = std::malloc(size + kHeader);
    if (block == nullptr) throw std::bad_alloc();
    *static_cast<size_t *>(block) = size;
    const size_t live = g_live.fetch_add(size) + size;
    size_t peak = g_peak.load();
    while (live > peak && !g_peak.compare_exchange_weak(peak, live)) {}
    return static_cast<char *>(block) + kHeader;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void operator delete(void *p) noexcept {
    if (p == nullptr) return;
    char *block = static_cast<char *>(p) - kHeader;
    g_live.fetch_sub(*reinterpret_cast<size_t *>(block));
    std::free(block);
}
void operator delete(void *p, std::size_t) noexcept { operator delete(p); }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

BENCHMARK_MAIN();
