// vesk_utility_coordinate - resolution-independent geometry of analytics rules: fractions of
// the picture converted to and from pixels, and the validity test of a rectangle.
#include "vesk_utility_media.h"

namespace vesk_soft
{

namespace
{

// value / full scale of the picture's `size` pixels; unsigned 32-bit, the product may wrap.
inline int32_t to_pixels(uint32_t value, uint32_t size, uint32_t full)
{
    return static_cast<int32_t>(value * size / full);
}

// a/b + c/d without reduction: (a + c)/b when b == d, else (ad + cb)/(bd). Unsigned 32-bit,
// so large full scales wrap exactly as on the board.
struct fraction {
    uint32_t num;
    uint32_t den;
};

inline fraction fraction_sum(uint32_t a, uint32_t b, uint32_t c, uint32_t d)
{
    if (b == d)
        return {a + c, b};
    return {a * d + c * b, b * d};
}

} // namespace

VESK_ERR vesk_utility_abs_to_real_point(
    unsigned width, unsigned height, const vesk_abstract_point* abs, vesk_real_point* real)
{
    if (abs == nullptr || real == nullptr)
        return VESK_ERR_INVALID_PARAM;
    if (abs->x_full == 0 || abs->y_full == 0 || abs->x > abs->x_full || abs->y > abs->y_full)
        return VESK_ERR_INVALID_PARAM;
    real->x = to_pixels(abs->x, width, abs->x_full);
    real->y = to_pixels(abs->y, height, abs->y_full);
    return VESK_OK;
}

VESK_ERR vesk_utility_real_to_abs_point(
    unsigned width, unsigned height, vesk_abstract_point* abs, const vesk_real_point* real)
{
    if (abs == nullptr || real == nullptr)
        return VESK_ERR_INVALID_PARAM;
    *abs = {static_cast<uint32_t>(real->x), width, static_cast<uint32_t>(real->y), height};
    return VESK_OK;
}

VESK_ERR vesk_utility_abs_to_real_rect(
    unsigned width, unsigned height, const vesk_abstract_rect* abs, vesk_real_rect* real)
{
    if (abs == nullptr || real == nullptr)
        return VESK_ERR_INVALID_PARAM;
    if (abs->x_full == 0 || abs->y_full == 0 || abs->w_full == 0 || abs->h_full == 0)
        return VESK_ERR_INVALID_PARAM;
    real->x = to_pixels(abs->x, width, abs->x_full);
    real->y = to_pixels(abs->y, height, abs->y_full);
    real->w = to_pixels(abs->w, width, abs->w_full);
    real->h = to_pixels(abs->h, height, abs->h_full);
    return VESK_OK;
}

VESK_ERR vesk_utility_real_to_abs_rect(
    unsigned width, unsigned height, vesk_abstract_rect* abs, const vesk_real_rect* real)
{
    if (abs == nullptr || real == nullptr)
        return VESK_ERR_INVALID_PARAM;
    *abs = {static_cast<uint32_t>(real->x), width, static_cast<uint32_t>(real->y), height,
        static_cast<uint32_t>(real->w), width, static_cast<uint32_t>(real->h), height};
    return VESK_OK;
}

VESK_BOOL vesk_utility_is_valid_abs(const vesk_abstract_rect* abs)
{
    if (abs == nullptr)
        return 0;
    if (abs->x_full == 0 || abs->y_full == 0 || abs->w_full == 0 || abs->h_full == 0)
        return 0;
    if (abs->x > abs->x_full || abs->y > abs->y_full || abs->w > abs->w_full || abs->h > abs->h_full)
        return 0;
    const fraction right = fraction_sum(abs->x, abs->x_full, abs->w, abs->w_full);
    if (right.num > right.den)
        return 0;
    const fraction bottom = fraction_sum(abs->y, abs->y_full, abs->h, abs->h_full);
    return bottom.num <= bottom.den ? 1 : 0;
}

} // namespace vesk_soft
