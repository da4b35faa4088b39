// The analytics grid: coordinate conversions and validity, the boundary rules of the line and
// region tests, region-of-interest edits, panes and arrows, and random cases against GEOS.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "vesk_utility.h"

#ifdef VESK_HAVE_GEOS
#include <geos_c.h>
#endif

using namespace vesk_soft;

namespace
{

using pts = std::vector<vesk_real_point>;

VESK_BOOL cross(vesk_real_point from, vesk_real_point to, const pts& wire, vesk_cross_dir dir = VESK_CROSS_ANY)
{
    return vesk_utility_is_cross_line(&from, &to, wire.data(), unsigned(wire.size()), dir);
}

} // namespace

TEST(CoordinateTest, ConversionsScaleAndCheckEachFraction)
{
    // A full fraction is the edge itself, not the last pixel; division truncates.
    const struct {
        int w, h;
        vesk_abstract_point p;
        int x, y;
    } rows[] = {{1920, 1080, {5, 10, 3, 4}, 960, 810}, {704, 576, {7, 7, 2, 3}, 704, 384}, {100, 100, {1, 3, 1, 3}, 33, 33}};
    vesk_real_point real = {-1, -1};
    for (const auto& r : rows) {
        ASSERT_EQ(vesk_utility_abs_to_real_point(r.w, r.h, &r.p, &real), VESK_OK);
        EXPECT_TRUE(real.x == r.x && real.y == r.y) << r.w << ": " << real.x << "," << real.y;
    }
    real = {2000, 540};
    for (const vesk_abstract_point bad : {vesk_abstract_point {1, 0, 1, 2}, {1, 2, 1, 0}, {3, 2, 1, 2}, {1, 2, 5, 4}})
        EXPECT_EQ(vesk_utility_abs_to_real_point(1920, 1080, &bad, &real), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_abs_to_real_point(1920, 1080, nullptr, &real), VESK_ERR_INVALID_PARAM);
    // Back to abstract: stored as given (left untouched above), no reduction and no range check.
    vesk_abstract_point back = {};
    ASSERT_EQ(vesk_utility_real_to_abs_point(1920, 1080, &back, &real), VESK_OK);
    EXPECT_TRUE(back.x == 2000 && back.x_full == 1920 && back.y == 540 && back.y_full == 1080);

    // Rectangles refuse only zero full scales; one larger than its scale lies outside the picture.
    vesk_real_rect px = {};
    const vesk_abstract_rect quarter = {1, 4, 1, 2, 1, 2, 1, 4}, wide = {3, 2, 0, 1, 2, 1, 1, 1};
    ASSERT_EQ(vesk_utility_abs_to_real_rect(1920, 1080, &quarter, &px), VESK_OK);
    EXPECT_TRUE(px.x == 480 && px.y == 540 && px.w == 960 && px.h == 270);
    ASSERT_EQ(vesk_utility_abs_to_real_rect(1000, 500, &wide, &px), VESK_OK);
    EXPECT_TRUE(px.x == 1500 && px.y == 0 && px.w == 2000 && px.h == 500);
    for (int zero = 0; zero < 4; ++zero) {
        vesk_abstract_rect bad = {1, 2, 1, 2, 1, 2, 1, 2};
        (&bad.x_full)[2 * zero] = 0;
        EXPECT_EQ(vesk_utility_abs_to_real_rect(1920, 1080, &bad, &px), VESK_ERR_INVALID_PARAM) << zero;
    }
    vesk_abstract_rect abs_rect = {};
    const vesk_real_rect orig = {10, 20, 30, 40};
    ASSERT_EQ(vesk_utility_real_to_abs_rect(640, 480, &abs_rect, &orig), VESK_OK);
    const vesk_abstract_rect want_abs = {10, 640, 20, 480, 30, 640, 40, 480};
    EXPECT_EQ(memcmp(&abs_rect, &want_abs, sizeof(want_abs)), 0);
}

