// JSON tree against cJSON and RapidJSON: parse (and free) and compact print of recorder-like
// documents of 1 KB, 64 KB and 1 MB. Each vesk_ run is paired with the baseline_ run of the
// same name; bytes processed give MB/s. The parse floor is cJSON allocating through one mutex.
#include <benchmark/benchmark.h>
#include <cJSON.h>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <pthread.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "store/json/vesk_utility_json_tree.h"

using namespace vesk_utility;

namespace
{

// Channels of a recorder configuration, repeated until the text reaches `target` bytes.
std::string make_document(size_t target)
{
    std::string s = "{\"version\":3,\"device\":{\"model\":\"NVR-3208\",\"max_channels\":32},\"channels\":[";
    for (int i = 0; s.size() < target - 2; i++) {
        if (i > 0)
            s += ",";
        const std::string n = std::to_string(i);
        s += "{\"chn\":" + n + ",\"enable\":" + (i % 3 ? "true" : "false") + ",\"name\":\"Camera " + n
            + "\",\"ip\":\"192.168.1." + std::to_string(64 + i % 190)
            + "\",\"port\":554,\"stream\":[{\"codec\":\"H.265\",\"width\":3840,\"height\":2160,\"fps\":25,"
              "\"bitrate_kbps\":8192},{\"codec\":\"H.264\",\"width\":704,\"height\":576,\"fps\":15,"
              "\"bitrate_kbps\":512}],\"osd\":{\"x\":0.02,\"y\":0.95,\"title\":\"CAM"
            + n + "\"},\"motion\":{\"sensitivity\":60,\"grid\":[0,0,22,18],\"post_s\":30,\"ptz\":null}}";
    }
    s += "]}";
    return s;
}

const std::string& document(int64_t kb)
{
    static std::string docs[3];
    const int i = kb == 1 ? 0 : kb == 64 ? 1 : 2;
    if (docs[i].empty())
        docs[i] = make_document(static_cast<size_t>(kb) * 1024);
    return docs[i];
}

void vesk_parse(benchmark::State& state)
{
    const std::string& text = document(state.range(0));
    for (auto _ : state) {
        vesk_tool_JSON* root = vesk_tool_JSON_parse(text.c_str());
        benchmark::DoNotOptimize(root);
        vesk_tool_JSON_delete(root);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}

void cjson_parse(benchmark::State& state)
{
    const std::string& text = document(state.range(0));
    for (auto _ : state) {
        cJSON* root = cJSON_Parse(text.c_str());
        benchmark::DoNotOptimize(root);
        cJSON_Delete(root);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}

// The floor of a tree whose every node and string is its own allocation from a pool behind one
// mutex: cJSON with each of its allocations and frees taken under such a mutex.
pthread_mutex_t s_pool_mutex = PTHREAD_MUTEX_INITIALIZER;

void* pooled_malloc(size_t size)
{
    pthread_mutex_lock(&s_pool_mutex);
    void* p = malloc(size);
    pthread_mutex_unlock(&s_pool_mutex);
    return p;
}

void pooled_free(void* p)
{
    pthread_mutex_lock(&s_pool_mutex);
    free(p);
    pthread_mutex_unlock(&s_pool_mutex);
}

void cjson_pooled_parse(benchmark::State& state)
{
    cJSON_Hooks hooks = {pooled_malloc, pooled_free};
    cJSON_InitHooks(&hooks);
    cjson_parse(state);
    cJSON_InitHooks(nullptr);
}

void rapidjson_parse(benchmark::State& state)
{
    const std::string& text = document(state.range(0));
    for (auto _ : state) {
        rapidjson::Document d;
        d.Parse(text.c_str());
        benchmark::DoNotOptimize(d.IsObject());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}

// Printing as the operators do it: measure, then print into a buffer of that size.
void vesk_print(benchmark::State& state)
{
    const std::string& text = document(state.range(0));
    vesk_tool_JSON* root = vesk_tool_JSON_parse(text.c_str());
    std::vector<char> buf(text.size() * 2);
    for (auto _ : state) {
        const int size = vesk_tool_JSON_get_print_size(root, 0);
        benchmark::DoNotOptimize(vesk_tool_JSON_export(root, 0, buf.data(), size));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
    vesk_tool_JSON_delete(root);
}

void cjson_print(benchmark::State& state)
{
    const std::string& text = document(state.range(0));
    cJSON* root = cJSON_Parse(text.c_str());
    std::vector<char> buf(text.size() * 2);
    for (auto _ : state)
        benchmark::DoNotOptimize(cJSON_PrintPreallocated(root, buf.data(), static_cast<int>(buf.size()), 0));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
    cJSON_Delete(root);
}

void rapidjson_print(benchmark::State& state)
{
    const std::string& text = document(state.range(0));
    rapidjson::Document d;
    d.Parse(text.c_str());
    rapidjson::StringBuffer out;
    for (auto _ : state) {
        out.Clear();
        rapidjson::Writer<rapidjson::StringBuffer> writer(out);
        d.Accept(writer);
        benchmark::DoNotOptimize(out.GetString());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}

#define VESK_JSON_BENCH(name, fn) BENCHMARK(fn)->Name(name)->Arg(1)->Arg(64)->Arg(1024)->Unit(benchmark::kMicrosecond)

VESK_JSON_BENCH("vesk_parse_cjson", vesk_parse);
VESK_JSON_BENCH("baseline_parse_cjson", cjson_parse);
VESK_JSON_BENCH("floor_parse_cjson", cjson_pooled_parse);
VESK_JSON_BENCH("vesk_parse_rapidjson", vesk_parse);
VESK_JSON_BENCH("baseline_parse_rapidjson", rapidjson_parse);
VESK_JSON_BENCH("vesk_print_cjson", vesk_print);
VESK_JSON_BENCH("baseline_print_cjson", cjson_print);
VESK_JSON_BENCH("vesk_print_rapidjson", vesk_print);
VESK_JSON_BENCH("baseline_print_rapidjson", rapidjson_print);

} // namespace
