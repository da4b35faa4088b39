// vesk_utility_lock - named locks that remember their holder (file, function, thread, time),
// read-write locks that count their holders, and the interruptible sleep. A re-lock by the
// holding thread, an unlock of a free lock and the destruction of a held lock end the process.
#include "core/vesk_utility_lock.h"

#include <link.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "core/vesk_utility_log.h"
#include "core/vesk_utility_ground.h"
#include "core/vesk_utility_mem_account.h"

namespace vesk_utility
{

using namespace vesk_soft;

vesk_lock_sys s_lock_sys = { pthread_mutex_init, pthread_rwlock_init, pthread_condattr_init };

namespace
{

constexpr const char* k_cls_lock = "vesk_lock_realize";
constexpr const char* k_cls_rw = "vesk_rw_lock_realize";
constexpr char k_no_usr[] = "no usr";

// Every object of this service is allocated with this alignment; the static_asserts below
// keep it sufficient.
constexpr unsigned k_object_align = 8;

void copy_name(char (&dst)[k_lock_name_size], const char* name)
{
    strncpy(dst, name != nullptr ? name : "anonymous", k_lock_name_size - 1);
    dst[k_lock_name_size - 1] = '\0';
}

// dst = "file func" cut to 63 characters: the text of snprintf("%s %s") without the cost of
// the formatter on every acquisition. At most 63 characters go before the NUL, so dst[63] is
// never anything but NUL for the readers that do not lock.
void join_caller(char (&dst)[k_lock_holder_size], const char* file, const char* func)
{
    constexpr size_t cap = k_lock_holder_size - 1;
    if (file == nullptr)
        file = "(null)";
    if (func == nullptr)
        func = "(null)";
    size_t n = strnlen(file, cap);
    memcpy(dst, file, n);
    if (n < cap) {
        dst[n++] = ' ';
        const size_t m = strnlen(func, cap - n);
        memcpy(dst + n, func, m);
        n += m;
    }
    dst[n] = '\0';
}

// Read-only segments of the loaded objects, where string literals and __func__ live. Append
// only: an entry is written before the count that publishes it. Objects loaded later are
// picked up by a rescan, at most one a second.
struct ro_range {
    uintptr_t lo, hi;
};
constexpr unsigned k_max_ro = 64;
ro_range s_ro[k_max_ro];
std::atomic<unsigned> s_ro_count {0};
std::atomic<time_t> s_ro_scanned {0};
std::mutex s_ro_lock;

bool in_ro(uintptr_t p)
{
    const unsigned n = s_ro_count.load(std::memory_order_acquire);
    for (unsigned i = 0; i < n; i++) {
        if (s_ro[i].lo <= p && p < s_ro[i].hi)
            return true;
    }
    return false;
}

int collect_ro(dl_phdr_info* info, size_t, void*)
{
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_LOAD || (ph.p_flags & PF_W) != 0)
            continue;
        const uintptr_t lo = info->dlpi_addr + ph.p_vaddr;
        const unsigned n = s_ro_count.load(std::memory_order_relaxed);
        if (in_ro(lo) || n == k_max_ro)
            continue;
        s_ro[n] = {lo, lo + ph.p_memsz};
        s_ro_count.store(n + 1, std::memory_order_release);
    }
    return 0;
}

// True when the text at p cannot change: it lies in a read-only segment.
bool is_immutable(const char* text)
{
    const uintptr_t p = reinterpret_cast<uintptr_t>(text);
    if (in_ro(p))
        return true;
    const time_t now = time(nullptr);
    if (s_ro_scanned.load(std::memory_order_relaxed) == now)
        return false;
    std::lock_guard<std::mutex> guard(s_ro_lock);
    s_ro_scanned.store(now, std::memory_order_relaxed);
    dl_iterate_phdr(collect_ro, nullptr);
    return in_ro(p);
}

// The joined texts of the last few callers of this thread whose strings are immutable
// (literals: __FILE__, __func__): the join is done once per call site and thread, and each
// acquisition copies the finished 64 bytes. A text in writable memory is joined every time,
// so the copy always shows what the caller passed.
struct caller_text {
    const char* file;
    const char* func;
    char text[k_lock_holder_size];
};
constexpr unsigned k_caller_cache = 8;
__attribute__((tls_model("initial-exec"))) thread_local caller_text t_callers[k_caller_cache];

