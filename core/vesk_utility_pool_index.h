// vesk_utility_pool_index - the search structures of one pool chunk, kept beside the chunk so
// that its byte layout stays as it is: they find the node the best-fit rule chooses, and the
// empty neighbour in address order of a node being freed, without walking the empty list.
#ifndef VESK_UTILITY_POOL_INDEX_H
#define VESK_UTILITY_POOL_INDEX_H

#include <cstdint>

#include "core/vesk_utility_pool.h"

namespace vesk_utility
{

// Two structures over the empty nodes of one chunk:
//  - size bins: segregated lists by size class (32 classes per power of two), each sorted by
//    (mem_size, address), linked through the first 8 bytes of the empty node's data area (two
//    32-bit mem_ofset values, 0 for none), with a bitmap of the non-empty classes. Empty nodes
//    of fewer than 8 bytes are only counted; the rare request they could serve walks the list.
//  - an address directory: the chunk's area cut into at most 256 equal buckets, each holding
//    the mem_ofset of the highest empty node whose data starts in it, with a bitmap of the
//    non-empty buckets. With the address-ordered empty list this gives a node's predecessor in
//    O(empty nodes of one bucket).
// The best-fit rule (exact size at once, else the smallest larger node, first in address
// order among equals) is the minimum of (mem_size, address) over the nodes with mem_size >=
// need: the head of the first non-empty class above need's, or the first large enough node of
// need's own class.
//
// The memory comes from the C heap, not from the accounted one: the accounting shows what the
// callers and the pools' chunks hold, and these structures are neither. About 3 KB per 256 KB
// chunk, 1.7 KB per 32 KB string-pool chunk.
//
// Not thread-safe: the owning pool's m_lock guards it with the chunk.
class pool_fit_index
{
public:
    // NULL when the C heap refuses.
    static pool_fit_index* create(utility_pool_chunk* chunk);
    static void destroy(pool_fit_index* index);

    utility_pool_chunk* chunk() const { return m_chunk; }
    bool contains(const void* p) const
    {
        const VESK_CHAR* c = static_cast<const VESK_CHAR*>(p);
        return m_chunk->chunk_addr <= c && c <= m_chunk->chunk_addr + m_chunk->area_size;
    }

    // The empty node the best-fit rule chooses for need bytes, or NULL when none is as large.
    utility_string_pool_mem_node* best_fit(uint32_t need) const;
    // The empty node with the highest address below node (not itself in the empty list).
    utility_string_pool_mem_node* empty_before(const utility_string_pool_mem_node* node) const;

    // Bookkeeping of the empty list's changes. add_* after the node is linked in the list with
    // its final size; drop_* while it is still linked (its prev is read) and before its size
    // changes. A node whose size changes in place is dropped from the bins and added again.
    void add_to_bins(utility_string_pool_mem_node* node);
    // Sets the size of a binned node, moving it only when its place in the bins changes.
    void resize_in_bins(utility_string_pool_mem_node* node, uint32_t size);
    void drop_from_bins(utility_string_pool_mem_node* node);
    void add_to_directory(utility_string_pool_mem_node* node);
    void drop_from_directory(utility_string_pool_mem_node* node);

private:
    pool_fit_index() = default;

    utility_string_pool_mem_node* node_at(uint32_t ofset) const;
    uint32_t link(uint32_t ofset, int which) const;
    void set_link(uint32_t ofset, int which, uint32_t value);
    uint32_t bucket_of(uint32_t ofset) const { return ofset >> m_bucket_shift; }

    utility_pool_chunk* m_chunk = nullptr;
    uint32_t m_classes = 0;
    uint32_t m_bucket_shift = 0;
    uint32_t m_buckets = 0;
    uint32_t m_tiny = 0; // empty nodes too small for the bin links
    uint32_t* m_bins = nullptr; // [m_classes]: mem_ofset of the first node, 0 when empty
    uint32_t* m_last = nullptr; // [m_buckets]: mem_ofset of the highest node, 0 when none
    uint64_t m_class_bits[8] = {};
    uint64_t m_bucket_bits[4] = {};
};

} // namespace vesk_utility

#endif // VESK_UTILITY_POOL_INDEX_H
