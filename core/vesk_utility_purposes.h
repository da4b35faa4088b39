// vesk_utility_purposes - every purpose code under which the layer accounts its own memory
// (user id 0x13 unless noted), in one table so that the by-module dump names each owner
// unambiguously. Codes marked "fixed" are part of the interface (two fixed owners may share
// one); the others are this library's own choice and must stay distinct from every fixed one.
#ifndef VESK_UTILITY_PURPOSES_H
#define VESK_UTILITY_PURPOSES_H

#include "vesk_utility_types.h"

namespace vesk_utility {

using vesk_soft::vesk_memmory_purpose;

constexpr vesk_memmory_purpose k_purpose_cmd_path = 0x3000;          // fixed: system client's server path
constexpr vesk_memmory_purpose k_purpose_registry_nodes = 0x3001;    // fixed: handle-registry nodes
constexpr vesk_memmory_purpose k_purpose_lock_obj = 0x3002;          // named lock objects
constexpr vesk_memmory_purpose k_purpose_rw_lock_obj = 0x3003;       // read-write lock objects
constexpr vesk_memmory_purpose k_purpose_sleep_obj = 0x3004;         // interruptible sleep objects
constexpr vesk_memmory_purpose k_purpose_thread_records = 0x3000;    // fixed: thread registry records (as the path)
constexpr vesk_memmory_purpose k_purpose_timer = 0x3006;             // fixed: timer task nodes, thread descriptors
constexpr vesk_memmory_purpose k_purpose_diag_clients = 0x3007;      // diagnose agent client list and texts
constexpr vesk_memmory_purpose k_purpose_watch_dog = 0x3008;         // fixed: watchdog records
constexpr vesk_memmory_purpose k_purpose_cpu_samples = 0x3009;       // fixed: thread CPU sample tables
constexpr vesk_memmory_purpose k_purpose_logo = 0x300A;              // fixed: logo frames
constexpr vesk_memmory_purpose k_purpose_diag_scratch = 0x300B;      // a dump's temporary tables
constexpr vesk_memmory_purpose k_purpose_event_manage = 0x300C;     // event manager object, notify batch
constexpr vesk_memmory_purpose k_purpose_system_client = 0x3042;     // the system-command client object
constexpr vesk_memmory_purpose k_purpose_event_observers = 0x300E;   // fixed
constexpr vesk_memmory_purpose k_purpose_event_info = 0x300F;        // fixed
constexpr vesk_memmory_purpose k_purpose_event_schedule = 0x3010;    // fixed
constexpr vesk_memmory_purpose k_purpose_event_filter = 0x3011;      // fixed
constexpr vesk_memmory_purpose k_purpose_net_lists = 0x3013;         // fixed: network query lists
constexpr vesk_memmory_purpose k_purpose_string_chunks = 0x3017;     // fixed: string pool chunks
constexpr vesk_memmory_purpose k_purpose_av_relay = 0x3018;          // fixed: frames joined across blocks
constexpr vesk_memmory_purpose k_purpose_json = 0x3019;              // fixed: JSON trees
constexpr vesk_memmory_purpose k_purpose_little_chunks = 0x301A;     // fixed: little-memory pool chunks
constexpr vesk_memmory_purpose k_purpose_av_reader_chunks = 0x301F;  // fixed: A/V-reader pool chunks
constexpr vesk_memmory_purpose k_purpose_av_descriptors = 0x3020;    // fixed: A/V block descriptors
constexpr vesk_memmory_purpose k_purpose_av_manager = 0x3040;        // the A/V block manager object
constexpr vesk_memmory_purpose k_purpose_av_readers = 0x3041;        // A/V reader objects
constexpr vesk_memmory_purpose k_purpose_file_name = 0x3021;         // fixed: file operators' path copies
constexpr vesk_memmory_purpose k_purpose_file_cache = 0x3030;        // file operators' read caches
constexpr vesk_memmory_purpose k_purpose_extent_scan = 0x3031;       // extent map buffer of a block open
constexpr vesk_memmory_purpose k_purpose_picture_scratch = 0x3038;   // image conversion and codec scratch
constexpr vesk_memmory_purpose k_purpose_bmp_bitmap = 0x3039;        // a BMP operator's pixels
constexpr vesk_memmory_purpose k_purpose_md5_cnt = 0x3050;           // MD5 counter objects
constexpr vesk_memmory_purpose k_purpose_url_operator = 0x3060;      // URL operator objects
constexpr vesk_memmory_purpose k_purpose_xls_read = 0x3070;          // spreadsheet check: sector tables
constexpr vesk_memmory_purpose k_purpose_xls_write = 0x3071;         // spreadsheet writer: cells, strings
constexpr vesk_memmory_purpose k_purpose_toolnet = 0x3080;           // Toolnet object and socket tables
constexpr vesk_memmory_purpose k_purpose_toolnet_buffer = 0x3081;    // Toolnet's receive buffer

}  // namespace vesk_utility

#endif  // VESK_UTILITY_PURPOSES_H