void copy_caller(char (&dst)[k_lock_holder_size], const char* file, const char* func)
{
    const uintptr_t key = reinterpret_cast<uintptr_t>(file) ^ (reinterpret_cast<uintptr_t>(func) >> 3);
    caller_text& c = t_callers[(key ^ (key >> 7)) % k_caller_cache];
    if (c.file != file || c.func != func || c.file == nullptr) {
        if (file == nullptr || func == nullptr || !is_immutable(file) || !is_immutable(func)) {
            join_caller(dst, file, func);
            return;
        }
        memset(c.text, 0, sizeof(c.text));
        join_caller(c.text, file, func);
        c.file = file;
        c.func = func;
    }
    memcpy(dst, c.text, k_lock_holder_size);
}

void set_no_usr(char (&dst)[k_lock_holder_size])
{
    memcpy(dst, k_no_usr, sizeof(k_no_usr));
}

// A snapshot of a text that its owner may be rewriting.
void snapshot(char (&dst)[k_lock_holder_size], const char (&src)[k_lock_holder_size])
{
    memcpy(dst, src, k_lock_holder_size);
    dst[k_lock_holder_size - 1] = '\0';
}

// The time-out of the try operations is handed to the C library as it stands: an absolute
// CLOCK_REALTIME instant a few seconds after 1970, long past, so a held lock fails at once.
// Callers rely on the try operations never blocking.
timespec epoch_instant(unsigned timeout_ms)
{
    timespec at;
    at.tv_sec = static_cast<time_t>(timeout_ms / 1000);
    at.tv_nsec = static_cast<long>(timeout_ms % 1000) * 1000000L;
    return at;
}

unsigned long seconds_since(time_t since)
{
    return static_cast<unsigned long>(time(nullptr) - since);
}

unsigned long thread_number(pthread_t t)
{
    return (unsigned long)t;
}

} // namespace

// ---- Accounted objects ------------------------------------------------------------------

template <vesk_memmory_purpose Purpose> void* vesk_lock_heap<Purpose>::operator new(std::size_t size) noexcept
{
    return vesk_malloc(VESK_USER_UTILITY, Purpose, static_cast<unsigned>(size), k_object_align);
}

template <vesk_memmory_purpose Purpose> void vesk_lock_heap<Purpose>::operator delete(void* p) noexcept
{
    vesk_free(__FILE__, __func__, p);
}

template struct vesk_lock_heap<k_purpose_lock>;
template struct vesk_lock_heap<k_purpose_rw_lock>;
template struct vesk_lock_heap<k_purpose_sleep>;

static_assert(alignof(vesk_lock_realize) <= k_object_align, "lock objects need a larger alignment");
static_assert(alignof(vesk_rw_lock_realize) <= k_object_align, "lock objects need a larger alignment");
static_assert(alignof(interuptable_sleep) <= k_object_align, "lock objects need a larger alignment");
#if UINTPTR_MAX == 0xFFFFFFFFu && defined(__GLIBC__)
// Footprint on the board (32-bit time_t), before the 44 bytes of accounting per object.
static_assert(sizeof(time_t) != 4 || sizeof(vesk_lock_realize) == 140, "a named lock grew");
static_assert(sizeof(time_t) != 4 || sizeof(vesk_rw_lock_realize) == 168, "a read-write lock grew");
static_assert(sizeof(interuptable_sleep) == 88, "an interruptible sleep grew");
#endif

// ---- vesk_lock_realize ------------------------------------------------------------------

vesk_lock_realize::vesk_lock_realize(const char* name)
{
    m_init_flag = s_lock_sys.mutex_init(&m_mutex, nullptr) == 0 ? 1 : 0;
    copy_name(m_name, name);
    memset(m_holder, 0, sizeof(m_holder));
    set_no_usr(m_holder);
}

vesk_lock_realize::~vesk_lock_realize()
{
    if (m_lock_cnt.load(std::memory_order_relaxed) != 0) {
        VESK_LOG_ERR(k_cls_lock, "'%s' is locked, usr is '%s'\n", m_name, m_holder);
        vesk_assert_fail(__FILE__, __func__, __LINE__, "m_lock_cnt == 0");
    }
    if (m_init_flag != 0)
        pthread_mutex_destroy(&m_mutex);
}

