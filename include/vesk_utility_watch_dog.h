// vesk_utility_watch_dog.h - the software watchdog of the main application's modules.
//
// Contract
//   A module registers one dog per purpose code with a time-out in seconds and feeds it more
//   often than that. Once a second a check counts every dog up; a dog unfed for more than its
//   time-out is dead: its line ("... Is Dead~!") and the held locks are printed, then, unless
//   the marker file /config//close_dog exists, the registered reboot function is called and,
//   if the process is still alive 5 s later, the cause is written to /reserve/wdt_tag.xml and
//   "reboot" runs through the command proxy. A dog with time-out N is dead at the (N+1)-th
//   check without a feed.
//
//   Every function is safe to call from any thread. Outside the main application role each one
//   logs "not init, or not support, s_ops_type = 0x..." and returns VESK_ERR_NOT_INIT.
#ifndef VESK_UTILITY_WATCH_DOG_H
#define VESK_UTILITY_WATCH_DOG_H

#include <cstdint>

#include "vesk_utility_types.h"

namespace vesk_soft
{

// Caller-chosen code of a dog; one dog per code. Written into the logs and the cause record.
typedef uint32_t vesk_watch_dog_purpose;

// Registers the dog of this purpose and writes its handle to *dog_hand. Registering a purpose
// again resets its count, replaces its time-out and gives the same handle. Handles count up
// from 0 and are never reused. VESK_OK; VESK_ERR_INVALID_PARAM for a NULL dog_hand.
VESK_API VESK_ERR vesk_utility_regist_dog(
    vesk_watch_dog_purpose purpose, unsigned int timeout_s, unsigned long* dog_hand);
// Feeds the dog. VESK_ERR_OPERATE_FAIL for an unknown handle.
VESK_API VESK_ERR vesk_utility_fetch_dog(unsigned long dog_hand);
// Removes the dog; an unknown handle is ignored. VESK_OK.
VESK_API VESK_ERR vesk_utility_unregist_dog(unsigned long dog_hand);
// Installs the function that reboots the system in an orderly way; a later call replaces it.
VESK_API void vesk_utility_regist_reboot_func(VESK_ERR (*reboot_func)());

} // namespace vesk_soft

#endif // VESK_UTILITY_WATCH_DOG_H
