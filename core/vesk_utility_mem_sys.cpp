// vesk_utility_mem_sys - system and process memory figures from /proc.
#include "core/vesk_utility_mem_sys.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_purposes.h"

namespace vesk_utility {

using namespace vesk_soft;

namespace {
constexpr int k_smaps_max_maps = 1024;
}  // namespace

void parse_meminfo_fixed(FILE* fp, unsigned& total, unsigned& free_kb, unsigned& buffers, unsigned& cached)
{
    // Line number -> (column, destination); line 3 (MemAvailable) is skipped.
    struct fixed_field {
        int line;
        size_t column;
        unsigned* out;
    } fields[] = {{1, 9, &total}, {2, 8, &free_kb}, {4, 8, &buffers}, {5, 7, &cached}};
    total = free_kb = buffers = cached = 0;
    char line[256];
    int no = 0;
    size_t next = 0;
    while (next < sizeof(fields) / sizeof(fields[0]) && fgets(line, sizeof(line), fp) != nullptr) {
        no++;
        if (no != fields[next].line)
            continue;
        if (strlen(line) > fields[next].column)
            *fields[next].out = static_cast<unsigned>(atoi(line + fields[next].column));
        next++;
    }
}

void parse_meminfo_keys(FILE* fp, vesk_meminfo& mi)
{
    const uint64_t vmalloc = mi.vmalloc;
    memset(&mi, 0, sizeof(mi));
    mi.vmalloc = vmalloc;
    struct key {
        const char* name;
        uint64_t* out;
    } keys[] = {{"MemTotal:", &mi.total},         {"MemFree:", &mi.free},         {"Buffers:", &mi.buffers},
                {"Cached:", &mi.cached},          {"Unevictable:", &mi.unevictable}, {"Shmem:", &mi.shmem},
                {"SUnreclaim:", &mi.sunreclaim}, {"KernelStack:", &mi.kernel_stack}, {"PageTables:", &mi.page_tables}};
    char line[256];
    while (fgets(line, sizeof(line), fp) != nullptr) {
        for (const key& k : keys) {
            const size_t n = strlen(k.name);
            if (strncmp(line, k.name, n) == 0) {
                *k.out = strtoull(line + n, nullptr, 10);
                break;
            }
        }
    }
}

uint64_t parse_vmallocinfo(FILE* fp)
{
    // "0xffffc90000000000-0xffffc90000005000   20480 func+0x1a/0x50 pages=4 vmalloc N0=4"
    uint64_t sum = 0;
    char line[512];
    while (fgets(line, sizeof(line), fp) != nullptr) {
        if (strstr(line, " vmalloc") == nullptr)
            continue;
        const char* p = strchr(line, ' ');
        if (p != nullptr)
            sum += strtoull(p, nullptr, 10);
    }
    return sum;
}

namespace {

// kB -> whole and tenths in MB or GB.
struct scaled {
    unsigned whole, tenth;
    const char* unit;
};

scaled scale_kb(uint64_t kb)
{
    if (kb >= (1ull << 20))
        return {static_cast<unsigned>(kb >> 20), static_cast<unsigned>(((kb & 0xFFFFF) * 10) >> 20), "GB"};
    return {static_cast<unsigned>(kb >> 10), static_cast<unsigned>(((kb & 0x3FF) * 10) >> 10), "MB"};
}

}  // namespace

void print_meminfo_summary(const vesk_meminfo& mi, print_fn print)
{
    const uint64_t ramfs_cache = mi.shmem;
    const uint64_t kernel_used = mi.sunreclaim + mi.kernel_stack + mi.page_tables + mi.vmalloc / 1024;
    const uint64_t reclaim = mi.free + mi.buffers + (mi.cached > ramfs_cache ? mi.cached - ramfs_cache : 0);
    const uint64_t total_used = mi.total > reclaim ? mi.total - reclaim : 0;
    const unsigned pct = mi.total != 0 ? static_cast<unsigned>(total_used * 100 / mi.total) : 0;
    print("System total use mem = %d%%\n", pct);
    const scaled t = scale_kb(mi.total), f = scale_kb(mi.free), b = scale_kb(mi.buffers), c = scale_kb(mi.cached),
                 r = scale_kb(ramfs_cache), k = scale_kb(kernel_used), u = scale_kb(total_used);
    print("total = %d.%d%s, free = %d.%d%s, buff = %d.%d%s, cach = %d.%d%s, ramfs_cache = %d.%d%s, kernel_used = "
          "%d.%d%s total_used = %d.%d%s\n",
          t.whole, t.tenth, t.unit, f.whole, f.tenth, f.unit, b.whole, b.tenth, b.unit, c.whole, c.tenth, c.unit,
          r.whole, r.tenth, r.unit, k.whole, k.tenth, k.unit, u.whole, u.tenth, u.unit);
}

void dump_system_mem(print_fn print)
{
    vesk_meminfo mi{};
    FILE* fp = fopen("/proc/vmallocinfo", "r");
    if (fp == nullptr) {
        print("open /proc/vmallocinfo failed\n");
    } else {
        mi.vmalloc = parse_vmallocinfo(fp);
        fclose(fp);
    }
    fp = fopen("/proc/meminfo", "r");
    if (fp == nullptr) {
        print("open /proc/meminfo failed\n");
        return;
    }
    parse_meminfo_keys(fp, mi);
    fclose(fp);
    print_meminfo_summary(mi, print);
}

namespace {

struct smaps_map {
    unsigned long start, end;
    char perms[8];
    char name[48];
    uint64_t rss, pss, private_dirty;
};

// Value of a "Key:   123 kB" line when it starts with key.
bool smaps_value(const char* line, const char* key, uint64_t& out)
{
    const size_t n = strlen(key);
    if (strncmp(line, key, n) != 0 || line[n] != ':')
        return false;
    out = strtoull(line + n + 1, nullptr, 10);
    return true;
}

}  // namespace

void dump_smaps(FILE* fp, bool detail, print_fn print)
{
    smaps_map* maps = nullptr;
    if (detail) {
        maps = static_cast<smaps_map*>(
            vesk_malloc(VESK_USER_UTILITY, k_purpose_diag_scratch, sizeof(smaps_map) * k_smaps_max_maps, vesk_obj_align<smaps_map>()));
        if (maps == nullptr)
            detail = false;
    }
    uint64_t size = 0, rss = 0, pss = 0, sh_clean = 0, sh_dirty = 0, pr_clean = 0, pr_dirty = 0, swap = 0;
    int count = 0, kept = 0;
    smaps_map* cur = nullptr;
    char line[512];
    while (fgets(line, sizeof(line), fp) != nullptr) {
        unsigned long start, end;
        char perms[8];
        int name_at = 0;
        if (sscanf(line, "%lx-%lx %7s %*s %*s %*s %n", &start, &end, perms, &name_at) == 3 && name_at > 0) {
            count++;
            cur = nullptr;
            if (detail && kept < k_smaps_max_maps) {
                cur = &maps[kept++];
                memset(cur, 0, sizeof(*cur));
                cur->start = start;
                cur->end = end;
                snprintf(cur->perms, sizeof(cur->perms), "%s", perms);
                snprintf(cur->name, sizeof(cur->name), "%s", line + name_at);
                cur->name[strcspn(cur->name, "\n")] = '\0';
            }
            continue;
        }
        uint64_t v;
        if (smaps_value(line, "Size", v))
            size += v;
        else if (smaps_value(line, "Rss", v)) {
            rss += v;
            if (cur)
                cur->rss = v;
        } else if (smaps_value(line, "Pss", v)) {
            pss += v;
            if (cur)
                cur->pss = v;
        } else if (smaps_value(line, "Shared_Clean", v))
            sh_clean += v;
        else if (smaps_value(line, "Shared_Dirty", v))
            sh_dirty += v;
        else if (smaps_value(line, "Private_Clean", v))
            pr_clean += v;
        else if (smaps_value(line, "Private_Dirty", v)) {
            pr_dirty += v;
            if (cur)
                cur->private_dirty = v;
        } else if (smaps_value(line, "Swap", v))
            swap += v;
    }
    print("process %d: mappings = %d, size = %" PRIu64 "KB, rss = %" PRIu64 "KB, pss = %" PRIu64
          "KB, shared_clean = %" PRIu64 "KB, shared_dirty = %" PRIu64 "KB, private_clean = %" PRIu64
          "KB, private_dirty = %" PRIu64 "KB, swap = %" PRIu64 "KB\n",
          static_cast<int>(getpid()), count, size, rss, pss, sh_clean, sh_dirty, pr_clean, pr_dirty, swap);
    if (!detail)
        return;
    // Largest resident first; insertion sort, O(maps^2) on at most 1024 entries.
    for (int i = 1; i < kept; i++) {
        smaps_map m = maps[i];
        int j = i - 1;
        while (j >= 0 && maps[j].rss < m.rss) {
            maps[j + 1] = maps[j];
            j--;
        }
        maps[j + 1] = m;
    }
    print("%-17s %-4s %10s %10s %14s %s\n", "address", "perm", "rss(KB)", "pss(KB)", "priv_dirty(KB)", "mapping");
    for (int i = 0; i < kept && maps[i].rss > 0; i++) {
        if (print("%08lx-%08lx %-4s %10" PRIu64 " %10" PRIu64 " %14" PRIu64 " %s\n", maps[i].start, maps[i].end,
                  maps[i].perms, maps[i].rss, maps[i].pss, maps[i].private_dirty, maps[i].name) != 0)
            break;
    }
    vesk_free(__FILE__, __func__, maps);
}

void dump_rss(bool detail, print_fn print)
{
    dump_system_mem(print);
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/smaps", static_cast<int>(getpid()));
    FILE* fp = fopen(path, "r");
    if (fp == nullptr) {
        print("open %s failed\n", path);
        return;
    }
    dump_smaps(fp, detail, print);
    fclose(fp);
}

}  // namespace vesk_utility