void vesk_lock_realize::record(const char* op, const char* file, const char* func)
{
    const int32_t cnt = m_lock_cnt.load(std::memory_order_relaxed);
    if (cnt != 0) {
        // The mutex was free, yet the books say held: something wrote over them.
        vesk_log(vesk_log_level::error, k_cls_lock, op, __LINE__, "'%s', call by '%s' '%s', lock_cnt = %d\n", m_name,
            file, func, cnt);
        vesk_log(vesk_log_level::error, k_cls_lock, op, __LINE__, "'%s' is locked by '%s', last time = %lu sec \n",
            m_name, m_holder, seconds_since(m_lock_time.load(std::memory_order_relaxed)));
        vesk_assert_fail(__FILE__, op, __LINE__, "0");
    }
    m_lock_cnt.store(1, std::memory_order_relaxed);
    copy_caller(m_holder, file, func);
    m_holder_thread.store(pthread_self(), std::memory_order_relaxed);
    m_lock_time.store(time(nullptr), std::memory_order_relaxed);
}

VESK_ERR vesk_lock_realize::lock(const char* file, const char* func)
{
    if (m_init_flag == 0) {
        VESK_LOG_ERR(k_cls_lock, "'%s' init fail!\n", m_name);
        return VESK_ERR_LOCK_NOT_INIT;
    }
    // Read without the mutex: only this thread can have stored its own id here, and it
    // clears it before it lets the mutex go.
    const pthread_t self = pthread_self();
    const pthread_t holder = m_holder_thread.load(std::memory_order_relaxed);
    if (pthread_equal(holder, self)) {
        VESK_LOG_ERR(k_cls_lock, "'%s', call by '%s' '%s', pid %lu, %lu %lu, dead lock, have locked by '%s'\n", m_name,
            file, func, static_cast<unsigned long>(syscall(SYS_gettid)), thread_number(holder), thread_number(self),
            m_holder);
        vesk_assert_fail(__FILE__, __func__, __LINE__, "0");
    }
    if (pthread_mutex_lock(&m_mutex) != 0) {
        VESK_LOG_ERR(k_cls_lock, "'%s' lock fail!\n", m_name);
        return VESK_ERR_OPERATE_FAIL;
    }
    record(__func__, file, func);
    return VESK_OK;
}

VESK_ERR vesk_lock_realize::trylock(const char* file, const char* func, unsigned timeout_ms)
{
    if (m_init_flag == 0) {
        VESK_LOG_ERR(k_cls_lock, "'%s' init fail!\n", m_name);
        return VESK_ERR_LOCK_NOT_INIT;
    }
    int rc;
    if (timeout_ms == 0) {
        rc = pthread_mutex_trylock(&m_mutex);
    } else {
        const timespec at = epoch_instant(timeout_ms);
        rc = pthread_mutex_timedlock(&m_mutex, &at);
    }
    if (rc != 0)
        return VESK_ERR_LOCK_BUSY;
    record(__func__, file, func);
    return VESK_OK;
}

VESK_ERR vesk_lock_realize::unlock(const char* file, const char* func)
{
    if (m_init_flag == 0) {
        VESK_LOG_ERR(k_cls_lock, "'%s' init fail!\n", m_name);
        return VESK_ERR_LOCK_NOT_INIT;
    }
    // A load and a store, not an exchange: the locked instruction would cost more than the
    // mutex itself. A second release after the first is stopped here; two releases of one
    // hold racing each other on two threads may both pass, as with a bare mutex.
    const int32_t cnt = m_lock_cnt.load(std::memory_order_relaxed);
    if (cnt == 1)
        m_lock_cnt.store(0, std::memory_order_relaxed);
    if (cnt != 1) {
        VESK_LOG_ERR(k_cls_lock, "'%s' lock_cnt = %d, '%s %s' illegal unlock?\n", m_name, cnt, file, func);
        vesk_assert_fail(__FILE__, __func__, __LINE__, "0");
    }
    set_no_usr(m_holder);
    m_holder_thread.store(0, std::memory_order_relaxed);
    // Possibly from another thread than the locker. POSIX leaves that undefined for a
    // default mutex; the GNU C library's default (normal) mutex keeps no owner and releases.
    pthread_mutex_unlock(&m_mutex);
    return VESK_OK;
}

