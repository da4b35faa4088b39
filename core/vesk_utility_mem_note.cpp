// vesk_utility_mem_note - the note trees and the class counters.
#include "core/vesk_utility_mem_note.h"

#include <cstdlib>
#include <cstring>

#include "core/vesk_utility_fault.h"
#include "core/vesk_utility_log.h"

namespace vesk_utility {

namespace {
constexpr const char* k_cls = "vesk_utility_res_manage";
constexpr uint32_t k_note_compact_above = 0x1FFFF;
constexpr uint32_t k_note_overflow_at = 0x20000;
constexpr uint32_t k_class_overflow_above = 0x80000;
}  // namespace

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(vesk_note_tree::user_node) == 16 && sizeof(vesk_note_tree::purpose_node) == 20,
              "note tree nodes: a new caller costs 36 bytes, a further purpose 20");
#endif

void vesk_note_tree::compact()
{
    for (user_node* u = m_head; u != nullptr;) {
        for (purpose_node* p = u->purposes; p != nullptr;) {
            purpose_node* next = p->next;
            if (p->note_cnt == 0) {
                if (p->prev != nullptr)
                    p->prev->next = p->next;
                else
                    u->purposes = p->next;
                if (p->next != nullptr)
                    p->next->prev = p->prev;
                free(p);
                m_malloc_size -= sizeof(purpose_node);
            }
            p = next;
        }
        user_node* next = u->next;
        if (u->purposes == nullptr) {
            if (u->prev != nullptr)
                u->prev->next = u->next;
            else
                m_head = u->next;
            if (u->next != nullptr)
                u->next->prev = u->prev;
            free(u);
            m_malloc_size -= sizeof(user_node);
        }
        u = next;
    }
}

vesk_note_tree::~vesk_note_tree()
{
    for (user_node* u = m_head; u != nullptr;) {
        for (purpose_node* p = u->purposes; p != nullptr;) {
            purpose_node* next = p->next;
            free(p);
            p = next;
        }
        user_node* next = u->next;
        free(u);
        u = next;
    }
}

void vesk_note_tree::add(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size)
{
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_malloc_size > k_note_compact_above) {
        VESK_LOG_WARN(k_cls, "list.malloc_size = %d!!!!!!!!!!!!!!!\n", m_malloc_size);
        compact();
    }
    if (m_malloc_size >= k_note_overflow_at) {
        VESK_LOG_WARN(k_cls, "list.malloc_size = %d!!!!!!!!!!!!!!! over flow!!!\n", m_malloc_size);
        return;
    }
    user_node* u = m_head;
    user_node* last_u = nullptr;
    while (u != nullptr && u->usr_id != usr_id) {
        last_u = u;
        u = u->next;
    }
    purpose_node* p = nullptr;
    purpose_node* last_p = nullptr;
    if (u != nullptr) {
        p = u->purposes;
        while (p != nullptr && p->purpose != purpose) {
            last_p = p;
            p = p->next;
        }
        if (p != nullptr) {
            p->note_cnt++;
            p->note_size += size;
            return;
        }
    }
    p = static_cast<purpose_node*>(vesk_sys_malloc(sizeof(purpose_node)));
    if (p == nullptr) {
        VESK_LOG_ERR(k_cls, "malloc fail!");
        return;
    }
    *p = {purpose, 1, size, last_p, nullptr};
    if (u == nullptr) {
        u = static_cast<user_node*>(vesk_sys_malloc(sizeof(user_node)));
        if (u == nullptr) {
            free(p);
            VESK_LOG_ERR(k_cls, "malloc fail!");
            return;
        }
        *u = {usr_id, p, last_u, nullptr};
        if (last_u != nullptr)
            last_u->next = u;
        else
            m_head = u;
        m_malloc_size += sizeof(user_node);
    } else if (last_p != nullptr) {
        last_p->next = p;
    } else {
        u->purposes = p;
    }
    m_malloc_size += sizeof(purpose_node);
}

void vesk_note_tree::sub(const char* file, const char* func, vesk_user_id usr_id, vesk_memmory_purpose purpose,
                         unsigned size)
{
    std::lock_guard<std::mutex> guard(m_lock);
    user_node* u = m_head;
    while (u != nullptr && u->usr_id != usr_id)
        u = u->next;
    purpose_node* p = u != nullptr ? u->purposes : nullptr;
    while (p != nullptr && p->purpose != purpose)
        p = p->next;
    if (u == nullptr || p == nullptr) {
        VESK_LOG_ERR(k_cls, "%s::%s user_node = 0x%x, purpose_node = 0x%x, user_node = %p, purpose_node = %p, why?\n",
                     file, func, usr_id, purpose, static_cast<void*>(u), static_cast<void*>(p));
        VESK_ASSERT(0);
    }
    if (p->note_cnt == 0) {
        VESK_LOG_ERR(k_cls, "%s::%s user_node = 0x%x, purpose_node = 0x%x, note_cnt = 0, why?\n", file, func, usr_id,
                     purpose);
        VESK_ASSERT(0);
    }
    p->note_cnt--;
    p->note_size -= size;
}

