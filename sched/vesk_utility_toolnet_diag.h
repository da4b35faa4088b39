// vesk_utility_toolnet_diag - the UDP/TCP network tool as the timer's console reaches it. The
// tool stands on a floor above the timer, so the timer knows only this face of it, which the
// resource manager installs in its slot (vesk_service<vesk_toolnet_diag>).
#ifndef VESK_UTILITY_TOOLNET_DIAG_H
#define VESK_UTILITY_TOOLNET_DIAG_H

#include "vesk_utility_types.h"

namespace vesk_utility
{

class vesk_toolnet_diag
{
public:
    // 1 UDP socket list, 2 TCP listener and connection list, 3/4 UDP debug lines on/off,
    // 5/6 TCP debug lines on/off. The timer's commands 3 to 8 arrive here as 1 to 6.
    virtual vesk_soft::VESK_ERR toolnet_diagnose(int para, vesk_soft::print_fn print) = 0;

protected:
    ~vesk_toolnet_diag() = default;
};

} // namespace vesk_utility

#endif // VESK_UTILITY_TOOLNET_DIAG_H