void vesk_lock_realize::format_locked(char* buf, unsigned len)
{
    char holder[k_lock_holder_size];
    snapshot(holder, m_holder);
    snprintf(buf, len, "'%s' is locked by '%s', last time = %lu sec", m_name, holder,
        seconds_since(m_lock_time.load(std::memory_order_relaxed)));
}

int vesk_lock_realize::get_state(char* buf, unsigned len)
{
    const int32_t cnt = m_lock_cnt.load(std::memory_order_relaxed);
    if (buf == nullptr || len == 0)
        return cnt;
    if (cnt != 0)
        format_locked(buf, len);
    else
        snprintf(buf, len, "'%s' is idel", m_name);
    return cnt;
}

int vesk_lock_realize::get_locked_info(char* buf, unsigned len)
{
    if (m_lock_cnt.load(std::memory_order_relaxed) == 0)
        return 0;
    if (buf != nullptr && len != 0)
        format_locked(buf, len);
    return 1;
}

// ---- vesk_rw_lock_realize ---------------------------------------------------------------

#define VESK_RW_REQUIRE_INIT()                                                                                         \
    do {                                                                                                               \
        if (m_init_flag == 0) {                                                                                        \
            VESK_LOG_ERR(k_cls_rw, "'%s' init fail!\n", m_name);                                                       \
            return VESK_ERR_LOCK_NOT_INIT;                                                                             \
        }                                                                                                              \
    } while (0)

vesk_rw_lock_realize::vesk_rw_lock_realize(const char* name)
{
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
#if defined(__GLIBC__)
    // A waiting writer keeps new readers out; without this a steady stream of readers (the
    // diagnostics, the A/V readers) could keep a writer waiting for ever.
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
#endif
    m_init_flag = s_lock_sys.rwlock_init(&m_rwlock, &attr) == 0 ? 1 : 0;
    pthread_rwlockattr_destroy(&attr);
    copy_name(m_name, name);
    pthread_mutex_init(&m_cnt_mutex, nullptr);
    memset(m_writer, 0, sizeof(m_writer));
    set_no_usr(m_writer);
}

vesk_rw_lock_realize::~vesk_rw_lock_realize()
{
    if (get_cnt() != 0) {
        VESK_LOG_ERR(k_cls_rw, "'%s' is locked %d times, wr_lock usr is '%s'\n", m_name, get_cnt(), m_writer);
        vesk_assert_fail(__FILE__, __func__, __LINE__, "get_cnt() == 0");
    }
    if (m_init_flag != 0)
        pthread_rwlock_destroy(&m_rwlock);
    pthread_mutex_destroy(&m_cnt_mutex);
}

void vesk_rw_lock_realize::add_cnt()
{
    if (m_cnt.fetch_add(1, std::memory_order_relaxed) == 0)
        m_lock_time.store(time(nullptr), std::memory_order_relaxed);
}

// REQUIRES: the write lock just taken. Every earlier holder's count update happened before
// (through the rwlock) and no other holder is inside, so plain loads and stores suffice.
void vesk_rw_lock_realize::add_writer(const char* file, const char* func)
{
    const int32_t cnt = m_cnt.load(std::memory_order_relaxed);
    if (cnt == 0)
        m_lock_time.store(time(nullptr), std::memory_order_relaxed);
    m_cnt.store(cnt + 1, std::memory_order_relaxed);
    copy_caller(m_writer, file, func);
}

int32_t vesk_rw_lock_realize::get_cnt()
{
    return m_cnt.load(std::memory_order_relaxed);
}

VESK_ERR vesk_rw_lock_realize::rd_lock()
{
    VESK_RW_REQUIRE_INIT();
    if (pthread_rwlock_rdlock(&m_rwlock) != 0) {
        // EDEADLK: this thread holds the write lock.
        VESK_LOG_ERR(k_cls_rw, "'%s' is locked %d times, wr_lock usr is '%s'\n", m_name, get_cnt(), m_writer);
        exit(-1);
    }
    add_cnt();
    return VESK_OK;
}

