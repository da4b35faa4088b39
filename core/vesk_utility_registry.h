// vesk_utility_registry - the handle registry: every object, descriptor and stream handed out
// by the layer stays on its kind's list, with the creator's user id and name, until the
// matching delete or close. Deleting what is not registered is how double deletes are caught.
#ifndef VESK_UTILITY_REGISTRY_H
#define VESK_UTILITY_REGISTRY_H

#include <pthread.h>

#include <cstdint>

#include "vesk_utility_types.h"

namespace vesk_utility {

using vesk_soft::print_fn;
using vesk_soft::VESK_ERR;
using vesk_soft::vesk_user_id;

// The lists, in their fixed order (one slot unused).
enum vesk_handle_list : int {
    VESK_LIST_COMMON_LOCK = 0,
    VESK_LIST_RW_LOCK,
    VESK_LIST_SLEEP,
    VESK_LIST_TXT,
    VESK_LIST_BIN,
    VESK_LIST_BLOCK,
    VESK_LIST_XML,
    VESK_LIST_XLS,
    VESK_LIST_BMP,
    VESK_LIST_JSON,
    VESK_LIST_JSON_V2,
    VESK_LIST_UNUSED,
    VESK_LIST_SOCKET,
    VESK_LIST_OPEN,
    VESK_LIST_FOPEN,
    VESK_LIST_MD5,
    VESK_LIST_URL,
    VESK_LIST_WAV,
    VESK_LIST_COUNT
};

constexpr int k_registry_name_max = 31;  // characters kept of a caller's name
constexpr unsigned k_registry_pool_nodes = 1120;
constexpr uint32_t k_purpose_registry_node = 0x3001;  // k_purpose_registry_nodes

//   | usr_id (4) | name (32) | handle (ptr) | next (ptr) | prev (ptr) |
// 48 bytes on the 32-bit target.
struct vesk_registry_node {
    vesk_user_id usr_id;
    char name[k_registry_name_max + 1];
    uintptr_t handle;
    vesk_registry_node* next;
    vesk_registry_node* prev;
};
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(vesk_registry_node) == 48, "registry node is 48 bytes on the 32-bit target");
#endif

// Prints one node of a dump in a mode other than 0 (lock states, JSON sizes); a service
// installs the printer for its modes.
typedef void (*vesk_node_printer)(const vesk_registry_node& node, print_fn print);

// Thread safety: each list has its own mutex, held for the whole of a save, delete, lookup or
// dump; the node pool's free list has one more, taken inside a list mutex when a node is
// released and alone when one is taken (order: list, then pool). Every walk is O(list).
class vesk_handle_registry {
public:
    vesk_handle_registry();
    vesk_handle_registry(const vesk_handle_registry&) = delete;
    vesk_handle_registry& operator=(const vesk_handle_registry&) = delete;

    // Allocates the 1120-node pool as one accounted block; failure is fatal.
    void init_node_pool();

    // 0, or VESK_ERR_NO_RESOURCE (logged) when no node can be had.
    VESK_ERR save_node(vesk_handle_list list, uintptr_t handle, vesk_user_id usr_id, const char* name);
    // 0, or VESK_ERR_OPERATE_FAIL when the handle is not on the list.
    VESK_ERR delete_node(vesk_handle_list list, uintptr_t handle);
    int is_valid(vesk_handle_list list, uintptr_t handle);
    // Title line, one line per node (mode 0: user id and name; other modes: the installed
    // printer), and the count. Only tries the list lock.
    void dump_list(vesk_handle_list list, const char* title, print_fn print, int mode);
    void set_node_printer(int mode, vesk_node_printer printer);

    // Live nodes of a list, and pool nodes on the free list (for diagnostics and tests).
    unsigned list_size(vesk_handle_list list);
    unsigned free_pool_nodes();

private:
    struct handle_list {
        pthread_mutex_t lock;
        vesk_registry_node* head;
        vesk_registry_node* tail;
    };

    vesk_registry_node* take_node();
    void proc_free_node(vesk_registry_node* node);  // REQUIRES: the node's list mutex held

    handle_list m_lists[VESK_LIST_COUNT];
    pthread_mutex_t m_node_lock;
    vesk_registry_node* m_node_pool = nullptr;  // first pool node
    vesk_registry_node* m_node_last = nullptr;  // last pool node
    vesk_registry_node* m_free = nullptr;       // GUARDED_BY(m_node_lock)
    static constexpr int k_modes = 8;
    vesk_node_printer m_printers[k_modes] = {};
};

}  // namespace vesk_utility

#endif  // VESK_UTILITY_REGISTRY_H
