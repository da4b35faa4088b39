// vesk_utility_paths - every fixed absolute path of the layer, declared once, and the
// VESK_UTILITY_ROOT prefix that moves them into a private tree for tests, the demo and a
// developer's machine. /proc, /dev, /tmp and /bin/sh are never prefixed and are not listed.
#ifndef VESK_UTILITY_PATHS_H
#define VESK_UTILITY_PATHS_H

#include <cstddef>

namespace vesk_utility {

// Diagnose agent sockets (server) by role.
constexpr const char* k_path_diag_socket_main = "/usr/lib/libutility.socket";
constexpr const char* k_path_diag_socket_proxy = "/usr/lib/libutility_proxy_server.socket";
// System-command proxy sockets (client) by role.
constexpr const char* k_path_cmd_socket_main = "/usr/lib/libmodel.socket";
constexpr const char* k_path_cmd_socket_proxy = "/usr/lib/vesk_proxy_server.socket";
// Marker files and records.
constexpr const char* k_path_config_dir = "/config/";
constexpr const char* k_path_close_dog = "/config//close_dog";
constexpr const char* k_path_wdt_tag = "/reserve/wdt_tag.xml";
// Logo frame folders.
constexpr const char* k_path_logo_platform_dir = "/mnt/mtd/res/platform/";
constexpr const char* k_path_logo_app_dir = "/mnt/mtd/app/";
// Per-interface resolver files (printf formats taking the interface name).
constexpr const char* k_path_resolv_reserve_fmt = "/reserve/resolv_%s.conf";
constexpr const char* k_path_resolv_etc_fmt = "/etc/resolv_%s.conf";

// The prefix read from VESK_UTILITY_ROOT at first use ("" when unset); fixed for the life of
// the process.
const char* vesk_root();

// Writes root + fixed into out (NUL-terminated, cut to size) and returns out. `fixed` is one
// of the paths above, or one built from them.
char* vesk_rooted_path(char* out, size_t size, const char* fixed);

}  // namespace vesk_utility

#endif  // VESK_UTILITY_PATHS_H