VESK_ERR vesk_rw_lock_realize::rd_trylock(const char* file, const char* func, unsigned timeout_ms)
{
    (void)file;
    (void)func;
    VESK_RW_REQUIRE_INIT();
    int rc;
    if (timeout_ms == 0) {
        rc = pthread_rwlock_tryrdlock(&m_rwlock);
    } else {
        const timespec at = epoch_instant(timeout_ms);
        rc = pthread_rwlock_timedrdlock(&m_rwlock, &at);
    }
    if (rc != 0)
        return VESK_ERR_LOCK_BUSY;
    add_cnt();
    return VESK_OK;
}

VESK_ERR vesk_rw_lock_realize::wr_lock(const char* file, const char* func)
{
    VESK_RW_REQUIRE_INIT();
    if (pthread_rwlock_wrlock(&m_rwlock) != 0) {
        VESK_LOG_ERR(k_cls_rw, "'%s' is locked %d times, wr_lock usr is '%s'\n", m_name, get_cnt(), m_writer);
        exit(-1);
    }
    add_writer(file, func);
    return VESK_OK;
}

VESK_ERR vesk_rw_lock_realize::wr_trylock(const char* file, const char* func, unsigned timeout_ms)
{
    VESK_RW_REQUIRE_INIT();
    int rc;
    if (timeout_ms == 0) {
        rc = pthread_rwlock_trywrlock(&m_rwlock);
    } else {
        const timespec at = epoch_instant(timeout_ms);
        rc = pthread_rwlock_timedwrlock(&m_rwlock, &at);
    }
    if (rc != 0)
        return VESK_ERR_LOCK_BUSY;
    add_writer(file, func);
    return VESK_OK;
}

VESK_ERR vesk_rw_lock_realize::unlock(const char* file, const char* func)
{
    VESK_RW_REQUIRE_INIT();
    int32_t cnt = m_cnt.load(std::memory_order_relaxed);
    for (;;) {
        if (cnt < 1) {
            VESK_LOG_ERR(
                k_cls_rw, "'%s' is locked %d times, wr_lock usr is '%s' %s %s\n", m_name, cnt, m_writer, file, func);
            exit(-1);
        }
        if (cnt == 1) {
            const time_t since = m_lock_time.load(std::memory_order_relaxed);
            m_lock_time.store(0, std::memory_order_relaxed);
            if (m_cnt.compare_exchange_strong(cnt, 0, std::memory_order_relaxed)) {
                // Only a writer's hold leaves its text; the last reader finds "no usr" there
                // and leaves the shared line unwritten.
                if (memcmp(m_writer, k_no_usr, sizeof(k_no_usr)) != 0)
                    set_no_usr(m_writer);
                break;
            }
            // A reader came in meanwhile (its count did not start from 0): its hold keeps the time.
            m_lock_time.store(since, std::memory_order_relaxed);
        } else if (m_cnt.compare_exchange_weak(cnt, cnt - 1, std::memory_order_relaxed)) {
            break;
        }
    }
    pthread_rwlock_unlock(&m_rwlock);
    // Deliberately nonzero on success; callers ignore the result of unlock.
    return VESK_ERR_LOCK_BUSY;
}

int vesk_rw_lock_realize::get_state(char* buf, unsigned len)
{
    const int32_t cnt = m_cnt.load(std::memory_order_relaxed);
    time_t since = m_lock_time.load(std::memory_order_relaxed);
    // A hold that has just begun or ended may show its count before its time.
    if (since == 0)
        since = time(nullptr);
    if (buf == nullptr || len == 0)
        return cnt;
    buf[0] = '\0';
    if (cnt > 0) {
        char writer[k_lock_holder_size];
        snapshot(writer, m_writer);
        snprintf(buf, len, "'%s' is locked %d times, wr_lock usr is '%s', lock time = %lu sec", m_name, cnt, writer,
            seconds_since(since));
    } else {
        snprintf(buf, len, "%s is idel", m_name);
    }
    return cnt;
}

int vesk_rw_lock_realize::get_locked_info(char* buf, unsigned len)
{
    if (get_cnt() <= 0)
        return 0;
    // The lock may have been released in between: then the text says idle, still 1.
    get_state(buf, len);
    return 1;
}