TEST(CoordinateTest, ValidityChecksScalesValuesAndBothEdges)
{
    // The sums are unsigned 32-bit products, unreduced, and may wrap: the first wrapping row passes
    // the edge yet reads "valid", the second lies inside yet its wrapped denominator is too small.
    const struct {
        vesk_abstract_rect r;
        int valid;
    } rows[] = {{{1, 2, 0, 1, 1, 2, 1, 1}, 1}, {{1, 2, 0, 1, 2, 3, 1, 1}, 0}, {{1, 3, 1, 4, 2, 3, 3, 4}, 1},
        {{0, 1, 1, 4, 1, 1, 4, 5}, 0}, {{0, 1, 0, 0, 0, 1, 0, 1}, 0}, {{0, 1, 0, 1, 0, 1, 2, 1}, 0},
        {{3, 2, 0, 1, 2, 1, 1, 1}, 0}, {{65536, 131072, 0, 1, 131072, 131073, 1, 1}, 1},
        {{0, 65536, 0, 1, 65534, 65537, 1, 1}, 0}};
    for (const auto& row : rows)
        EXPECT_EQ(vesk_utility_is_valid_abs(&row.r), row.valid) << &row - rows;
    EXPECT_EQ(vesk_utility_is_valid_abs(nullptr), 0);
}

TEST(GeometryTest, CrossLineBoundaryRulesAndDirections)
{
    const int32_t m = VESK_RULE_COORD_LIMIT - 1;
    const pts wire = {{0, 500}, {1000, 500}}; // its right side is below (y > 500)
    const pts vee = {{0, 0}, {500, 500}, {1000, 0}}, zig = {{0, 400}, {500, 500}, {1000, 600}};
    const pts twice = {{0, 400}, {500, 500}, {500, 500}, {1000, 600}}, zz = {{0, 0}, {100, 1000}, {200, 0}};
    const pts huge = {{-m, m}, {m, -m}};
    const struct {
        vesk_real_point from, to;
        const pts* w;
        int any, l2r, r2l;
    } rows[] = {
        {{500, 100}, {500, 900}, &wire, 1, 1, 0}, // downwards: left to right
        {{500, 900}, {500, 100}, &wire, 1, 0, 1}, // upwards
        {{500, 100}, {500, 500}, &wire, 0, 0, 0}, // ends on the wire: touches
        {{500, 500}, {500, 900}, &wire, 0, 0, 0}, // starts on it
        {{100, 500}, {900, 500}, &wire, 0, 0, 0}, // slides along it
        {{0, 100}, {0, 900}, &wire, 0, 0, 0},     // through the wire's end
        {{-1, 100}, {-1, 900}, &wire, 0, 0, 0},   // just past it
        {{100, 100}, {200, 400}, &wire, 0, 0, 0}, // short of it
        {{500, 500}, {500, 500}, &wire, 0, 0, 0}, // a standing track
        {{500, -VESK_RULE_COORD_LIMIT}, {500, 900}, &wire, 0, 0, 0}, // out of range
        {{100, 500}, {900, 500}, &vee, 0, 0, 0},  // touches the vertex where the wire turns back
        {{500, 900}, {500, 100}, &vee, 1, 0, 1},  // passes through that vertex into the vee
        {{250, 900}, {250, 100}, &vee, 1, 0, 1},  // a proper crossing of the vee's first leg
        {{500, 100}, {500, 900}, &zig, 1, 1, 0},  // through an inner vertex, counted
        {{500, 900}, {500, 100}, &zig, 1, 0, 1},
        {{500, 100}, {500, 900}, &twice, 1, 1, 0}, // a repeated vertex does not hide it
        {{0, 500}, {200, 500}, &zz, 1, 1, 1},     // crossed twice each way: either direction
        {{-m, -m}, {m, m}, &huge, 1, 1, 0},       // the largest coordinates do not overflow
    };
    for (const auto& r : rows) {
        EXPECT_EQ(cross(r.from, r.to, *r.w), r.any) << &r - rows;
        EXPECT_EQ(cross(r.from, r.to, *r.w, VESK_CROSS_LEFT_TO_RIGHT), r.l2r) << &r - rows;
        EXPECT_EQ(cross(r.from, r.to, *r.w, VESK_CROSS_RIGHT_TO_LEFT), r.r2l) << &r - rows;
    }
    const vesk_real_point p = {500, 100}, q = {500, 900};
    EXPECT_EQ(vesk_utility_is_cross_line(&p, &q, wire.data(), 1, VESK_CROSS_ANY), 0);
    EXPECT_EQ(vesk_utility_is_cross_line(nullptr, &q, wire.data(), 2, VESK_CROSS_ANY), 0);
}

