// vesk_utility_av_note - the frame API: reads one channel's stream frame by frame for a caller
// that keeps its position in a vesk_read_av_list_note instead of owning a reader.
#ifndef VESK_UTILITY_AV_NOTE_H
#define VESK_UTILITY_AV_NOTE_H

#include <cstdint>

#include "vesk_utility_av.h"

namespace vesk_utility
{

class vesk_utility_av_mng;

// Stateless: everything about a position lives in the note. A held in-place frame has raised
// its block descriptor's ref_cnt by one (under the channel lock of note->ipc_idx); a joined
// copy holds nothing of the cache. Notes take no user bit.
class vesk_av_note_reader final
{
public:
    explicit vesk_av_note_reader(vesk_utility_av_mng* mng)
        : m_mng(mng)
    {
    }

    // The frame after the note's position, or with `first` (REQUIRES: the note holds nothing,
    // fatal otherwise) the stream's start point. See vesk_utility_get_frame.
    vesk_soft::VESK_ERR get_frame(uint32_t ivr_ch, uint32_t str_type, vesk_soft::vesk_read_av_list_note* note,
        vesk_soft::_tagVeskFrameHeader** frame, bool first);
    // Gives back what the note holds; nothing held: VESK_OK.
    vesk_soft::VESK_ERR rel_frame(vesk_soft::vesk_read_av_list_note* note);

private:
    vesk_utility_av_mng* m_mng;
};

} // namespace vesk_utility

#endif // VESK_UTILITY_AV_NOTE_H
