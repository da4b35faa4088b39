// vesk_utility_event.h - the event manager: the recorder's active alarms and state events,
// their weekly arming schedules, per-user filters and the observers told when an event starts
// and when it ends. A service of the main application (role 1) only.
//
// Contract
//   An event is identified by (main type, local flag, sub type, index). Raising it
//   (vesk_utility_set_event_state with trigger 1) makes it active for a valid time; raising it
//   again reloads that time; raising it with trigger 0 ends it at the next check. A check runs
//   once a second on the timer service (the first one 30 s after start-up): it counts every
//   active event down, and tells each registered observer once when an event starts (its first
//   check) and once when it ends (is_trigger 0, end_time set). Observers are called on the
//   timer thread, in raising order, with no manager lock held, and only while the push state
//   is on; an observer may raise and end events from its callback, but must not register or
//   unregister observers there.
//
//   Valid time (in checks, i.e. seconds): 30 for disk events; otherwise the first valid time
//   (default 6) for events of local sources, the second (default 8) for events relayed by
//   cameras, which arrive later and less regularly.
//
//   Arming schedules apply to channel events only (except VESK_EVENT_SUB_CHANNEL_OFFLINE, a
//   state that is always shown): an event is listed while its schedule arms the current local
//   time. An event without a schedule is always armed. A schedule is looked up by the event's
//   id, failing that by its wildcard form (same main type, local flag and sub type, any index).
//
//   Filters hide events from one user's listing (vesk_utility_get_event_info); they never stop
//   an event from being raised or notified. User VESK_EVENT_USER_ALL's filters hide from both
//   users.
//
//   Every function is safe to call from any thread. Outside the main application role each
//   one logs "not init, or not support, s_ops_type = 0x..." and returns VESK_ERR_NOT_INIT;
//   a NULL pointer argument is VESK_ERR_INVALID_PARAM.
#ifndef VESK_UTILITY_EVENT_H
#define VESK_UTILITY_EVENT_H

#include <cstdint>

#include "vesk_utility_types.h"

