// vesk_utility_api_audio - the exported G.711 conversions and the wrappers that create and
// destroy WAV operators, each recorded on the "wav fd" list.
#include "codec/vesk_utility_g711.h"
#include "media/vesk_utility_wav_operate.h"
#include "vesk_utility.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"

namespace vesk_soft
{

using namespace vesk_utility;

VESK_ERR vesk_utility_g711_alaw_encode(const int16_t* pcm, uint32_t count, uint8_t* out)
{
    if (count > 0 && (pcm == nullptr || out == nullptr))
        return VESK_ERR_INVALID_PARAM;
    g711_alaw_encode(pcm, count, out);
    return VESK_OK;
}

VESK_ERR vesk_utility_g711_alaw_decode(const uint8_t* in, uint32_t count, int16_t* pcm)
{
    if (count > 0 && (in == nullptr || pcm == nullptr))
        return VESK_ERR_INVALID_PARAM;
    g711_alaw_decode(in, count, pcm);
    return VESK_OK;
}

VESK_ERR vesk_utility_g711_ulaw_encode(const int16_t* pcm, uint32_t count, uint8_t* out)
{
    if (count > 0 && (pcm == nullptr || out == nullptr))
        return VESK_ERR_INVALID_PARAM;
    g711_ulaw_encode(pcm, count, out);
    return VESK_OK;
}

VESK_ERR vesk_utility_g711_ulaw_decode(const uint8_t* in, uint32_t count, int16_t* pcm)
{
    if (count > 0 && (in == nullptr || pcm == nullptr))
        return VESK_ERR_INVALID_PARAM;
    g711_ulaw_decode(in, count, pcm);
    return VESK_OK;
}

vesk_wav_operate* vesk_utility_new_wav_operate(vesk_user_id usr_id, const char* name)
{
    VESK_REQUIRE_INIT(nullptr);
    return VESK_REGISTER_NEW(VESK_LIST_WAV, static_cast<vesk_wav_operate*>(new (std::nothrow) vesk_wav_realize()),
        usr_id, name != nullptr ? name : "");
}

VESK_ERR vesk_utility_delete_wav_operate(vesk_wav_operate* op, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_WAV, op, file, func);
}

} // namespace vesk_soft
