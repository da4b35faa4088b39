// vesk_utility_mem_sys - memory figures of the system (/proc/meminfo, /proc/vmallocinfo) and
// of this process (its smaps). Parsers take an open stream so that tests feed fixtures.
#ifndef VESK_UTILITY_MEM_SYS_H
#define VESK_UTILITY_MEM_SYS_H

#include <cstdint>
#include <cstdio>

#include "vesk_utility_types.h"

namespace vesk_utility {

using vesk_soft::print_fn;

// The fixed-position read of meminfo: line 1 from column 9 (MemTotal), line 2 from column 8
// (MemFree), line 4 from column 8 (Buffers, line 3 being MemAvailable), line 5 from column 7
// (Cached), in kB.
void parse_meminfo_fixed(FILE* fp, unsigned& total, unsigned& free_kb, unsigned& buffers, unsigned& cached);

// The keyed figures of meminfo used by the summary, in kB.
struct vesk_meminfo {
    uint64_t total, free, buffers, cached, unevictable, shmem, sunreclaim, kernel_stack, page_tables;
    uint64_t vmalloc;  // sum of the vmalloc areas of vmallocinfo
};
void parse_meminfo_keys(FILE* fp, vesk_meminfo& mi);
uint64_t parse_vmallocinfo(FILE* fp);  // bytes

// "System total use mem = N%" and the figures line. ramfs_cache is Shmem (tmpfs and ramfs
// pages, which sit in Cached but cannot be dropped); kernel_used is SUnreclaim + KernelStack
// + PageTables + vmalloc; total_used is total - free - buffers - (cached - ramfs_cache), the
// memory that cannot be given back, and the percentage is total_used / total.
void print_meminfo_summary(const vesk_meminfo& mi, print_fn print);
void dump_system_mem(print_fn print);

// Resident memory of one process from its smaps: a summary (Size, Rss, Pss, shared and
// private clean/dirty, Swap over all mappings) and, with `detail`, one line per mapping with
// resident pages, largest Rss first.
void dump_smaps(FILE* fp, bool detail, print_fn print);
void dump_rss(bool detail, print_fn print);

}  // namespace vesk_utility

#endif  // VESK_UTILITY_MEM_SYS_H
