// vesk_utility_base - the generic helpers: min/max/middle/interval, bits, sleep, and the ring
// buffer over a caller's byte array. None needs the library to be initialised.
#include <time.h>

#include <cerrno>
#include <cstring>

#include "vesk_utility_core.h"
#include "core/vesk_utility_log.h"

namespace vesk_soft {

int vesk_utility_min(int a, int b)
{
    return a < b ? a : b;
}

unsigned vesk_utility_min(unsigned a, unsigned b)
{
    return a < b ? a : b;
}

int vesk_utility_max(int a, int b)
{
    return a > b ? a : b;
}

unsigned vesk_utility_max(unsigned a, unsigned b)
{
    return a > b ? a : b;
}

int vesk_utility_middle(int value, int low, int high)
{
    if (value < low)
        return low;
    if (value >= high)
        return high;
    return value;
}

unsigned vesk_utility_middle(unsigned value, unsigned low, unsigned high)
{
    if (value < low)
        return low;
    if (value >= high)
        return high;
    return value;
}

unsigned vesk_utility_cnt_interval(int a, int b)
{
    return a > b ? static_cast<unsigned>(a) - static_cast<unsigned>(b)
                 : static_cast<unsigned>(b) - static_cast<unsigned>(a);
}

unsigned long vesk_utility_cnt_interval(long a, long b)
{
    return a > b ? static_cast<unsigned long>(a) - static_cast<unsigned long>(b)
                 : static_cast<unsigned long>(b) - static_cast<unsigned long>(a);
}

unsigned vesk_utility_cnt_interval(unsigned a, unsigned b)
{
    const unsigned d = a > b ? a - b : b - a;
    // A distance this large is a counter that wrapped past zero; the complement is one less
    // than the true wrap distance, and callers rely on exactly that value.
    return d > 0xF0000000u ? ~d : d;
}

bool vesk_utility_tst_bit(unsigned v, unsigned n)
{
    return ((v >> n) & 1u) != 0;
}

void vesk_utility_set_bit(unsigned& v, unsigned n)
{
    v |= 1u << n;
}

void vesk_utility_clr_bit(unsigned& v, unsigned n)
{
    v &= ~(1u << n);
}

void vesk_utility_sleep_ms(unsigned ms)
{
    timespec ts = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

// ---- Ring buffer -------------------------------------------------------------------------

VESK_ERR vesk_utility_add_circle_data(char* pool, unsigned pool_size, unsigned& wr, unsigned rd, const char* data,
                                      unsigned len)
{
    if (wr >= pool_size) {
        VESK_ERR_FN("pool_size = %d, pool_wr_pos = %d, pool_rd_pos = %d overflow!\n", pool_size, wr, rd);
        return VESK_ERR_OPERATE_FAIL;
    }
    // Unsigned on purpose: with wr == rd this wraps to the largest value, so an empty ring
    // takes any length; callers keep len below pool_size.
    unsigned empty_size = rd - 1 - wr;
    if (rd < wr)
        empty_size += pool_size;
    if (empty_size < len) {
        VESK_ERR_FN("pool_size = %d, pool_wr_pos = %d, pool_rd_pos = %d, empty_size = %d, len = %d\n", pool_size, wr,
                    rd, empty_size, len);
        return VESK_ERR_OPERATE_FAIL;
    }
    if (wr + len > pool_size) {
        const unsigned first = pool_size - wr;
        memcpy(pool + wr, data, first);
        memcpy(pool, data + first, len - first);
    } else {
        memcpy(pool + wr, data, len);
    }
    wr = (wr + len) % pool_size;
    return VESK_OK;
}

VESK_ERR vesk_utility_del_circle_data(char* pool, unsigned pool_size, unsigned wr, unsigned& rd, unsigned len)
{
    (void)pool;
    if (wr >= pool_size) {
        VESK_ERR_FN("pool_size = %d, pool_wr_pos = %d, pool_rd_pos = %d overflow!\n", pool_size, wr, rd);
        return VESK_ERR_OPERATE_FAIL;
    }
    const unsigned valid_size = rd > wr ? pool_size - rd + wr : wr - rd;
    if (valid_size < len) {
        VESK_ERR_FN("pool_size = %d, pool_wr_pos = %d, pool_rd_pos = %d, valid_size = %d, len = %d\n", pool_size, wr,
                    rd, valid_size, len);
        return VESK_ERR_OPERATE_FAIL;
    }
    rd = (rd + len) % pool_size;
    return VESK_OK;
}

void vesk_utility_fetch_circle_data(char* pool, unsigned pool_size, unsigned wr, unsigned rd, char*& p1,
                                    unsigned& len1, char*& p2, unsigned& len2)
{
    p1 = p2 = nullptr;
    len1 = len2 = 0;
    if (wr >= pool_size) {
        VESK_ERR_FN("pool_size = %d, pool_wr_pos = %d, pool_rd_pos = %d overflow!\n", pool_size, wr, rd);
        return;
    }
    if (wr == rd)
        return;
    p1 = pool + rd;
    if (rd < wr) {
        len1 = wr - rd;
    } else {
        len1 = pool_size - rd;
        if (wr != 0) {
            p2 = pool;
            len2 = wr;
        }
    }
}

}  // namespace vesk_soft
