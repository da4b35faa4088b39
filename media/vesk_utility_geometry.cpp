// vesk_utility_geometry - the rule tests of video analytics on the 1000 x 1000 grid: trip-wire
// crossing, point in region, region-of-interest edits, split-screen panes and wire arrows.
// Exact integer arithmetic: coordinates below 2^30 keep every product of differences in int64.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "vesk_utility_media.h"

namespace vesk_soft
{

namespace
{

inline bool in_range(const vesk_real_point& p)
{
    return std::llabs(p.x) < VESK_RULE_COORD_LIMIT && std::llabs(p.y) < VESK_RULE_COORD_LIMIT;
}

// Sign of the cross product (b - a) x (p - a): > 0 when p lies right of a -> b on the screen
// (y down), < 0 left, 0 on the line.
inline int side(const vesk_real_point& a, const vesk_real_point& b, const vesk_real_point& p)
{
    const int64_t v = (int64_t(b.x) - a.x) * (int64_t(p.y) - a.y) - (int64_t(b.y) - a.y) * (int64_t(p.x) - a.x);
    return (v > 0) - (v < 0);
}

inline bool same(const vesk_real_point& a, const vesk_real_point& b)
{
    return a.x == b.x && a.y == b.y;
}

// p strictly between a and b, given that the three are collinear.
inline bool strictly_between(const vesk_real_point& a, const vesk_real_point& b, const vesk_real_point& p)
{
    const int64_t da = (int64_t(p.x) - a.x) * (int64_t(b.x) - a.x) + (int64_t(p.y) - a.y) * (int64_t(b.y) - a.y);
    const int64_t db = (int64_t(p.x) - b.x) * (int64_t(a.x) - b.x) + (int64_t(p.y) - b.y) * (int64_t(a.y) - b.y);
    return da > 0 && db > 0;
}

// p on the closed segment a-b.
inline bool on_segment(const vesk_real_point& a, const vesk_real_point& b, const vesk_real_point& p)
{
    if (side(a, b, p) != 0)
        return false;
    return std::min(a.x, b.x) <= p.x && p.x <= std::max(a.x, b.x) && std::min(a.y, b.y) <= p.y
        && p.y <= std::max(a.y, b.y);
}

// `from_side` is the side of the wire the track starts on (-1 left, +1 right).
inline bool direction_matches(int from_side, vesk_cross_dir dir)
{
    if (dir == VESK_CROSS_ANY)
        return true;
    return dir == (from_side < 0 ? VESK_CROSS_LEFT_TO_RIGHT : VESK_CROSS_RIGHT_TO_LEFT);
}

// A rectangle on the grid: [left, right) x [top, bottom), all within 0..VESK_RULE_GRID.
struct grid_rect {
    int64_t left, top, right, bottom;
};

// REQUIRES: vesk_utility_is_valid_abs(&abs). Each value at most its full scale, so each
// coordinate lies in 0..VESK_RULE_GRID; the far edges are clamped because the validity test's
// 32-bit sums may wrap and pass a rectangle that overhangs.
grid_rect to_grid(const vesk_abstract_rect& abs)
{
    auto g = [](uint32_t v, uint32_t full) { return int64_t(uint64_t(v) * VESK_RULE_GRID / full); };
    grid_rect r;
    r.left = g(abs.x, abs.x_full);
    r.top = g(abs.y, abs.y_full);
    r.right = std::min<int64_t>(VESK_RULE_GRID, r.left + g(abs.w, abs.w_full));
    r.bottom = std::min<int64_t>(VESK_RULE_GRID, r.top + g(abs.h, abs.h_full));
    return r;
}

void from_grid(const grid_rect& r, vesk_abstract_rect* abs)
{
    const uint32_t full = VESK_RULE_GRID;
    *abs = {uint32_t(r.left), full, uint32_t(r.top), full, uint32_t(r.right - r.left), full,
        uint32_t(r.bottom - r.top), full};
}

// Shrinks [lo, hi) by step at both ends, or to VESK_ROI_MIN_SIZE around its centre.
void reduce_side(int64_t& lo, int64_t& hi, int64_t step)
{
    const int64_t len = hi - lo;
    const int64_t min = VESK_ROI_MIN_SIZE;
    if (len >= 2 * step + min) {
        lo += step;
        hi -= step;
    } else if (len > min) {
        lo = (lo + hi - min) / 2; // non-negative, so the division rounds down
        hi = lo + min;
    }
}

void move_side(int64_t& lo, int64_t& hi, int64_t d)
{
    const int64_t len = hi - lo;
    lo = std::min<int64_t>(std::max<int64_t>(lo + d, 0), VESK_RULE_GRID - len);
    hi = lo + len;
}

} // namespace

VESK_BOOL vesk_utility_is_cross_line(const vesk_real_point* from, const vesk_real_point* to,
    const vesk_real_point* wire, unsigned count, vesk_cross_dir dir)
{
    if (from == nullptr || to == nullptr || wire == nullptr || count < 2)
        return 0;
    if (!in_range(*from) || !in_range(*to))
        return 0;
    for (unsigned i = 0; i < count; ++i)
        if (!in_range(wire[i]))
            return 0;
    if (same(*from, *to))
        return 0;

    // Proper crossings of one segment: O(count).
    for (unsigned i = 0; i + 1 < count; ++i) {
        const vesk_real_point& a = wire[i];
        const vesk_real_point& b = wire[i + 1];
        const int s_from = side(a, b, *from);
        const int s_to = side(a, b, *to);
        if (s_from * s_to >= 0)
            continue;
        if (side(*from, *to, a) * side(*from, *to, b) >= 0)
            continue;
        if (direction_matches(s_from, dir))
            return 1;
    }
    // Through an inner vertex: the neighbouring points (skipping repeats of the vertex) must lie
    // strictly on opposite sides of the track; the direction is read against their chord.
    for (unsigned i = 1; i + 1 < count; ++i) {
        const vesk_real_point& v = wire[i];
        if (side(*from, *to, v) != 0 || !strictly_between(*from, *to, v))
            continue;
        unsigned p = i, n = i;
        while (p > 0 && same(wire[p], v))
            --p;
        while (n + 1 < count && same(wire[n], v))
            ++n;
        if (same(wire[p], v) || same(wire[n], v))
            continue;
        if (side(*from, *to, wire[p]) * side(*from, *to, wire[n]) >= 0)
            continue;
        int s_from = side(wire[p], wire[n], *from);
        if (s_from == 0)
            s_from = -side(wire[p], wire[n], *to);
        if (direction_matches(s_from, dir))
            return 1;
    }
    return 0;
}

VESK_BOOL vesk_utility_is_point_in_region(const vesk_real_point* pt, const vesk_real_point* region, unsigned count)
{
    if (pt == nullptr || region == nullptr || count < 3 || !in_range(*pt))
        return 0;
    for (unsigned i = 0; i < count; ++i)
        if (!in_range(region[i]))
            return 0;
    bool inside = false;
    for (unsigned i = 0, j = count - 1; i < count; j = i++) {
        const vesk_real_point& a = region[j];
        const vesk_real_point& b = region[i];
        if (on_segment(a, b, *pt))
            return 1;
        // A ray to the right of pt; an edge counts when it spans pt's row half-open (its lower
        // end on the screen included), so a vertex on the ray is counted once.
        if ((a.y > pt->y) != (b.y > pt->y)) {
            const int s = side(a, b, *pt);
            if (b.y > a.y ? s > 0 : s < 0)
                inside = !inside;
        }
    }
    return inside ? 1 : 0;
}

VESK_ERR vesk_utility_roi_enlarge(vesk_abstract_rect* roi, uint32_t step)
{
    if (roi == nullptr || !vesk_utility_is_valid_abs(roi))
        return VESK_ERR_INVALID_PARAM;
    grid_rect r = to_grid(*roi);
    r.left = std::max<int64_t>(0, r.left - step);
    r.top = std::max<int64_t>(0, r.top - step);
    r.right = std::min<int64_t>(VESK_RULE_GRID, r.right + step);
    r.bottom = std::min<int64_t>(VESK_RULE_GRID, r.bottom + step);
    from_grid(r, roi);
    return VESK_OK;
}

VESK_ERR vesk_utility_roi_reduce(vesk_abstract_rect* roi, uint32_t step)
{
    if (roi == nullptr || !vesk_utility_is_valid_abs(roi))
        return VESK_ERR_INVALID_PARAM;
    grid_rect r = to_grid(*roi);
    reduce_side(r.left, r.right, step);
    reduce_side(r.top, r.bottom, step);
    from_grid(r, roi);
    return VESK_OK;
}

VESK_ERR vesk_utility_roi_move(vesk_abstract_rect* roi, int32_t dx, int32_t dy)
{
    if (roi == nullptr || !vesk_utility_is_valid_abs(roi))
        return VESK_ERR_INVALID_PARAM;
    grid_rect r = to_grid(*roi);
    move_side(r.left, r.right, dx);
    move_side(r.top, r.bottom, dy);
    from_grid(r, roi);
    return VESK_OK;
}

VESK_ERR vesk_utility_abs_to_window_rect(const vesk_abstract_rect* abs, const vesk_real_rect* window, vesk_real_rect* out)
{
    if (abs == nullptr || window == nullptr || out == nullptr || !vesk_utility_is_valid_abs(abs))
        return VESK_ERR_INVALID_PARAM;
    if (window->x < 0 || window->y < 0 || window->w <= 0 || window->h <= 0)
        return VESK_ERR_INVALID_PARAM;
    auto scale = [](uint32_t v, uint32_t full, int32_t size) { return int64_t(uint64_t(v) * uint32_t(size) / full); };
    const int64_t x = window->x + scale(abs->x, abs->x_full, window->w);
    const int64_t y = window->y + scale(abs->y, abs->y_full, window->h);
    const int64_t w = scale(abs->w, abs->w_full, window->w);
    const int64_t h = scale(abs->h, abs->h_full, window->h);
    if (x + w > INT32_MAX || y + h > INT32_MAX)
        return VESK_ERR_INVALID_PARAM;
    *out = {int32_t(x), int32_t(y), int32_t(w), int32_t(h)};
    return VESK_OK;
}

VESK_ERR vesk_utility_get_line_arrow(
    const vesk_real_point* a, const vesk_real_point* b, vesk_cross_dir dir, uint32_t length, vesk_line_arrow* arrow)
{
    if (a == nullptr || b == nullptr || arrow == nullptr || !in_range(*a) || !in_range(*b) || same(*a, *b))
        return VESK_ERR_INVALID_PARAM;
    if (length == 0 || length > uint32_t(VESK_RULE_COORD_LIMIT)
        || (dir != VESK_CROSS_LEFT_TO_RIGHT && dir != VESK_CROSS_RIGHT_TO_LEFT))
        return VESK_ERR_INVALID_PARAM;
    // Doubles here: the arrow is drawn, not tested, and a square root is needed; IEEE doubles
    // hold every coordinate exactly and round the same way on the board and on a host.
    const double dx = double(b->x) - a->x;
    const double dy = double(b->y) - a->y;
    const double norm = std::sqrt(dx * dx + dy * dy);
    const double tx = dx / norm, ty = dy / norm; // along the wire
    const double sign = dir == VESK_CROSS_LEFT_TO_RIGHT ? 1.0 : -1.0;
    const double nx = -ty * sign, ny = tx * sign; // towards the side the crossing ends on
    const double mx = (double(a->x) + b->x) / 2, my = (double(a->y) + b->y) / 2;
    const double len = length;
    auto at = [&](double along_n, double along_t) {
        return vesk_real_point {int32_t(std::llround(mx + nx * along_n + tx * along_t)),
            int32_t(std::llround(my + ny * along_n + ty * along_t))};
    };
    arrow->tail = at(0, 0);
    arrow->tip = at(len, 0);
    arrow->wing_a = at(len * 2 / 3, len / 3);
    arrow->wing_b = at(len * 2 / 3, -len / 3);
    return VESK_OK;
}

} // namespace vesk_soft