namespace vesk_soft
{

// Main types. VESK_EVENT_MAIN_ANY only matches in vesk_event_type queries and filters; it is
// never the type of an event.
enum : uint32_t {
    VESK_EVENT_MAIN_UNKNOW = 0,
    VESK_EVENT_MAIN_ANY = 1,
    VESK_EVENT_CHANNEL_EVENT = 2, // index: camera channel 0-31
    VESK_EVENT_DISK_EVENT = 3, // index: disk number, 1-based
    VESK_EVENT_NET_EVENT = 4, // index: network interface number, 1-based
    VESK_EVENT_IO_EVENT = 5, // index: alarm input, 0-15 local, 0-31 on cameras
    VESK_EVENT_SYSTEM_EVENT = 6, // index: 0-15 local, 0-31 relayed
    VESK_EVENT_MAIN_MAX = 6,
};

// Sub types.
enum : uint32_t {
    VESK_EVENT_SUB_TYPE_UNKNOW = 0,
    VESK_EVENT_SUB_MOTION = 1,
    VESK_EVENT_SUB_VIDEO_LOSS = 2,
    VESK_EVENT_SUB_TAMPER = 3,
    VESK_EVENT_SUB_ALARM_INPUT = 4,
    VESK_EVENT_SUB_DISK_FULL = 5,
    VESK_EVENT_SUB_DISK_ERROR = 6,
    VESK_EVENT_SUB_NO_DISK = 7,
    VESK_EVENT_SUB_NET_DISCONNECT = 8,
    VESK_EVENT_SUB_IP_CONFLICT = 9,
    VESK_EVENT_SUB_ILLEGAL_ACCESS = 10,
    VESK_EVENT_SUB_RECORD_FAIL = 11,
    VESK_EVENT_SUB_AUDIO_EXCEPTION = 12,
    // Analytics events, reported by cameras many times a second: a refresh moves their last
    // trigger time only when it is at least 3 s old (or in the future after a clock change).
    VESK_EVENT_SUB_LINE_CROSSING = 13,
    VESK_EVENT_SUB_INTRUSION = 14,
    VESK_EVENT_SUB_REGION_ENTRANCE = 15,
    VESK_EVENT_SUB_CHANNEL_OFFLINE = 25, // a state, not an alarm: never hidden by schedules
    VESK_EVENT_SUB_TYPE_ANY = 0xFFFFFFFF,
};

// The detail a module raises (160 bytes, no addresses: identical on every ABI).
//   offset   0  main_type   u32
//            4  local       u32  nonzero: the recorder's own source; zero: relayed by a camera
//            8  sub_type    u32
//           12  index       u32  channel, disk, interface or input (see the main types)
//           16  level       u32  severity, free for the modules (0 information .. 3 critical)
//           20  param[3]    u32  free for the modules (e.g. free space of a full disk, in MB)
//           32  source[32]  char NUL-terminated (e.g. a camera's address)
//           64  text[96]    char NUL-terminated message
struct vesk_event_info {
    uint32_t main_type;
    uint32_t local;
    uint32_t sub_type;
    uint32_t index;
    uint32_t level;
    uint32_t param[3];
    char source[32];
    char text[96];
};
static_assert(sizeof(vesk_event_info) == 160, "event detail is 160 bytes");

// What observers receive and vesk_utility_get_event_info lists (176 bytes). Times are
// seconds since the epoch; end_time is 0 while the event is active.
struct vesk_event_detail_info {
    vesk_event_info detail;
    uint32_t is_trigger; // 1 active, 0 ended
    uint32_t start_time;
    uint32_t last_time; // last trigger
    uint32_t end_time;
};
static_assert(sizeof(vesk_event_detail_info) == 176, "event record is 176 bytes");

// Wildcard byte of an id.
enum : uint8_t {
    VESK_EVENT_ID_EXACT = 0,
    // Every index. Setting a schedule with it replaces the per-index schedules of the type.
    VESK_EVENT_ID_ALL_INDEX = 1,
    // Every index, as a default: setting a schedule with it keeps the per-index schedules.
    VESK_EVENT_ID_DEFAULT_INDEX = 2,
};

// One event, or with a wildcard every index of one (main type, local flag, sub type).
struct vesk_event_id {
    uint32_t main_type;
    uint32_t local;
    uint32_t sub_type;
    uint32_t index; // ignored with a wildcard
    uint8_t wildcard;
    uint8_t reserved[3];
};
static_assert(sizeof(vesk_event_id) == 20, "event id is 20 bytes");

// A class of events; either field may be its ANY value.
struct vesk_event_type {
    uint32_t main_type;
    uint32_t sub_type;
};

// Weekly arming: per day (0 Sunday .. 6 Saturday, local time) up to four segments
// [start_minute, end_minute) of the day, 0 <= start < end <= 1440; a segment with
// start >= end is unused. An all-zero schedule means "no schedule" (the event is always armed).
constexpr unsigned VESK_EVENT_ARMING_SEGMENTS = 4;
struct vesk_arming_segment {
    uint16_t start_minute;
    uint16_t end_minute;
};
struct vesk_arming_shedule {
    vesk_arming_segment day[7][VESK_EVENT_ARMING_SEGMENTS];
};
static_assert(sizeof(vesk_arming_shedule) == 112, "arming schedule is 112 bytes");

// Who reads the listing.
typedef uint32_t vesk_event_user_id;
enum : vesk_event_user_id {
    VESK_EVENT_USER_ALL = 0, // filters only: hides from both users
    VESK_EVENT_USER_LOCAL = 1, // the recorder's own screen
    VESK_EVENT_USER_REMOTE = 2, // network clients
};

// Told of event starts and ends. `slot` is the observer's slot in the table (0-19). The
// call is const because registration takes a const observer: state it changes is mutable.
class vesk_event_oberver
{
public:
    virtual void on_event(const vesk_event_detail_info* record, unsigned slot) const = 0;
    virtual ~vesk_event_oberver() { }
};

// Observers are called only while the push state is on (1 at start). VESK_OK.
VESK_API VESK_ERR vesk_utility_set_event_push_state(VESK_BOOL enable);
VESK_API VESK_ERR vesk_utility_get_event_push_state(VESK_BOOL* enable);

// Up to 20 observers. Registering a registered pair again changes nothing; a 21st is fatal.
// Unregistering an unknown pair logs and returns VESK_ERR_OPERATE_FAIL. After unregistration
// returns, the observer is not called again. VESK_OK.
VESK_API VESK_ERR vesk_utility_register_event_oberver(vesk_user_id user, const vesk_event_oberver* oberver);
VESK_API VESK_ERR vesk_utility_unregister_event_oberver(vesk_user_id user, const vesk_event_oberver* oberver);

// Sets (or with an all-zero schedule removes) the schedule of an id; see the wildcard byte.
// VESK_ERR_INVALID_PARAM for an invalid id; VESK_ERR_NO_RESOURCE when 960 schedules exist.
VESK_API VESK_ERR vesk_utility_set_event_arming(const vesk_event_id* id, const vesk_arming_shedule* schedule);
// The schedule set for exactly this id (a wildcard id: the wildcard schedule). None:
// VESK_ERR_OPERATE_FAIL and an all-zero *schedule.
VESK_API VESK_ERR vesk_utility_get_event_arming(const vesk_event_id* id, vesk_arming_shedule* schedule);

// Raises (trigger 1) or ends (trigger 0) an event. An id that is not valid: main type 2..6;
// channel events index < 32; disk and network events index > 0; others index < 16 when local,
// < 32 otherwise - is VESK_ERR_INVALID_PARAM. VESK_ERR_NO_RESOURCE when 160 events are active.
VESK_API VESK_ERR vesk_utility_set_event_state(const vesk_event_info* detail, VESK_BOOL trigger);
// Whether an event of the id (any index with a wildcard) is active, with its start and last
// trigger times (0 when not active). Schedules and filters do not apply.
VESK_API VESK_ERR vesk_utility_get_event_state(
    const vesk_event_id* id, VESK_BOOL* active, long* start_time, long* last_time);
// Whether any event of the type is active.
VESK_API VESK_ERR vesk_utility_get_event_state(const vesk_event_type* type, VESK_BOOL* active);

// Hides (enable 1) or shows again (enable 0) one disk or network event from a user's listing.
// REQUIRES: a disk or network main type and a concrete sub type (not UNKNOW or ANY); anything
// else is a programming error and ends the process through the assertion block.
VESK_API VESK_ERR vesk_utility_set_event_filter(vesk_event_user_id user, const vesk_event_id* id, VESK_BOOL enable);
// Hides or shows again every event of a type; the type is matched as given (ANY fields match
// any value), so a type filter is removed by the same type it was set with.
// REQUIRES (fatal otherwise): a new type filter goes into a user's empty filter list, and no
// id filter of that list has the same type.
VESK_API VESK_ERR vesk_utility_set_event_filter(vesk_event_user_id user, const vesk_event_type* type, VESK_BOOL enable);

// Lists for user 1 or 2 the active events that are armed and not filtered, up to capacity of
// them into out, in raising order; *count is the number of such events, which may exceed
// capacity. While the push state is off: *count 0. VESK_OK.
VESK_API VESK_ERR vesk_utility_get_event_info(
    vesk_event_user_id user, vesk_event_detail_info* out, uint32_t capacity, uint32_t* count);

// Sets both valid times (seconds, > 0) for events raised or refreshed from now on.
VESK_API VESK_ERR vesk_utility_set_event_valid_time(uint32_t seconds);

} // namespace vesk_soft

#endif // VESK_UTILITY_EVENT_H
