// vesk_utility_av_logo - the prepared logo frames (no video, camera not connected, ...) that
// readers hand out in place of live video: 20 rows loaded once from ".nvr" files.
#ifndef VESK_UTILITY_AV_LOGO_H
#define VESK_UTILITY_AV_LOGO_H

#include <cstdint>

#include "vesk_utility_av.h"

namespace vesk_utility
{

// ".nvr" file: a 16-byte header, then the payload.
//   0 (not read, 4) | 4 width u16 | 6 height u16 | 8 payload length u32 | 12 (not read, 4)
constexpr uint32_t k_nvr_head_size = 16;
constexpr uint32_t k_nvr_width_off = 4;
constexpr uint32_t k_nvr_height_off = 6;
constexpr uint32_t k_nvr_length_off = 8;
constexpr uint32_t k_logo_rows = 20;
// The largest payload a logo file may declare: one coded picture, far below this.
constexpr uint32_t k_logo_max_payload = 4u << 20;

// Thread safety: load() runs once at init, before any lookup; get() only reads.
class vesk_logo_table
{
public:
    vesk_logo_table() = default;
    ~vesk_logo_table();
    vesk_logo_table(const vesk_logo_table&) = delete;
    vesk_logo_table& operator=(const vesk_logo_table&) = delete;

    // Loads every row from root + its fixed path; a failed row is logged and left empty. A
    // payload length beyond the file's own bytes or k_logo_max_payload skips the row before
    // anything is allocated, where reading as far as the field says would wrap the block size.
    void load(const char* root);
    vesk_soft::VESK_ERR get(uint32_t type, bool large, vesk_soft::_tagVeskFrameHeader** frame, uint32_t* length);
    // The fixed path of row i (0..19): small logos of types 1..10, then the large ones.
    static const char* row_path(uint32_t i);

private:
    struct row {
        uint32_t type;
        uint32_t large;
        vesk_soft::_tagVeskFrameHeader* frame;
        uint32_t length; // header + payload
    };
    row m_rows[k_logo_rows] = {};
};

vesk_logo_table& logo_table();

} // namespace vesk_utility

#endif // VESK_UTILITY_AV_LOGO_H
