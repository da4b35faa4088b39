// vesk_utility_resource - construction of the layer's services in their fixed order, the
// accessors that refuse a missing service, and the resource manager's diagnose commands.
#include "vesk_utility_resource.h"

#include <curl/curl.h>

#include <mutex>

#include "vesk_utility_core.h"
#include "vesk_utility_lock.h"
#include "vesk_utility_log.h"
#include "vesk_utility_mem_sys.h"

namespace vesk_utility {

using namespace vesk_soft;

namespace {

std::atomic<vesk_utility_res_manage*> s_res_manage{nullptr};
std::mutex s_res_manage_lock;

constexpr unsigned k_endless_dump_period_ms = 15000;

struct titled_list {
    vesk_handle_list list;
    const char* title;
};

// The handle dump of command 4, in list order (locks have commands of their own).
constexpr titled_list k_handle_lists[] = {
    {VESK_LIST_TXT, "txt fd"},       {VESK_LIST_BIN, "bin fd"},     {VESK_LIST_BLOCK, "block fd"},
    {VESK_LIST_XML, "xml fd"},       {VESK_LIST_XLS, "xls fd"},     {VESK_LIST_BMP, "bmp fd"},
    {VESK_LIST_JSON, "json fd"},     {VESK_LIST_JSON_V2, "json_V2 fd"}, {VESK_LIST_SOCKET, "socket fd"},
    {VESK_LIST_OPEN, "open fd"},     {VESK_LIST_FOPEN, "fopen fd"}, {VESK_LIST_MD5, "md5 fd"},
    {VESK_LIST_URL, "url fd"},       {VESK_LIST_WAV, "wav fd"},
};

}  // namespace

vesk_utility_res_manage* vesk_utility_res_manage::instance()
{
    vesk_utility_res_manage* p = s_res_manage.load(std::memory_order_acquire);
    if (p != nullptr)
        return p;
    std::lock_guard<std::mutex> guard(s_res_manage_lock);
    p = s_res_manage.load(std::memory_order_relaxed);
    if (p == nullptr) {
        // Plain new: the accounting lives inside this object, so it cannot account for it.
        p = new vesk_utility_res_manage();
        s_res_manage.store(p, std::memory_order_release);
    }
    return p;
}

vesk_utility_res_manage::~vesk_utility_res_manage()
{
    curl_global_cleanup();
    VESK_ASSERT(0);
}

void vesk_utility_res_manage::construct_res(vesk_utility_ops_type ops)
{
    m_registry.init_node_pool();
    vesk_lock_install_printers(m_registry);  // dump modes 1-4 of the lock lists
    // The A/V-reader pool, little-memory pool, string pool and thread pool come next, then
    // the role's system-command client and diagnose agent.
    switch (ops) {
    case VESK_UTILITY_OPS_MAIN_APP:
    case VESK_UTILITY_OPS_PROXY_SERVER:
        break;
    default:
        VESK_ASSERT(0);
    }
    curl_global_init(CURL_GLOBAL_ALL);
    if (ops != VESK_UTILITY_OPS_MAIN_APP) {
        m_timer = nullptr;
        m_event_manage = nullptr;
        m_watch_dog_manage = nullptr;
    }
}

vesk_utility_thread_pool* vesk_utility_res_manage::get_thread_pool()
{
    VESK_ASSERT(m_thread_pool != NULL);
    return m_thread_pool;
}

utility_string_pool* vesk_utility_res_manage::get_string_pool()
{
    VESK_ASSERT(m_string_pool != NULL);
    return m_string_pool;
}

utility_little_mem_pool* vesk_utility_res_manage::get_little_mem_pool()
{
    VESK_ASSERT(m_little_mem_pool != NULL);
    return m_little_mem_pool;
}

utility_little_mem_pool* vesk_utility_res_manage::get_av_reader_pool()
{
    VESK_ASSERT(m_av_reader_pool != NULL);
    return m_av_reader_pool;
}

vesk_diagnose_agent* vesk_utility_res_manage::get_diagnose()
{
    VESK_ASSERT(m_diagnose != NULL);
    return m_diagnose;
}

vesk_utility_system_client* vesk_utility_res_manage::get_system_client()
{
    VESK_ASSERT(m_system_client != NULL);
    return m_system_client;
}

vesk_utility_timer* vesk_utility_res_manage::get_timer()
{
    VESK_ASSERT(m_timer != NULL);
    return m_timer;
}

vesk_utility_watch_dog_manage* vesk_utility_res_manage::get_watch_dog_manage()
{
    VESK_ASSERT(m_watch_dog_manage!= NULL);
    return m_watch_dog_manage;
}

vesk_utility_event_manage* vesk_utility_res_manage::get_event_manage()
{
    VESK_ASSERT(m_event_manage != NULL);
    return m_event_manage;
}

// ---- Diagnose ----------------------------------------------------------------------------

void vesk_utility_res_manage::dump_handles(print_fn print)
{
    for (const titled_list& t : k_handle_lists)
        m_registry.dump_list(t.list, t.title, print, 0);
}

void vesk_utility_res_manage::dump_counters(print_fn print)
{
    m_malloc_note.dump(print);
    m_new_note.dump(print);
    m_class_note.dump(print);
}

VESK_ERR vesk_utility_res_manage::diagnose(int para, print_fn print)
{
    switch (para) {
    case 0:
        dump_rss(true, print);
        break;
    case 1:
        m_mem_account.dump_total(print);
        break;
    case 2:
        m_mem_account.dump_by_module(print);
        break;
    case 3:
        m_registry.dump_list(VESK_LIST_COMMON_LOCK, "common lock", print, 1);
        m_registry.dump_list(VESK_LIST_RW_LOCK, "RW lock", print, 2);
        m_registry.dump_list(VESK_LIST_SLEEP, "sleep lock", print, 0);
        break;
    case 4:
        dump_handles(print);
        break;
    case 5:
        // Runs until the console stops taking output.
        while (print("==================================================================\n") == 0) {
            dump_handles(print);
            m_mem_account.dump_by_module(print);
            print("==================================================================\n");
            m_mem_account.dump_total(print);
            dump_counters(print);
            dump_rss(false, print);
            vesk_utility_sleep_ms(k_endless_dump_period_ms);
        }
        break;
    case 6:
        dump_counters(print);
        break;
    case 7:
        m_registry.dump_list(VESK_LIST_COMMON_LOCK, "common lock", print, 3);
        m_registry.dump_list(VESK_LIST_RW_LOCK, "RW lock", print, 4);
        m_registry.dump_list(VESK_LIST_SLEEP, "sleep lock", print, 0);
        break;
    case 8:
        m_registry.dump_list(VESK_LIST_JSON, "json fd", print, 5);
        m_registry.dump_list(VESK_LIST_JSON_V2, "json_V2 fd", print, 6);
        break;
    case 9:
        dump_rss(false, print);
        break;
    default:
        print("para = %d not support!\n", para);
        break;
    }
    return VESK_OK;
}

}  // namespace vesk_utility