TEST(GeometryTest, PointInRegionEvenOddWithClosedEdges)
{
    const pts square = {{100, 100}, {900, 100}, {900, 900}, {100, 900}};
    const pts notch = {{0, 0}, {1000, 0}, {1000, 1000}, {500, 500}, {0, 1000}}; // concave
    const pts star = {{500, 0}, {800, 1000}, {0, 350}, {1000, 350}, {200, 1000}}; // self-crossing
    const struct {
        vesk_real_point p;
        const pts* region;
        int in;
    } rows[] = {
        {{500, 500}, &square, 1}, {{100, 500}, &square, 1}, {{900, 900}, &square, 1}, {{99, 500}, &square, 0},
        {{500, 99}, &square, 0}, {{500, 700}, &notch, 0}, {{500, 400}, &notch, 1}, {{300, 1000}, &notch, 0},
        {{500, 500}, &star, 0}, // the pentagon in the middle is covered twice: outside by even-odd
        {{500, 100}, &star, 1}, // a tip, covered once
        {{500, 350}, &star, 1}, // on an edge
    };
    for (const auto& r : rows)
        EXPECT_EQ(vesk_utility_is_point_in_region(&r.p, r.region->data(), unsigned(r.region->size())), r.in) << &r - rows;
    EXPECT_EQ(vesk_utility_is_point_in_region(&square[0], square.data(), 2), 0);
    EXPECT_EQ(vesk_utility_is_point_in_region(nullptr, square.data(), 4), 0);
}

