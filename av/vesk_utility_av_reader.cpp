// vesk_utility_av_reader - channel binding, user bits and reference counts of an A/V reader.
#include "vesk_utility_av_reader.h"

#include "vesk_utility_av_mng.h"
#include "vesk_utility_log.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{
constexpr const char* k_cls = "vesk_av_reader_v1";
} // namespace

vesk_av_reader_v1::vesk_av_reader_v1(vesk_utility_av_mng* mng, uint32_t max_chn, vesk_av_reader_work_mode mode,
    vesk_av_reader_usr_type usr_type, vesk_av_reader_purpose purpose)
    : m_mng(mng)
    , m_max_chn(max_chn)
    , m_work_mode(mode)
    , m_usr_type(usr_type)
    , m_purpose(purpose)
{
}

vesk_av_reader_v1::~vesk_av_reader_v1()
{
    VESK_ASSERT(m_reader_info.ref_cnt + m_reader_info.extra_ref_cnt == 0);
    release_all_magic();
}

void vesk_av_reader_v1::release_all_magic()
{
    for (uint32_t t = 0; t < VESK_AV_STREAM_NUM; t++)
        release_usr_magic(static_cast<vesk_av_stream_type>(t));
}

VESK_ERR vesk_av_reader_v1::set_chn(uint32_t chn)
{
    if (chn >= m_max_chn) {
        VESK_LOG_ERR(k_cls, "Chn:%u Invalid, Max:%u\n", chn, m_max_chn);
        return VESK_ERR_OPERATE_FAIL;
    }
    if (chn == m_ivr_ch)
        return VESK_OK;
    if (!is_free()) {
        VESK_LOG_ERR(k_cls, "AV Reader Reference Resouce Not Empty, Can't Change Chn");
        VESK_ASSERT(0);
    }
    release_all_magic();
    m_ivr_ch = chn;
    return VESK_OK;
}

VESK_ERR vesk_av_reader_v1::get_chn(uint32_t* chn)
{
    if (chn == nullptr) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    *chn = m_ivr_ch;
    return VESK_OK;
}

VESK_ERR vesk_av_reader_v1::release_usr_magic(vesk_av_stream_type str_type)
{
    if (str_type >= VESK_AV_STREAM_NUM) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    if (m_usr_magic_ofset[str_type] >= 0) {
        m_mng->release_magic_ofset(m_ivr_ch, m_usr_type, str_type, m_usr_magic_ofset[str_type]);
        m_usr_magic_ofset[str_type] = -1;
    }
    return VESK_OK;
}

int32_t vesk_av_reader_v1::usr_magic(uint32_t str_type)
{
    if (str_type >= VESK_AV_STREAM_NUM || m_ivr_ch >= m_max_chn)
        return -1;
    if (m_usr_magic_ofset[str_type] < 0)
        m_usr_magic_ofset[str_type] = m_mng->malloc_magic_ofset(m_ivr_ch, m_usr_type, str_type, m_purpose);
    return m_usr_magic_ofset[str_type];
}

void vesk_av_reader_v1::sub_ref()
{
    VESK_ASSERT(m_reader_info.ref_cnt > 0);
    m_reader_info.ref_cnt--;
}

VESK_ERR vesk_av_reader_v1::set_work_mode(vesk_av_reader_work_mode mode)
{
    m_work_mode = mode;
    return VESK_OK;
}

VESK_ERR vesk_av_reader_v1::reset_history(vesk_av_stream_type str_type)
{
    if (str_type >= VESK_AV_STREAM_NUM) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    return VESK_OK;
}

// Frame and block fetching belong to the reader's own service, not built yet: say so plainly
// rather than pretend that nothing is there.
VESK_ERR vesk_av_reader_v1::get_frame(
    vesk_av_stream_type, _tagVeskFrameHeader** frame, uint32_t, uint32_t* next_interval)
{
    if (frame != nullptr)
        *frame = nullptr;
    if (next_interval != nullptr)
        *next_interval = 5000;
    return VESK_ERR_NOT_SUPPORT;
}

VESK_ERR vesk_av_reader_v1::put_frame(vesk_av_stream_type, _tagVeskFrameHeader*)
{
    return VESK_ERR_NOT_SUPPORT;
}

VESK_ERR vesk_av_reader_v1::get_block(vesk_av_stream_type, vesk_IPC_stream_block_head** block, VESK_BOOL)
{
    if (block != nullptr)
        *block = nullptr;
    return VESK_ERR_NOT_SUPPORT;
}

VESK_ERR vesk_av_reader_v1::put_block(vesk_av_stream_type, vesk_IPC_stream_block_head*)
{
    return VESK_ERR_NOT_SUPPORT;
}

} // namespace vesk_utility
