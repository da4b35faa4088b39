// A/V cache push and rotation at full load (32 cameras x 4 lists, 200 blocks each) against
// baselines doing the bare minimum: a mutex-guarded append to a std::deque for the push, and a
// locked walk over the same number of list nodes for the rotation tick.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>

#include <cstring>
#include <deque>
#include <vector>

#include "vesk_utility.h"
#include "av/vesk_utility_av_mng.h"
#include "core/vesk_utility_mem_account.h"

using namespace vesk_soft;
using namespace vesk_utility;

namespace
{

vesk_IPC_stream_block_head* make_head(uint32_t type, const vesk_av_time& now)
{
    auto* b = static_cast<vesk_IPC_stream_block_head*>(
        vesk_malloc(VESK_USER_AV_CACHE, 0x9110C, sizeof(vesk_IPC_stream_block_head), 8));
    memset(b, 0, sizeof(*b));
    b->block_size = sizeof(*b);
    b->block_type = type;
    b->block_state = 1;
    b->rcv_time = now;
    return b;
}

// Push one block into a list that rotation keeps at a steady length (the free is outside the
// timed region: rotation's cost is measured on its own below).
void vesk_push(benchmark::State& state)
{
    vesk_utility_av_mng mng;
    const vesk_av_time now = av_now();
    std::vector<vesk_IPC_stream_block_head*> heads(1024); // within the descriptor pool
    size_t i = heads.size();
    for (auto _ : state) {
        if (i == heads.size()) {
            state.PauseTiming();
            vesk_av_time later = now;
            later.sec += 1;
            mng.rotate_pass(later);
            for (auto& h : heads)
                h = make_head(0, now);
            i = 0;
            state.ResumeTiming();
        }
        mng.push_av_block(3, heads[i++]);
    }
    for (; i < heads.size(); i++)
        vesk_free(__FILE__, __func__, heads[i]);
}

void baseline_push(benchmark::State& state)
{
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    std::deque<void*> list;
    int dummy = 0;
    for (auto _ : state) {
        pthread_mutex_lock(&lock);
        list.push_back(&dummy);
        if (list.size() > 1024)
            list.pop_front();
        pthread_mutex_unlock(&lock);
    }
    benchmark::DoNotOptimize(list.size());
}

// One rotation tick over 128 lists of 200 young blocks: statistics and the rotation walk, no
// eviction (the steady state between evictions).
void vesk_rotate_tick(benchmark::State& state)
{
    vesk_utility_av_mng mng;
    const vesk_av_time now = av_now();
    // 25,600 blocks overflow the 1216-descriptor pool: silence its warning while filling.
    fflush(stdout);
    const int saved = dup(1);
    const int null_fd = open("/dev/null", O_WRONLY);
    dup2(null_fd, 1);
    for (uint32_t ch = 0; ch < 32; ch++)
        for (uint32_t t = 0; t < 4; t++)
            for (int i = 0; i < 200; i++)
                mng.push_av_block(ch, make_head(t, now));
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    close(null_fd);
    for (auto _ : state)
        mng.rotate_pass(now);
    state.counters["blocks"] = 32 * 4 * 200;
}

struct node {
    node* next;
    uint32_t ttl;
};

void baseline_rotate_tick(benchmark::State& state)
{
    std::vector<node> nodes(32 * 4 * 200);
    pthread_mutex_t locks[32];
    for (auto& l : locks)
        pthread_mutex_init(&l, nullptr);
    for (size_t i = 0; i + 1 < nodes.size(); i++)
        nodes[i] = node {(i + 1) % 200 != 0 ? &nodes[i + 1] : nullptr, static_cast<uint32_t>(i)};
    for (auto _ : state) {
        uint32_t kept = 0;
        for (uint32_t l = 0; l < 128; l++) {
            pthread_mutex_lock(&locks[l / 4]);
            for (node* n = &nodes[l * 200]; n != nullptr; n = n->next)
                kept += n->ttl > 199 ? 0 : 1;
            pthread_mutex_unlock(&locks[l / 4]);
        }
        benchmark::DoNotOptimize(kept);
    }
}

} // namespace

BENCHMARK(baseline_push);
BENCHMARK(vesk_push);
BENCHMARK(baseline_rotate_tick);
BENCHMARK(vesk_rotate_tick);
