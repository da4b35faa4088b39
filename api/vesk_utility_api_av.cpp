// vesk_utility_av_api - the exported wrappers of the A/V cache: each checks that the layer is
// initialised and forwards to the block manager or the logo table.
#include "vesk_utility_av.h"
#include "av/vesk_utility_av_logo.h"
#include "av/vesk_utility_av_mng.h"
#include "av/vesk_utility_av_note.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "api/vesk_utility_resource.h"

namespace vesk_soft
{

using namespace vesk_utility;

// Refuses a call before initialisation; the message names the exported wrapper and its line.
#define VESK_AV_REQUIRE_INIT(refusal)                                                                                  \
    do {                                                                                                               \
        if (vesk_ops_type() == 0) {                                                                                    \
            VESK_ERR_FN("Utility Module Not Init");                                                                    \
            return refusal;                                                                                            \
        }                                                                                                              \
    } while (0)

namespace
{

VESK_ERR note_get(uint32_t ivr_ch, vesk_av_stream_type str_type, vesk_read_av_list_note* note,
    _tagVeskFrameHeader** frame, bool first)
{
    return vesk_av_note_reader(vesk_utility_av_mng::instance()).get_frame(ivr_ch, str_type, note, frame, first);
}

VESK_ERR note_rel(vesk_read_av_list_note* notes, uint32_t count)
{
    if (notes == nullptr) {
        VESK_ERR_FN("Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    vesk_av_note_reader api(vesk_utility_av_mng::instance());
    for (uint32_t i = 0; i < count; i++)
        api.rel_frame(&notes[i]);
    return VESK_OK;
}

} // namespace

VESK_ERR vesk_utility_push_av_block(uint32_t ipc_idx, vesk_IPC_stream_block_head* block)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return vesk_utility_av_mng::instance()->push_av_block(ipc_idx, block);
}

VESK_ERR vesk_utility_set_av_max_cache(uint32_t start_rotate, uint32_t forbid_malloc)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    VESK_DBG_FN(
        "s_av_start_rotate_size = %dMB, s_av_forbid_malloc_size = %dMB\n", start_rotate >> 20, forbid_malloc >> 20);
    vesk_mem_set_av_limits(start_rotate, forbid_malloc);
    vesk_utility_av_mng::instance()->set_av_max_cache(start_rotate);
    return VESK_OK;
}

VESK_ERR vesk_utility_set_chn_connect_status(uint32_t ipc_idx, uint32_t status)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return vesk_utility_av_mng::instance()->set_chn_connect_status(ipc_idx, status);
}

VESK_ERR vesk_utility_switch_av_ivr_ch(uint32_t ivr_ch_a, uint32_t ivr_ch_b)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return vesk_utility_av_mng::instance()->switch_ivr_ch(ivr_ch_a, ivr_ch_b);
}

vesk_av_reader* vesk_utility_new_av_reader(
    vesk_av_reader_work_mode mode, vesk_av_reader_usr_type usr_type, vesk_av_reader_purpose purpose)
{
    VESK_AV_REQUIRE_INIT(nullptr);
    return vesk_utility_av_mng::instance()->new_av_reader(mode, usr_type, purpose);
}

VESK_ERR vesk_utility_delete_av_reader(vesk_av_reader* reader, const char* file, const char* func)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return vesk_utility_av_mng::instance()->delete_av_reader(reader, file, func);
}

VESK_ERR vesk_utility_get_stream_stat_info(uint32_t ivr_ch, vesk_av_stream_type type, vesk_stream_stat_info* info)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return vesk_utility_av_mng::instance()->get_stream_stat_info(ivr_ch, type, info);
}

VESK_ERR vesk_utility_get_last_frame_head(uint32_t ivr_ch, vesk_av_stream_type type, _tagVeskFrameHeader& header)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return vesk_utility_av_mng::instance()->get_last_frame_info(ivr_ch, type, header);
}

VESK_ERR vesk_utility_get_frame(
    uint32_t ivr_ch, vesk_enc_str_type enc_type, vesk_read_av_list_note* note, _tagVeskFrameHeader** frame)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return note_get(ivr_ch, vesk_utility_av_convert_type(enc_type), note, frame, false);
}

VESK_ERR vesk_utility_first_get_frame(
    uint32_t ivr_ch, vesk_enc_str_type enc_type, vesk_read_av_list_note* note, _tagVeskFrameHeader** frame)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return note_get(ivr_ch, vesk_utility_av_convert_type(enc_type), note, frame, true);
}

VESK_ERR vesk_utility_rel_frame(vesk_read_av_list_note* note)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return note_rel(note, 1);
}

VESK_ERR vesk_utility_rel_frame_multy(vesk_read_av_list_note* notes, uint32_t count)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return note_rel(notes, count);
}

VESK_ERR vesk_utility_ivs_get_frame(uint32_t ivr_ch, vesk_read_av_list_note* note, _tagVeskFrameHeader** frame)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return note_get(ivr_ch, VESK_AV_STREAM_SMART, note, frame, false);
}

VESK_ERR vesk_utility_ivs_first_get_frame(uint32_t ivr_ch, vesk_read_av_list_note* note, _tagVeskFrameHeader** frame)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return note_get(ivr_ch, VESK_AV_STREAM_SMART, note, frame, true);
}

VESK_ERR vesk_utility_ivs_rel_frame(vesk_read_av_list_note* note)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return note_rel(note, 1);
}

VESK_ERR vesk_utility_ivs_rel_frame_multy(vesk_read_av_list_note* notes, uint32_t count)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return note_rel(notes, count);
}

VESK_ERR vesk_utility_get_logo_frame(
    vesk_logo_type type, VESK_BOOL large, _tagVeskFrameHeader** frame, uint32_t* length)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return logo_table().get(type, large != 0, frame, length);
}

VESK_ERR vesk_utility_av_writer_put(vesk_av_block_writer* w, const _tagVeskFrameHeader* header, const void* payload)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return av_writer_put(vesk_utility_av_mng::instance(), w, header, payload);
}

VESK_ERR vesk_utility_av_writer_close(vesk_av_block_writer* w)
{
    VESK_AV_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return av_writer_close(vesk_utility_av_mng::instance(), w);
}

} // namespace vesk_soft
