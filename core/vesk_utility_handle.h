// vesk_utility_handle - the shape shared by every vesk_utility_new_* / vesk_utility_delete_*
// pair: a new object is recorded on its kind's registry list before it is handed out, and a
// delete of anything not on that list ends the process, so a double delete is found at once.
#ifndef VESK_UTILITY_HANDLE_H
#define VESK_UTILITY_HANDLE_H

#include <new>

#include "core/vesk_utility_log.h"
#include "core/vesk_utility_ground.h"

namespace vesk_utility {

// Records `obj` (made with new by the wrapper) on `list`. Returns obj, or NULL when obj is
// NULL or no registry node can be had; the object is then destroyed ("save fail!").
template <typename T>
T* vesk_register_new(vesk_handle_list list, T* obj, vesk_soft::vesk_user_id usr_id, const char* name,
                     const char* wrapper, int line)
{
    if (obj == nullptr)
        return nullptr;
    vesk_handle_registry& reg = vesk_ground::instance()->registry();
    if (reg.save_node(list, reinterpret_cast<uintptr_t>(obj), usr_id, name) != vesk_soft::VESK_OK) {
        vesk_log(vesk_log_level::error, nullptr, wrapper, line, "save fail!");
        delete obj;
        return nullptr;
    }
    return obj;
}

// The body of a delete wrapper: refuses before init, rejects NULL, removes the record (an
// unknown handle is fatal, reported under the caller's file and function) and destroys the
// object through its virtual destructor.
template <typename T>
vesk_soft::VESK_ERR vesk_delete_registered(vesk_handle_list list, T* obj, const char* file, const char* func,
                                           const char* src, const char* wrapper, int line)
{
    if (vesk_ops_type() == 0) {
        vesk_log(vesk_log_level::error, nullptr, wrapper, line, "%s %s not init, s_ops_type = 0x%x not support\n",
                 file, func, vesk_ops_type());
        return vesk_soft::VESK_ERR_NOT_INIT;
    }
    if (obj == nullptr) {
        vesk_log(vesk_log_level::error, nullptr, wrapper, line, "%s %s client == NULL!\n", file, func);
        return vesk_soft::VESK_ERR_INVALID_PARAM;
    }
    vesk_handle_registry& reg = vesk_ground::instance()->registry();
    if (reg.delete_node(list, reinterpret_cast<uintptr_t>(obj)) != vesk_soft::VESK_OK) {
        vesk_log(vesk_log_level::error, nullptr, wrapper, line, "%s, %s delete invalid!\n", file, func);
        vesk_assert_fail(src, wrapper, line, "0");
    }
    delete obj;
    return vesk_soft::VESK_OK;
}

}  // namespace vesk_utility

// Opens a wrapper that needs the layer initialised (any role): before vesk_utility_init the
// wrapper logs "not init" under its own name and returns `refusal` (empty for a void wrapper).
#define VESK_REQUIRE_INIT(refusal)                                                                   \
    do {                                                                                             \
        if (::vesk_utility::vesk_ops_type() == 0) {                                                  \
            VESK_ERR_FN("not init");                                                                 \
            return refusal;                                                                          \
        }                                                                                            \
    } while (0)

// Opens a wrapper of a service only the main application has (timer, events, watchdog): any
// other role is told so under the wrapper's name and line, and the wrapper returns `refusal`
// (empty for a void wrapper); VESK_REQUIRE_MAIN_ROLE returns VESK_ERR_NOT_INIT.
#define VESK_REQUIRE_MAIN_ROLE_OR(refusal)                                                                 \
    do {                                                                                                   \
        if (::vesk_utility::vesk_ops_type() != ::vesk_soft::VESK_UTILITY_OPS_MAIN_APP) {                   \
            VESK_ERR_FN("not init, or not support, s_ops_type = 0x%x\n", ::vesk_utility::vesk_ops_type()); \
            return refusal;                                                                                \
        }                                                                                                  \
    } while (0)
#define VESK_REQUIRE_MAIN_ROLE() VESK_REQUIRE_MAIN_ROLE_OR(::vesk_soft::VESK_ERR_NOT_INIT)

// Used inside a wrapper, so that messages and the assertion name the wrapper.
#define VESK_REGISTER_NEW(list, obj, usr_id, name) \
    ::vesk_utility::vesk_register_new(list, obj, usr_id, name, __func__, __LINE__)
#define VESK_DELETE_REGISTERED(list, obj, file, func) \
    ::vesk_utility::vesk_delete_registered(list, obj, file, func, __FILE__, __func__, __LINE__)

#endif  // VESK_UTILITY_HANDLE_H
