// vesk_utility_resource - construction of the layer's services in their fixed order, their
// composition, the accessors that refuse a missing service, and the resource manager's
// diagnose commands.
#include "api/vesk_utility_resource.h"

#include <curl/curl.h>

#include <sys/un.h>

#include <mutex>
#include <new>

#include "vesk_utility_core.h"
#include "core/vesk_utility_diagnose.h"
#include "store/vesk_utility_json_impl.h"
#include "core/vesk_utility_lock.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_sys.h"
#include "core/vesk_utility_paths.h"
#include "core/vesk_utility_pool.h"
#include "sched/vesk_utility_thread_pool.h"
#include "event/vesk_utility_event_manage.h"
#include "core/vesk_utility_service.h"
#include "core/vesk_utility_system.h"
#include "sched/vesk_utility_timer.h"
#include "sched/vesk_utility_watch_dog.h"
#include "net/vesk_utility_url_operate.h"
#include "net/vesk_utility_toolnet.h"

namespace vesk_utility {

using namespace vesk_soft;

namespace {

std::atomic<vesk_utility_res_manage*> s_res_manage{nullptr};
std::mutex s_res_manage_lock;

constexpr unsigned k_endless_dump_period_ms = 15000;

// A service object in an accounted block (user 0x13): it lives as long as the process.
template <class T, class... Args>
T* new_accounted(vesk_memmory_purpose purpose, Args... args)
{
    void* mem = vesk_ground::instance()->mem_account().proc_vesk_malloc(VESK_USER_UTILITY, purpose,
                                                                                    sizeof(T), alignof(T));
    VESK_ASSERT(mem != NULL);
    return new (mem) T(args...);
}

// Console titles and command menus of the services, in GB2312, the console's character set
// (each text is shown above its bytes). The number or letter at the start of a help line is
// the parameter the client's diagnose() takes ("a" arrives as 0).
// GB2312: 诊断 线程池
constexpr const char* k_thread_pool_title = "\xD5\xEF\xB6\xCF \xCF\xDF\xB3\xCC\xB3\xD8";
constexpr const char* k_thread_pool_help =
    // GB2312: 0  打印所有线程的CPU占用
    "0  \xB4\xF2\xD3\xA1\xCB\xF9\xD3\xD0\xCF\xDF\xB3\xCC\xB5\xC4" "CPU\xD5\xBC\xD3\xC3\n"
    // GB2312: 1  打印CPU占用不为0的线程
    "1  \xB4\xF2\xD3\xA1" "CPU\xD5\xBC\xD3\xC3\xB2\xBB\xCE\xAA" "0\xB5\xC4\xCF\xDF\xB3\xCC\n"
    // GB2312: 2  打印注册的线程
    "2  \xB4\xF2\xD3\xA1\xD7\xA2\xB2\xE1\xB5\xC4\xCF\xDF\xB3\xCC\n";
// GB2312: 诊断 字符串内存池
constexpr const char* k_string_pool_title = "\xD5\xEF\xB6\xCF \xD7\xD6\xB7\xFB\xB4\xAE\xC4\xDA\xB4\xE6\xB3\xD8";
// GB2312: 诊断 常规小内存池
constexpr const char* k_little_pool_title = "\xD5\xEF\xB6\xCF \xB3\xA3\xB9\xE6\xD0\xA1\xC4\xDA\xB4\xE6\xB3\xD8";
// GB2312: 诊断 音视频读者跨块中转内存池
constexpr const char* k_av_reader_pool_title = "\xD5\xEF\xB6\xCF \xD2\xF4\xCA\xD3\xC6\xB5\xB6\xC1\xD5\xDF\xBF\xE7\xBF\xE9\xD6\xD0\xD7\xAA\xC4\xDA\xB4\xE6\xB3\xD8";
constexpr const char* k_pool_help =
    // GB2312: 1  详细信息
    "1  \xCF\xEA\xCF\xB8\xD0\xC5\xCF\xA2\n"
    // GB2312: 2  简要信息
    "2  \xBC\xF2\xD2\xAA\xD0\xC5\xCF\xA2\n";
// GB2312: 诊断 定时器
constexpr const char* k_timer_title = "\xD5\xEF\xB6\xCF \xB6\xA8\xCA\xB1\xC6\xF7";
constexpr const char* k_timer_help =
    // GB2312: 1  打印所有任务
    "1  \xB4\xF2\xD3\xA1\xCB\xF9\xD3\xD0\xC8\xCE\xCE\xF1\n"
    // GB2312: 2  打印所有线程状态
    "2  \xB4\xF2\xD3\xA1\xCB\xF9\xD3\xD0\xCF\xDF\xB3\xCC\xD7\xB4\xCC\xAC\n"
    // GB2312: 3  打印Toolnet UDP监听任务
    "3  \xB4\xF2\xD3\xA1Toolnet UDP\xBC\xE0\xCC\xFD\xC8\xCE\xCE\xF1\n"
    // GB2312: 4  打印Toolnet TCP监听任务
    "4  \xB4\xF2\xD3\xA1Toolnet TCP\xBC\xE0\xCC\xFD\xC8\xCE\xCE\xF1\n"
    // GB2312: 5  打开Toolnet UDP监听调试打印
    "5  \xB4\xF2\xBF\xAAToolnet UDP\xBC\xE0\xCC\xFD\xB5\xF7\xCA\xD4\xB4\xF2\xD3\xA1\n"
    // GB2312: 6  关闭Toolnet UDP监听调试打印
    "6  \xB9\xD8\xB1\xD5Toolnet UDP\xBC\xE0\xCC\xFD\xB5\xF7\xCA\xD4\xB4\xF2\xD3\xA1\n"
    // GB2312: 7  打开Toolnet TCP监听调试打印
    "7  \xB4\xF2\xBF\xAAToolnet TCP\xBC\xE0\xCC\xFD\xB5\xF7\xCA\xD4\xB4\xF2\xD3\xA1\n"
    // GB2312: 8  关闭Toolnet TCP监听调试打印
    "8  \xB9\xD8\xB1\xD5Toolnet TCP\xBC\xE0\xCC\xFD\xB5\xF7\xCA\xD4\xB4\xF2\xD3\xA1\n";
// GB2312: 诊断 事件管理
constexpr const char* k_event_title = "\xD5\xEF\xB6\xCF \xCA\xC2\xBC\xFE\xB9\xDC\xC0\xED";
// GB2312: 诊断 中间层记录的内存、句柄等
constexpr const char* k_res_title = "\xD5\xEF\xB6\xCF \xD6\xD0\xBC\xE4\xB2\xE3\xBC\xC7\xC2\xBC\xB5\xC4\xC4\xDA\xB4\xE6\xA1\xA2\xBE\xE4\xB1\xFA\xB5\xC8";
constexpr const char* k_res_help =
    // GB2312: 中间层内存分两类: 一类是通过中间层malloc申请的注册内存, 在此查询;
    "\xD6\xD0\xBC\xE4\xB2\xE3\xC4\xDA\xB4\xE6\xB7\xD6\xC1\xBD\xC0\xE0: \xD2\xBB\xC0\xE0\xCA\xC7\xCD\xA8\xB9\xFD\xD6\xD0\xBC\xE4\xB2\xE3malloc\xC9\xEA\xC7\xEB\xB5\xC4\xD7\xA2\xB2\xE1\xC4\xDA\xB4\xE6, \xD4\xDA\xB4\xCB\xB2\xE9\xD1\xAF;\n"
    // GB2312: 另一类是协议库申请的内存, 未注册, 在链表诊断中查询; 两者之和约为中间层占用的内存
    "\xC1\xED\xD2\xBB\xC0\xE0\xCA\xC7\xD0\xAD\xD2\xE9\xBF\xE2\xC9\xEA\xC7\xEB\xB5\xC4\xC4\xDA\xB4\xE6, \xCE\xB4\xD7\xA2\xB2\xE1, \xD4\xDA\xC1\xB4\xB1\xED\xD5\xEF\xB6\xCF\xD6\xD0\xB2\xE9\xD1\xAF; \xC1\xBD\xD5\xDF\xD6\xAE\xBA\xCD\xD4\xBC\xCE\xAA\xD6\xD0\xBC\xE4\xB2\xE3\xD5\xBC\xD3\xC3\xB5\xC4\xC4\xDA\xB4\xE6\n"
    "1  dump total size\n"
    "2  dump by module id\n"
    // GB2312: 5  自动打印系统内存使用百分比和注册内存
    "5  \xD7\xD4\xB6\xAF\xB4\xF2\xD3\xA1\xCF\xB5\xCD\xB3\xC4\xDA\xB4\xE6\xCA\xB9\xD3\xC3\xB0\xD9\xB7\xD6\xB1\xC8\xBA\xCD\xD7\xA2\xB2\xE1\xC4\xDA\xB4\xE6\n"
    // GB2312: 6  打印malloc/new和free/delete的记录次数
    "6  \xB4\xF2\xD3\xA1malloc/new\xBA\xCD" "free/delete\xB5\xC4\xBC\xC7\xC2\xBC\xB4\xCE\xCA\xFD\n"
    // GB2312: 9  打印当前物理内存使用
    "9  \xB4\xF2\xD3\xA1\xB5\xB1\xC7\xB0\xCE\xEF\xC0\xED\xC4\xDA\xB4\xE6\xCA\xB9\xD3\xC3\n"
    // GB2312: a  打印当前物理内存使用详情
    "a  \xB4\xF2\xD3\xA1\xB5\xB1\xC7\xB0\xCE\xEF\xC0\xED\xC4\xDA\xB4\xE6\xCA\xB9\xD3\xC3\xCF\xEA\xC7\xE9\n"
    // GB2312: 3  打印所有锁
    "3  \xB4\xF2\xD3\xA1\xCB\xF9\xD3\xD0\xCB\xF8\n"
    // GB2312: 7  打印被占用的锁
    "7  \xB4\xF2\xD3\xA1\xB1\xBB\xD5\xBC\xD3\xC3\xB5\xC4\xCB\xF8\n"
    // GB2312: 4  打印句柄
    "4  \xB4\xF2\xD3\xA1\xBE\xE4\xB1\xFA\n"
    // GB2312: 8  打印JSON对象个数及其数据占用的内存
    "8  \xB4\xF2\xD3\xA1JSON\xB6\xD4\xCF\xF3\xB8\xF6\xCA\xFD\xBC\xB0\xC6\xE4\xCA\xFD\xBE\xDD\xD5\xBC\xD3\xC3\xB5\xC4\xC4\xDA\xB4\xE6\n";

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
    vesk_ground* ground = vesk_ground::instance();
    vesk_handle_registry& registry = ground->registry();
    registry.init_node_pool();
    vesk_lock_install_printers(registry);  // dump modes 1-4 of the lock lists
    vesk_json_install_printers(registry);  // dump modes 5-6 of the JSON lists
    // Published one by one: from here on small blocks and strings are routed into them.
    ground->install_av_reader_pool(new_accounted<utility_little_mem_pool>(
        k_purpose_av_reader_pool, k_av_reader_pool_chunk_size, k_purpose_av_reader_pool));
    ground->install_little_mem_pool(new_accounted<utility_little_mem_pool>(
        k_purpose_little_mem_pool, k_little_mem_pool_chunk_size, k_purpose_little_mem_pool));
    ground->install_string_pool(new_accounted<utility_string_pool>(k_purpose_string_pool));
    m_thread_pool = new utility_thread_pool();
    vesk_service<utility_thread_pool>::install(m_thread_pool);
    // Then the role's system-command client and diagnose agent.
    char path[sizeof(sockaddr_un::sun_path)];
    vesk_utility_system_client* system_client = nullptr;
    vesk_diagnose_agent* diagnose = nullptr;
    switch (ops) {
    case VESK_UTILITY_OPS_MAIN_APP:
        system_client = new_accounted<vesk_utility_system_client>(
            k_purpose_system_client, vesk_rooted_path(path, sizeof(path), k_path_cmd_socket_main));
        diagnose = new vesk_diagnose_agent(vesk_rooted_path(path, sizeof(path), k_path_diag_socket_main));
        break;
    case VESK_UTILITY_OPS_PROXY_SERVER:
        system_client = new_accounted<vesk_utility_system_client>(
            k_purpose_system_client, vesk_rooted_path(path, sizeof(path), k_path_cmd_socket_proxy));
        diagnose = new vesk_diagnose_agent(vesk_rooted_path(path, sizeof(path), k_path_diag_socket_proxy));
        break;
    default:
        VESK_ASSERT(0);
    }
    ground->install_services(diagnose, system_client);
    // libcurl keeps the allocator of its first global init: every byte it takes from here on
    // is accounted (user 0x83, purpose 0x130400); the init after it only counts a reference.
    const int curl_rc = vesk_url_install_allocator();
    if (curl_rc != 0)
        VESK_ERR_FN("curl_global_init_mem fail, rc = %d: libcurl's heap is not accounted\n", curl_rc);
    curl_global_init(CURL_GLOBAL_ALL);
    if (ops == VESK_UTILITY_OPS_MAIN_APP) {
        m_timer = new_accounted<vesk_utility_timer>(k_purpose_timer);
        vesk_service<vesk_utility_timer>::install(m_timer);
        m_event_manage = new_accounted<vesk_utility_event_manage>(k_purpose_event_manage);
        vesk_service<vesk_utility_event_manage>::install(m_event_manage);
        m_watch_dog_manage = new_accounted<vesk_utility_watch_dog_manage>(k_purpose_watch_dog);
        vesk_service<vesk_utility_watch_dog_manage>::install(m_watch_dog_manage);
        // An A/V allocation that reaches the rotation threshold pulls the rotation task forward.
        vesk_mem_set_rotate_waker(timer_rotate_waker);
    } else {
        m_timer = nullptr;
        m_event_manage = nullptr;
        m_watch_dog_manage = nullptr;
    }
    // Toolnet exists in both roles; its tables and thread come with vesk_utiltiy_net_start.
    m_toolnet = new_accounted<vesk_toolnet>(k_purpose_toolnet);
    vesk_service<vesk_toolnet_diag>::install(m_toolnet);
    regist_diag_clients(ops);
    // The ground services poll on the timer: the agent's socket once a second (the first time
    // 30 s from now), the command client's answers every 100 ms. The proxy server, which has
    // no timer, ends here in the get_timer assertion.
    get_timer()->regist_c_func(VESK_USER_UTILITY, utility_diagnose_thread, k_timer_diag_task_purpose,
                               vesk_diagnose_agent::k_poll_ms, diagnose, VESK_TIMER_TASK_COMMON,
                               vesk_diagnose_agent::k_first_poll_ms);
    get_timer()->regist_c_func(VESK_USER_UTILITY, vesk_utility_system_thread, k_timer_system_task_purpose,
                               k_first_receive_ms, system_client, VESK_TIMER_TASK_COMMON, 0);
}

void vesk_utility_res_manage::regist_diag_clients(vesk_utility_ops_type ops)
{
    // Each client is pushed at the head, so the last registered is index 0 on the console.
    vesk_ground* ground = vesk_ground::instance();
    vesk_diagnose_agent* diagnose = ground->get_diagnose();
    diagnose->regist_diag(m_thread_pool, k_thread_pool_title, k_thread_pool_help);
    diagnose->regist_diag(this, k_res_title, k_res_help);
    diagnose->regist_diag(m_timer, k_timer_title, k_timer_help);
    // The proxy server registers both of its empty slots, as the start-up order has it: the
    // second NULL is refused as a repeat ("repeat, why?"), and the NULL timer entry is never
    // served, since that role stops at the agent's start.
    (void)ops;
    diagnose->regist_diag(m_event_manage, k_event_title, "");
    diagnose->regist_diag(ground->get_string_pool(), k_string_pool_title, k_pool_help);
    diagnose->regist_diag(ground->get_little_mem_pool(), k_little_pool_title, k_pool_help);
    diagnose->regist_diag(ground->get_av_reader_pool(), k_av_reader_pool_title, k_pool_help);
}

utility_thread_pool* vesk_utility_res_manage::get_thread_pool()
{
    VESK_ASSERT(m_thread_pool != NULL);
    return m_thread_pool;
}

vesk_utility_timer* vesk_utility_res_manage::get_timer()
{
    VESK_ASSERT(m_timer != NULL);
    return m_timer;
}

vesk_toolnet* vesk_utility_res_manage::get_toolnet()
{
    VESK_ASSERT(m_toolnet != NULL);
    return m_toolnet;
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
        vesk_ground::instance()->registry().dump_list(t.list, t.title, print, 0);
}

void vesk_utility_res_manage::dump_counters(print_fn print)
{
    vesk_ground* ground = vesk_ground::instance();
    ground->malloc_note().dump(print);
    ground->new_note().dump(print);
    ground->class_note().dump(print);
}

VESK_ERR vesk_utility_res_manage::diagnose(int para, print_fn print)
{
    vesk_mem_account& mem = vesk_ground::instance()->mem_account();
    vesk_handle_registry& registry = vesk_ground::instance()->registry();
    switch (para) {
    case 0:
        dump_rss(true, print);
        break;
    case 1:
        mem.dump_total(print);
        break;
    case 2:
        mem.dump_by_module(print);
        break;
    case 3:
        registry.dump_list(VESK_LIST_COMMON_LOCK, "common lock", print, 1);
        registry.dump_list(VESK_LIST_RW_LOCK, "RW lock", print, 2);
        registry.dump_list(VESK_LIST_SLEEP, "sleep lock", print, 0);
        break;
    case 4:
        dump_handles(print);
        break;
    case 5:
        // Runs until the console stops taking output.
        while (print("==================================================================\n") == 0) {
            dump_handles(print);
            mem.dump_by_module(print);
            print("==================================================================\n");
            mem.dump_total(print);
            dump_counters(print);
            dump_rss(false, print);
            vesk_utility_sleep_ms(k_endless_dump_period_ms);
        }
        break;
    case 6:
        dump_counters(print);
        break;
    case 7:
        vesk_dump_held_locks(print);
        break;
    case 8:
        registry.dump_list(VESK_LIST_JSON, "json fd", print, 5);
        registry.dump_list(VESK_LIST_JSON_V2, "json_V2 fd", print, 6);
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