TEST(GeometryTest, RoiEditsClampToThePictureAndStayValid)
{
    const uint32_t g = VESK_RULE_GRID;
    auto grid = [g](uint32_t x, uint32_t y, uint32_t w, uint32_t h) { return vesk_abstract_rect {x, g, y, g, w, g, h, g}; };
    auto edit = [](vesk_abstract_rect* roi, int op, int32_t a, int32_t b) {
        return op == 0 ? vesk_utility_roi_enlarge(roi, uint32_t(a))
            : op == 1  ? vesk_utility_roi_reduce(roi, uint32_t(a))
                       : vesk_utility_roi_move(roi, a, b);
    };
    const struct {
        int op; // 0 enlarge, 1 reduce, 2 move
        vesk_abstract_rect in;
        int32_t a, b;
        vesk_abstract_rect out;
    } rows[] = {
        {0, grid(100, 100, 200, 200), 50, 0, grid(50, 50, 300, 300)},
        {0, grid(20, 950, 100, 50), 50, 0, grid(0, 900, 170, 100)},     // stops at two edges
        {0, {1, 3, 1, 4, 1, 3, 1, 2}, 0, 0, grid(333, 250, 333, 500)},  // rewritten on the grid
        {1, grid(100, 100, 200, 200), 50, 0, grid(150, 150, 100, 100)},
        {1, grid(100, 100, 20, 9), 10, 0, grid(106, 100, 8, 8)},        // to the minimum, centred
        {1, grid(100, 100, 5, 500), 10, 0, grid(100, 110, 5, 480)},     // a short side stays
        {2, grid(100, 100, 200, 200), 30, -40, grid(130, 60, 200, 200)},
        {2, grid(100, 100, 200, 200), 5000, -5000, grid(800, 0, 200, 200)},
        {2, grid(0, 0, 1000, 1000), 1, 1, grid(0, 0, 1000, 1000)},
    };
    for (const auto& r : rows) {
        vesk_abstract_rect roi = r.in;
        ASSERT_EQ(edit(&roi, r.op, r.a, r.b), VESK_OK) << &r - rows;
        EXPECT_EQ(memcmp(&roi, &r.out, sizeof(roi)), 0) << &r - rows << ": " << roi.x << "," << roi.y << " " << roi.w << "x" << roi.h;
    }
    vesk_abstract_rect bad = {1, 2, 0, 1, 2, 3, 1, 1}; // passes the right edge
    const vesk_abstract_rect keep = bad;
    EXPECT_EQ(vesk_utility_roi_enlarge(&bad, 1), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_roi_move(nullptr, 1, 1), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(memcmp(&bad, &keep, sizeof(bad)), 0);
    // Random edit chains on random valid rectangles never leave a rectangle invalid.
    std::mt19937 rng(23);
    std::uniform_int_distribution<uint32_t> coord(0, 1000), op(0, 2), step(0, 1200);
    std::uniform_int_distribution<int32_t> delta(-1500, 1500);
    for (int i = 0; i < 20000; ++i) {
        const uint32_t x = coord(rng), y = coord(rng);
        vesk_abstract_rect roi = grid(x, y, coord(rng) % (1001 - x), coord(rng) % (1001 - y));
        for (int k = 0; k < 4; ++k) {
            const int o = int(op(rng));
            ASSERT_EQ(edit(&roi, o, o == 2 ? delta(rng) : int32_t(step(rng)), delta(rng)), VESK_OK);
            ASSERT_EQ(vesk_utility_is_valid_abs(&roi), 1) << roi.x << "," << roi.y << " " << roi.w << "x" << roi.h;
        }
    }
}

TEST(GeometryTest, WindowRectsAndArrows)
{
    // The right half of the lower right pane of a 2 x 2 split of 1920 x 1080; thirds truncate.
    const vesk_real_rect pane = {960, 540, 960, 540}, square = {0, 0, 100, 100}, empty = {0, 0, 0, 100};
    const vesk_abstract_rect half = {1, 2, 0, 1, 1, 2, 1, 1}, third = {1, 3, 1, 3, 1, 3, 1, 3}, over = {1, 2, 0, 1, 2, 3, 1, 1};
    vesk_real_rect out = {};
    ASSERT_EQ(vesk_utility_abs_to_window_rect(&half, &pane, &out), VESK_OK);
    EXPECT_TRUE(out.x == 1440 && out.y == 540 && out.w == 480 && out.h == 540);
    ASSERT_EQ(vesk_utility_abs_to_window_rect(&third, &square, &out), VESK_OK);
    EXPECT_TRUE(out.x == 33 && out.y == 33 && out.w == 33 && out.h == 33);
    EXPECT_EQ(vesk_utility_abs_to_window_rect(&half, &empty, &out), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_abs_to_window_rect(&over, &pane, &out), VESK_ERR_INVALID_PARAM);

    // A wire to the right: left-to-right crossings end below it, so the arrow points down. On a
    // diagonal wire the other way, the tip is where a right-to-left track ends.
    const vesk_real_point a = {100, 500}, b = {700, 500}, c = {0, 0}, d = {300, 400};
    vesk_line_arrow arrow = {};
    ASSERT_EQ(vesk_utility_get_line_arrow(&a, &b, VESK_CROSS_LEFT_TO_RIGHT, 90, &arrow), VESK_OK);
    const vesk_line_arrow down = {{400, 500}, {400, 590}, {430, 560}, {370, 560}};
    EXPECT_EQ(memcmp(&arrow, &down, sizeof(arrow)), 0) << arrow.tip.x << "," << arrow.tip.y;
    ASSERT_EQ(vesk_utility_get_line_arrow(&c, &d, VESK_CROSS_RIGHT_TO_LEFT, 100, &arrow), VESK_OK);
    EXPECT_TRUE(arrow.tail.x == 150 && arrow.tail.y == 200 && arrow.tip.x == 230 && arrow.tip.y == 140) << arrow.tip.x;
    EXPECT_EQ(cross({70, 260}, arrow.tip, {c, d}, VESK_CROSS_RIGHT_TO_LEFT), 1);
    EXPECT_EQ(vesk_utility_get_line_arrow(&c, &c, VESK_CROSS_LEFT_TO_RIGHT, 10, &arrow), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_get_line_arrow(&c, &d, VESK_CROSS_ANY, 10, &arrow), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_get_line_arrow(&c, &d, VESK_CROSS_LEFT_TO_RIGHT, 0, &arrow), VESK_ERR_INVALID_PARAM);
}

#ifdef VESK_HAVE_GEOS
namespace
{

// A line string, or a polygon (closed by repeating the first point).
GEOSGeometry* geos_of(GEOSContextHandle_t h, const pts& p, bool ring)
{
    GEOSCoordSequence* seq = GEOSCoordSeq_create_r(h, unsigned(p.size() + ring), 2);
    for (size_t i = 0; i < p.size() + ring; ++i)
        GEOSCoordSeq_setXY_r(h, seq, unsigned(i), p[i % p.size()].x, p[i % p.size()].y);
    return ring ? GEOSGeom_createPolygon_r(h, GEOSGeom_createLinearRing_r(h, seq), nullptr, 0)
                : GEOSGeom_createLineString_r(h, seq);
}

bool collinear(vesk_real_point a, vesk_real_point b, vesk_real_point p)
{
    return (int64_t(b.x) - a.x) * (int64_t(p.y) - a.y) == (int64_t(b.y) - a.y) * (int64_t(p.x) - a.x);
}

} // namespace

// Random tracks against random wires (cases on a boundary, any three points collinear, are left
// out: the tables above pin our rules there), and random points against random simple polygons,
// where GEOS's closed containment is our rule.
TEST(GeometryTest, AgreesWithGeosOnRandomCases)
{
    GEOSContextHandle_t h = GEOS_init_r();
    std::mt19937 rng(2023);
    std::uniform_int_distribution<int32_t> coord(0, 1000), nseg(1, 4), nvert(3, 6);
    int crossings = 0, compared = 0, inside = 0;
    for (int i = 0; i < 60000; ++i) {
        const vesk_real_point from = {coord(rng), coord(rng)}, to = {coord(rng), coord(rng)};
        pts wire(size_t(nseg(rng)) + 1), poly(size_t(nvert(rng)));
        for (auto* v : {&wire, &poly})
            for (auto& p : *v)
                p = {coord(rng), coord(rng)};
        bool boundary = from.x == to.x && from.y == to.y;
        for (size_t k = 0; k < wire.size(); ++k)
            boundary = boundary || collinear(from, to, wire[k])
                || (k + 1 < wire.size() && (collinear(wire[k], wire[k + 1], from) || collinear(wire[k], wire[k + 1], to)));
        GEOSGeometry *track = geos_of(h, {from, to}, false), *w = geos_of(h, wire, false), *g = geos_of(h, poly, true);
        GEOSGeometry* point = GEOSGeom_createPointFromXY_r(h, from.x, from.y);
        const int want = GEOSIntersects_r(h, track, w), in = GEOSIntersects_r(h, g, point), valid = GEOSisValid_r(h, g);
        for (GEOSGeometry* x : {track, w, g, point})
            GEOSGeom_destroy_r(h, x);
        if (valid) {
            ASSERT_EQ(vesk_utility_is_point_in_region(&from, poly.data(), unsigned(poly.size())), in) << i;
            inside += in;
            ++compared;
        }
        if (boundary)
            continue;
        ASSERT_EQ(cross(from, to, wire), want) << i;
        crossings += want;
        ++compared;
        // Direction against GEOS's orientation index (+1: counter-clockwise in its y-up frame,
        // which is our right side with y down).
        const int side = GEOSOrientationIndex_r(h, wire[0].x, wire[0].y, wire[1].x, wire[1].y, from.x, from.y);
        ASSERT_TRUE(wire.size() > 2 || cross(from, to, wire, VESK_CROSS_LEFT_TO_RIGHT) == (want && side == -1)) << i;
        ASSERT_TRUE(wire.size() > 2 || cross(from, to, wire, VESK_CROSS_RIGHT_TO_LEFT) == (want && side == 1)) << i;
    }
    GEOS_finish_r(h);
    // Both answers occur often enough for the comparison to mean something.
    EXPECT_GT(compared, 50000);
    EXPECT_GT(crossings, 5000);
    EXPECT_GT(inside, 2000);
    printf("geometry oracle: %d cases, %d crossings, %d inside\n", compared, crossings, inside);
}
#endif