#undef VESK_RW_REQUIRE_INIT

// ---- interuptable_sleep -----------------------------------------------------------------

interuptable_sleep::interuptable_sleep()
{
    if (s_lock_sys.condattr_init(&m_cond_attr) != 0)
        vesk_assert_fail(__FILE__, __func__, __LINE__, "0");
    pthread_mutex_init(&m_mutex, nullptr);
    // Monotonic: setting the wall clock (NTP, the user) must not stretch or cut a sleep.
    pthread_condattr_setclock(&m_cond_attr, CLOCK_MONOTONIC);
    pthread_cond_init(&m_cond, &m_cond_attr);
}

interuptable_sleep::~interuptable_sleep()
{
    pthread_cond_destroy(&m_cond);
    pthread_condattr_destroy(&m_cond_attr);
    pthread_mutex_destroy(&m_mutex);
}

VESK_ERR interuptable_sleep::sleep(unsigned ms)
{
    pthread_mutex_lock(&m_mutex);
    timespec at;
    clock_gettime(CLOCK_MONOTONIC, &at);
    at.tv_sec += static_cast<time_t>(ms / 1000);
    at.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (at.tv_nsec > 999999999L) {
        at.tv_sec++;
        at.tv_nsec -= 1000000000L;
    }
    // No predicate: any return before the deadline counts as a wakeup.
    const int rc = pthread_cond_timedwait(&m_cond, &m_mutex, &at);
    pthread_mutex_unlock(&m_mutex);
    return rc == 0 ? VESK_OK : VESK_ERR_OPERATE_FAIL;
}

VESK_ERR interuptable_sleep::wakeup()
{
    pthread_mutex_lock(&m_mutex);
    pthread_cond_signal(&m_cond);
    pthread_mutex_unlock(&m_mutex);
    return VESK_OK;
}

// ---- Dumps ------------------------------------------------------------------------------
// The registry calls these with the list's mutex held, and a delete takes that mutex before
// it destroys the object, so the object behind a node is alive while it is printed.

namespace
{

constexpr unsigned k_state_text = 192; // name 31 + holder 63 + the fixed words and numbers

void print_lock_node(const vesk_registry_node& node, print_fn print, bool held_only)
{
    vesk_lock* lk = reinterpret_cast<vesk_lock*>(node.handle);
    char text[k_state_text];
    if (held_only ? lk->get_locked_info(text, sizeof(text)) != 0 : (lk->get_state(text, sizeof(text)), true))
        print("usr_id = 0x%x, %s\n", node.usr_id, text);
}

void print_rw_node(const vesk_registry_node& node, print_fn print, bool held_only)
{
    vesk_rw_lock* lk = reinterpret_cast<vesk_rw_lock*>(node.handle);
    char text[k_state_text];
    if (held_only ? lk->get_locked_info(text, sizeof(text)) != 0 : (lk->get_state(text, sizeof(text)), true))
        print("usr_id = 0x%x, %s\n", node.usr_id, text);
}

void print_all_locks(const vesk_registry_node& node, print_fn print)
{
    print_lock_node(node, print, false);
}

void print_all_rw_locks(const vesk_registry_node& node, print_fn print)
{
    print_rw_node(node, print, false);
}

void print_held_locks(const vesk_registry_node& node, print_fn print)
{
    print_lock_node(node, print, true);
}

void print_held_rw_locks(const vesk_registry_node& node, print_fn print)
{
    print_rw_node(node, print, true);
}

} // namespace

void vesk_lock_install_printers(vesk_handle_registry& registry)
{
    registry.set_node_printer(1, print_all_locks);
    registry.set_node_printer(2, print_all_rw_locks);
    registry.set_node_printer(3, print_held_locks);
    registry.set_node_printer(4, print_held_rw_locks);
}

void vesk_dump_held_locks(print_fn print)
{
    vesk_handle_registry& registry = vesk_ground::instance()->registry();
    registry.dump_list(VESK_LIST_COMMON_LOCK, "common lock", print, 3);
    registry.dump_list(VESK_LIST_RW_LOCK, "RW lock", print, 4);
    registry.dump_list(VESK_LIST_SLEEP, "sleep lock", print, 0);
}

} // namespace vesk_utility
