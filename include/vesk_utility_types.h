// vesk_utility_types.h - the shared vocabulary of the utility layer's interface: result codes,
// the 32-bit boolean, process roles, caller/purpose codes, the export macro and the
// diagnostics client interface that every long-lived service implements.
#ifndef VESK_UTILITY_TYPES_H
#define VESK_UTILITY_TYPES_H

#include <cstddef>
#include <cstdint>

#if defined(VESK_UTILITY_BUILDING)
#define VESK_API __attribute__((visibility("default")))
#else
#define VESK_API
#endif

namespace vesk_soft {

// Result of every operation: 0 on success, a 0x4012xxxx code on failure. Errors are
// returned, never thrown.
typedef uint32_t VESK_ERR;

constexpr VESK_ERR VESK_OK = 0;
constexpr VESK_ERR VESK_ERR_FAIL = 0x40120000;           // general failure
constexpr VESK_ERR VESK_ERR_REMOVE_FAIL = 0x40120001;    // unlink failed
constexpr VESK_ERR VESK_ERR_NOT_INIT = 0x40120002;       // not initialised or not in this role
constexpr VESK_ERR VESK_ERR_INVALID_PARAM = 0x40120003;  // NULL handle, out-of-range value
constexpr VESK_ERR VESK_ERR_OPERATE_FAIL = 0x40120004;   // not open, bad data, full/empty, not found
constexpr VESK_ERR VESK_ERR_NOT_SUPPORT = 0x40120005;    // mode or type not supported
constexpr VESK_ERR VESK_ERR_NO_RESOURCE = 0x40120006;    // allocation failed / resource missing
constexpr VESK_ERR VESK_ERR_DB_CORRUPT = 0x40120007;     // SQLite database image malformed
constexpr VESK_ERR VESK_ERR_LOCK_BUSY = 0x40120020;      // lock held / timed out / not held
constexpr VESK_ERR VESK_ERR_LOCK_NOT_INIT = 0x40120021;  // the lock's primitive failed to initialise
constexpr VESK_ERR VESK_ERR_IO = 0x40120023;             // open failed with EIO

// 32-bit boolean of the interface.
typedef int32_t VESK_BOOL;
typedef char VESK_CHAR;

// Start code of every frame header (_tagVeskFrameHeader::uiStartId).
constexpr uint32_t VESK_FRAME_STARTCODE = 0xAB010000;

// Role of the calling process, given once to vesk_utility_init.
enum vesk_utility_ops_type : uint32_t {
    VESK_UTILITY_OPS_MAIN_APP = 1,      // the main application: every service
    VESK_UTILITY_OPS_PROXY_SERVER = 2,  // the proxy server: no timer, events or watchdog
};

// Who asked (the calling module) and why (the purpose of an allocation or task). Free
// 32-bit codes; the values the layer itself uses are listed below.
typedef uint32_t vesk_user_id;
typedef uint32_t vesk_memmory_purpose;

constexpr vesk_user_id VESK_USER_UTILITY = 0x13;         // the layer's own allocations
constexpr vesk_user_id VESK_USER_SQLITE = 0x22;          // SQLite's heap
constexpr vesk_user_id VESK_USER_AV_CACHE = 0x70;        // the A/V block cache
constexpr vesk_user_id VESK_USER_PROTOCOL_LIBS = 0x83;   // libcurl, libfcgi, zlib, polarssl

// printf-like output of a diagnose command: returns 0 while the text reaches the console
// and nonzero once a write has failed, so that an endless report can stop.
typedef int (*print_fn)(const char* format, ...);

// Implemented by every long-lived service and registered with the diagnose agent.
// diagnose() runs the numbered command `para` and writes all of its output through
// `print`; it must not print anywhere else.
class vesk_diagnose_client {
public:
    virtual VESK_ERR diagnose(int para, print_fn print) = 0;
    virtual ~vesk_diagnose_client() {}
};

}  // namespace vesk_soft

#endif  // VESK_UTILITY_TYPES_H
