// vesk_utility_registry - handle lists over a preallocated node pool; nodes beyond the pool
// are allocated one by one and freed (not pooled) on release.
#include "core/vesk_utility_registry.h"

#include <cstring>

#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"

namespace vesk_utility {

using namespace vesk_soft;

namespace {
constexpr const char* k_cls = "vesk_utility_res_manage";
}

vesk_handle_registry::vesk_handle_registry()
{
    for (handle_list& l : m_lists) {
        pthread_mutex_init(&l.lock, nullptr);
        l.head = l.tail = nullptr;
    }
    pthread_mutex_init(&m_node_lock, nullptr);
}

void vesk_handle_registry::init_node_pool()
{
    const unsigned bytes = k_registry_pool_nodes * sizeof(vesk_registry_node);
    m_node_pool = static_cast<vesk_registry_node*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_registry_node, bytes, vesk_obj_align<vesk_registry_node>()));
    VESK_ASSERT(m_node_pool != NULL);
    memset(m_node_pool, 0, bytes);
    m_node_last = m_node_pool + (k_registry_pool_nodes - 1);
    for (unsigned i = 0; i + 1 < k_registry_pool_nodes; i++)
        m_node_pool[i].next = &m_node_pool[i + 1];
    m_free = m_node_pool;
}

vesk_registry_node* vesk_handle_registry::take_node()
{
    pthread_mutex_lock(&m_node_lock);
    vesk_registry_node* node = m_free;
    if (node != nullptr)
        m_free = node->next;
    pthread_mutex_unlock(&m_node_lock);
    if (node == nullptr)
        node = static_cast<vesk_registry_node*>(
            vesk_malloc(VESK_USER_UTILITY, k_purpose_registry_node, sizeof(vesk_registry_node), vesk_obj_align<vesk_registry_node>()));
    return node;
}

void vesk_handle_registry::proc_free_node(vesk_registry_node* node)
{
    if (node >= m_node_pool && node <= m_node_last) {
        pthread_mutex_lock(&m_node_lock);
        node->next = m_free;
        m_free = node;
        pthread_mutex_unlock(&m_node_lock);
    } else {
        vesk_free(__FILE__, __func__, node);
    }
}

VESK_ERR vesk_handle_registry::save_node(vesk_handle_list list, uintptr_t handle, vesk_user_id usr_id,
                                         const char* name)
{
    handle_list& l = m_lists[list];
    pthread_mutex_lock(&l.lock);
    vesk_registry_node* node = take_node();
    if (node == nullptr) {
        pthread_mutex_unlock(&l.lock);
        VESK_LOG_ERR(k_cls, "malloc %zu fail!\n", sizeof(vesk_registry_node));
        return VESK_ERR_NO_RESOURCE;
    }
    memset(node, 0, sizeof(*node));
    node->usr_id = usr_id;
    if (name != nullptr) {
        strncpy(node->name, name, k_registry_name_max);
        node->name[k_registry_name_max] = '\0';
    }
    node->handle = handle;
    node->prev = l.tail;
    if (l.tail != nullptr)
        l.tail->next = node;
    else
        l.head = node;
    l.tail = node;
    pthread_mutex_unlock(&l.lock);
    return VESK_OK;
}

VESK_ERR vesk_handle_registry::delete_node(vesk_handle_list list, uintptr_t handle)
{
    handle_list& l = m_lists[list];
    pthread_mutex_lock(&l.lock);
    vesk_registry_node* node = l.head;
    while (node != nullptr && node->handle != handle)
        node = node->next;
    if (node == nullptr) {
        pthread_mutex_unlock(&l.lock);
        return VESK_ERR_OPERATE_FAIL;
    }
    if (node->prev != nullptr)
        node->prev->next = node->next;
    else
        l.head = node->next;
    if (node->next != nullptr)
        node->next->prev = node->prev;
    else
        l.tail = node->prev;
    proc_free_node(node);
    pthread_mutex_unlock(&l.lock);
    return VESK_OK;
}

int vesk_handle_registry::is_valid(vesk_handle_list list, uintptr_t handle)
{
    handle_list& l = m_lists[list];
    pthread_mutex_lock(&l.lock);
    const vesk_registry_node* node = l.head;
    while (node != nullptr && node->handle != handle)
        node = node->next;
    pthread_mutex_unlock(&l.lock);
    return node != nullptr ? 1 : 0;
}

void vesk_handle_registry::set_node_printer(int mode, vesk_node_printer printer)
{
    if (mode > 0 && mode < k_modes)
        m_printers[mode] = printer;
}

void vesk_handle_registry::dump_list(vesk_handle_list list, const char* title, print_fn print, int mode)
{
    handle_list& l = m_lists[list];
    if (pthread_mutex_trylock(&l.lock) != 0) {
        print("%s trylock fail!\n", title);
        return;
    }
    print("-------------- %s ------------------!\n", title);
    const vesk_node_printer printer = (mode > 0 && mode < k_modes) ? m_printers[mode] : nullptr;
    int total = 0;
    for (const vesk_registry_node* node = l.head; node != nullptr; node = node->next) {
        if (printer != nullptr)
            printer(*node, print);
        else
            print("usr_id = 0x%x, name = '%s'\n", node->usr_id, node->name);
        total++;
    }
    print("%s, total num = %d!\n\n", title, total);
    pthread_mutex_unlock(&l.lock);
}

unsigned vesk_handle_registry::list_size(vesk_handle_list list)
{
    handle_list& l = m_lists[list];
    pthread_mutex_lock(&l.lock);
    unsigned n = 0;
    for (const vesk_registry_node* node = l.head; node != nullptr; node = node->next)
        n++;
    pthread_mutex_unlock(&l.lock);
    return n;
}

unsigned vesk_handle_registry::free_pool_nodes()
{
    pthread_mutex_lock(&m_node_lock);
    unsigned n = 0;
    for (const vesk_registry_node* node = m_free; node != nullptr; node = node->next)
        n++;
    pthread_mutex_unlock(&m_node_lock);
    return n;
}

}  // namespace vesk_utility
