// vesk_utility_pool_index - size bins and an address directory over the empty nodes of a
// pool chunk, so that the pools find the best-fit node and a freed node's neighbours in a
// few steps instead of a walk of the whole empty list.
#include "core/vesk_utility_pool_index.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "core/vesk_utility_fault.h"

namespace vesk_utility
{

namespace
{

typedef utility_string_pool_mem_node pool_node;

// Nodes below this size cannot hold the two bin links.
constexpr uint32_t k_bin_min = 8;
// Classes per power of two: finer classes mean shorter bins to walk.
constexpr uint32_t k_sl_bits = 5;
constexpr uint32_t k_sl = 1u << k_sl_bits;
constexpr uint32_t k_max_classes = 512;
constexpr uint32_t k_max_buckets = 256;

uint32_t size_class(uint32_t size)
{
    if (size < k_sl)
        return size;
    const uint32_t fl = 31 - static_cast<uint32_t>(__builtin_clz(size));
    return k_sl + (fl - k_sl_bits) * k_sl + ((size >> (fl - k_sl_bits)) & (k_sl - 1));
}

void set_bit(uint64_t* bits, uint32_t i)
{
    bits[i >> 6] |= uint64_t(1) << (i & 63);
}

void clear_bit(uint64_t* bits, uint32_t i)
{
    bits[i >> 6] &= ~(uint64_t(1) << (i & 63));
}

// The lowest set bit above i in a bitmap of `words` words, or `none`.
uint32_t next_bit(const uint64_t* bits, uint32_t words, uint32_t i, uint32_t none)
{
    uint32_t w = (i + 1) >> 6;
    if (w >= words)
        return none;
    uint64_t v = bits[w] & (~uint64_t(0) << ((i + 1) & 63));
    for (;;) {
        if (v != 0)
            return w * 64 + static_cast<uint32_t>(__builtin_ctzll(v));
        if (++w == words)
            return none;
        v = bits[w];
    }
}

// The highest set bit below i, or `none`.
uint32_t prev_bit(const uint64_t* bits, uint32_t i, uint32_t none)
{
    if (i == 0)
        return none;
    uint32_t w = (i - 1) >> 6;
    const uint32_t b = (i - 1) & 63;
    uint64_t v = bits[w] & (b == 63 ? ~uint64_t(0) : (uint64_t(2) << b) - 1);
    for (;;) {
        if (v != 0)
            return w * 64 + 63 - static_cast<uint32_t>(__builtin_clzll(v));
        if (w-- == 0)
            return none;
        v = bits[w];
    }
}

} // namespace

pool_fit_index* pool_fit_index::create(utility_pool_chunk* chunk)
{
    const uint32_t classes = size_class(chunk->area_size) + 1;
    // Buckets of at least 1 KB, at most 256 of them.
    uint32_t shift = 10;
    while ((chunk->area_size >> shift) >= k_max_buckets)
        shift++;
    const uint32_t buckets = (chunk->area_size >> shift) + 1;
    static_assert(k_max_classes <= 8 * 64 && k_max_buckets <= 4 * 64, "bitmap sizes");
    if (classes > k_max_classes)
        return nullptr;
    const size_t bytes = sizeof(pool_fit_index) + sizeof(uint32_t) * (classes + buckets);
    void* mem = vesk_sys_malloc(bytes);
    if (mem == nullptr)
        return nullptr;
    pool_fit_index* index = new (mem) pool_fit_index();
    index->m_chunk = chunk;
    index->m_classes = classes;
    index->m_bucket_shift = shift;
    index->m_buckets = buckets;
    index->m_bins = reinterpret_cast<uint32_t*>(index + 1);
    index->m_last = index->m_bins + classes;
    memset(index->m_bins, 0, sizeof(uint32_t) * (classes + buckets));
    return index;
}

void pool_fit_index::destroy(pool_fit_index* index)
{
    if (index != nullptr) {
        index->~pool_fit_index();
        free(index);
    }
}

pool_node* pool_fit_index::node_at(uint32_t ofset) const
{
    return reinterpret_cast<pool_node*>(m_chunk->chunk_addr + ofset - k_pool_node_head_size);
}

// Link 0 is the previous node of the bin, 1 the next; string nodes sit at any byte address.
uint32_t pool_fit_index::link(uint32_t ofset, int which) const
{
    uint32_t v;
    memcpy(&v, m_chunk->chunk_addr + ofset + 4 * which, sizeof(v));
    return v;
}

void pool_fit_index::set_link(uint32_t ofset, int which, uint32_t value)
{
    memcpy(m_chunk->chunk_addr + ofset + 4 * which, &value, sizeof(value));
}

void pool_fit_index::add_to_bins(pool_node* node)
{
    const uint32_t size = node->mem_size;
    if (size < k_bin_min) {
        m_tiny++;
        return;
    }
    const uint32_t c = size_class(size);
    const uint32_t ofset = node->mem_ofset;
    uint32_t prev = 0;
    uint32_t cur = m_bins[c];
    while (cur != 0) {
        const uint32_t s = node_at(cur)->mem_size;
        if (s > size || (s == size && cur > ofset))
            break;
        prev = cur;
        cur = link(cur, 1);
    }
    set_link(ofset, 0, prev);
    set_link(ofset, 1, cur);
    if (prev != 0)
        set_link(prev, 1, ofset);
    else
        m_bins[c] = ofset;
    if (cur != 0)
        set_link(cur, 0, ofset);
    set_bit(m_class_bits, c);
}

void pool_fit_index::drop_from_bins(pool_node* node)
{
    const uint32_t size = node->mem_size;
    if (size < k_bin_min) {
        m_tiny--;
        return;
    }
    const uint32_t c = size_class(size);
    const uint32_t ofset = node->mem_ofset;
    const uint32_t prev = link(ofset, 0);
    const uint32_t next = link(ofset, 1);
    if (prev != 0)
        set_link(prev, 1, next);
    else
        m_bins[c] = next;
    if (next != 0)
        set_link(next, 0, prev);
    if (m_bins[c] == 0)
        clear_bit(m_class_bits, c);
}

void pool_fit_index::resize_in_bins(pool_node* node, uint32_t size)
{
    const uint32_t old = node->mem_size;
    if (old >= k_bin_min && size >= k_bin_min && size_class(old) == size_class(size)) {
        // Same class: the node keeps its place if its neighbours still order around it.
        const uint32_t ofset = node->mem_ofset;
        const uint32_t prev = link(ofset, 0);
        const uint32_t next = link(ofset, 1);
        const uint32_t ps = prev != 0 ? node_at(prev)->mem_size : 0;
        const uint32_t ns = next != 0 ? node_at(next)->mem_size : 0;
        if ((prev == 0 || ps < size || (ps == size && prev < ofset))
            && (next == 0 || ns > size || (ns == size && next > ofset))) {
            node->mem_size = size;
            return;
        }
    }
    drop_from_bins(node);
    node->mem_size = size;
    add_to_bins(node);
}

void pool_fit_index::add_to_directory(pool_node* node)
{
    const uint32_t ofset = node->mem_ofset;
    const uint32_t b = bucket_of(ofset);
    if (m_last[b] < ofset)
        m_last[b] = ofset;
    set_bit(m_bucket_bits, b);
}

void pool_fit_index::drop_from_directory(pool_node* node)
{
    const uint32_t ofset = node->mem_ofset;
    const uint32_t b = bucket_of(ofset);
    if (m_last[b] != ofset)
        return;
    // The list is in address order: the node's predecessor, if in the same bucket, is the
    // bucket's new highest.
    const pool_node* prev = node->prev;
    if (prev != nullptr && bucket_of(prev->mem_ofset) == b) {
        m_last[b] = prev->mem_ofset;
    } else {
        m_last[b] = 0;
        clear_bit(m_bucket_bits, b);
    }
}

pool_node* pool_fit_index::empty_before(const pool_node* node) const
{
    const uint32_t ofset = node->mem_ofset;
    const uint32_t b = bucket_of(ofset);
    if (m_last[b] == 0) {
        const uint32_t lower = prev_bit(m_bucket_bits, b, m_buckets);
        return lower == m_buckets ? nullptr : node_at(m_last[lower]);
    }
    pool_node* n = node_at(m_last[b]);
    while (n != nullptr && n->mem_ofset > ofset)
        n = n->prev;
    return n;
}

pool_node* pool_fit_index::best_fit(uint32_t need) const
{
    if (need < k_bin_min && m_tiny != 0) {
        // Only a tiny node can beat every binned one.
        pool_node* best = nullptr;
        for (pool_node* n = m_chunk->empty_head; n != nullptr; n = n->next) {
            if (n->mem_size < k_bin_min && n->mem_size >= need && (best == nullptr || n->mem_size < best->mem_size))
                best = n;
        }
        if (best != nullptr)
            return best;
    }
    const uint32_t c = size_class(need < k_bin_min ? k_bin_min : need);
    if (c >= m_classes)
        return nullptr;
    for (uint32_t cur = m_bins[c]; cur != 0; cur = link(cur, 1)) {
        pool_node* n = node_at(cur);
        if (n->mem_size >= need)
            return n;
    }
    const uint32_t up = next_bit(m_class_bits, 8, c, m_classes);
    return up >= m_classes ? nullptr : node_at(m_bins[up]);
}

} // namespace vesk_utility