void vesk_note_tree::dump(print_fn print)
{
    if (!m_lock.try_lock()) {
        print("sorry trylock %s fail!\n", m_title);
        return;
    }
    print("------------------------------------- %s ------------------------------------------\n", m_title);
    for (const user_node* u = m_head; u != nullptr; u = u->next) {
        print("caller = 0x%x:\n", u->usr_id);
        for (const purpose_node* p = u->purposes; p != nullptr; p = p->next) {
            if (static_cast<int32_t>(p->note_cnt) < 0)
                print("     purpose = 0x%x, note_cnt = %d, note_size = %d why?????\n", p->purpose, p->note_cnt,
                      p->note_size);
            else
                print("     purpose = 0x%x, note_cnt = %d, note_size = %d!\n", p->purpose, p->note_cnt, p->note_size);
        }
    }
    m_lock.unlock();
}

uint32_t vesk_note_tree::malloc_size()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_malloc_size;
}

bool vesk_note_tree::find(vesk_user_id usr_id, vesk_memmory_purpose purpose, uint32_t& cnt, uint32_t& size)
{
    std::lock_guard<std::mutex> guard(m_lock);
    for (const user_node* u = m_head; u != nullptr; u = u->next) {
        if (u->usr_id != usr_id)
            continue;
        for (const purpose_node* p = u->purposes; p != nullptr; p = p->next) {
            if (p->purpose == purpose) {
                cnt = p->note_cnt;
                size = p->note_size;
                return true;
            }
        }
    }
    return false;
}

// ---- Class counters ----------------------------------------------------------------------

struct vesk_class_note::node {
    const char* name;  // points at `text`
    uint32_t cnt;
    uint32_t size;  // bytes of this node, name included
    node* prev;
    node* next;
    char text[1];
};

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(offsetof(vesk_class_note::node, text) == 20, "class node: 20 bytes, then the name and its NUL");
#endif

vesk_class_note::~vesk_class_note()
{
    for (node* n = m_head; n != nullptr;) {
        node* next = n->next;
        free(n);
        n = next;
    }
}

void vesk_class_note::add_class_note(const char* name)
{
    std::lock_guard<std::mutex> guard(m_lock);
    for (node* n = m_head; n != nullptr; n = n->next) {
        if (strcmp(n->name, name) == 0) {
            n->cnt++;
            return;
        }
    }
    if (m_malloc_size > k_class_overflow_above) {
        VESK_LOG_WARN(k_cls, "m_class_note.malloc_size = %d overflow!\n", m_malloc_size);
        return;
    }
    const size_t len = strlen(name);
    const size_t mallocsize = offsetof(node, text) + len + 1;
    node* n = static_cast<node*>(vesk_sys_malloc(mallocsize));
    if (n == nullptr) {
        VESK_LOG_WARN(k_cls, "mallocsize = %zu fail!\n", mallocsize);
        return;
    }
    memcpy(n->text, name, len + 1);
    n->name = n->text;
    n->cnt = 1;
    n->size = static_cast<uint32_t>(mallocsize);
    n->prev = nullptr;
    n->next = m_head;
    if (m_head != nullptr)
        m_head->prev = n;
    m_head = n;
    m_malloc_size += n->size;
}

void vesk_class_note::sub_class_note(const char* name)
{
    std::lock_guard<std::mutex> guard(m_lock);
    node* n = m_head;
    while (n != nullptr && strcmp(n->name, name) != 0)
        n = n->next;
    if (n == nullptr) {
        VESK_LOG_ERR(k_cls, "%s find node fail!\n", name);
        VESK_ASSERT(0);
    }
    if (n->cnt == 0) {
        VESK_LOG_ERR(k_cls, "%s node->note_cnt = %d why!\n", name, n->cnt);
        VESK_ASSERT(0);
    }
    n->cnt--;
}

void vesk_class_note::dump(print_fn print)
{
    if (!m_lock.try_lock()) {
        print("sorry trylock class node list fail!\n");
        return;
    }
    print("------------------------------------- class cnt ------------------------------------------\n");
    for (const node* n = m_head; n != nullptr; n = n->next)
        print("%s: cnt = %d\n", n->name, n->cnt);
    m_lock.unlock();
}

int vesk_class_note::count_of(const char* name)
{
    std::lock_guard<std::mutex> guard(m_lock);
    for (const node* n = m_head; n != nullptr; n = n->next)
        if (strcmp(n->name, name) == 0)
            return static_cast<int>(n->cnt);
    return -1;
}

}  // namespace vesk_utility
