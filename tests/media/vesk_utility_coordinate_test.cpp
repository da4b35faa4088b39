// Analytics coordinates: conversions both ways, the deliberate asymmetry of the point and
// rectangle checks, and the rectangle validity test with its unsigned fraction sums.
#include <gtest/gtest.h>

#include <cstring>

#include "vesk_utility.h"

using namespace vesk_soft;

TEST(CoordinateTest, PointConversionScalesAndChecksEachFraction)
{
    // A full fraction is the edge itself, not the last pixel; division truncates.
    const struct {
        int w, h;
        vesk_abstract_point p;
        int x, y;
    } rows[]
        = {{1920, 1080, {5, 10, 3, 4}, 960, 810}, {704, 576, {7, 7, 2, 3}, 704, 384}, {100, 100, {1, 3, 1, 3}, 33, 33}};
    vesk_real_point real = {-1, -1};
    for (const auto& r : rows) {
        ASSERT_EQ(vesk_utility_abs_to_real_point(r.w, r.h, &r.p, &real), VESK_OK);
        EXPECT_TRUE(real.x == r.x && real.y == r.y) << r.w << ": " << real.x << "," << real.y;
    }
    real = {-1, -1};
    for (const vesk_abstract_point bad : {vesk_abstract_point {1, 0, 1, 2}, {1, 2, 1, 0}, {3, 2, 1, 2}, {1, 2, 5, 4}})
        EXPECT_EQ(vesk_utility_abs_to_real_point(1920, 1080, &bad, &real), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(real.x, -1); // untouched on refusal
    EXPECT_EQ(vesk_utility_abs_to_real_point(1920, 1080, nullptr, &real), VESK_ERR_INVALID_PARAM);

    // Back to abstract: stored as given, no reduction and no range check.
    vesk_abstract_point back = {};
    const vesk_real_point outside = {2000, 540};
    ASSERT_EQ(vesk_utility_real_to_abs_point(1920, 1080, &back, &outside), VESK_OK);
    const vesk_abstract_point want = {2000, 1920, 540, 1080};
    EXPECT_EQ(memcmp(&back, &want, sizeof(want)), 0);
}

TEST(CoordinateTest, RectConversionRefusesOnlyZeroFullScales)
{
    vesk_real_rect real = {};
    const vesk_abstract_rect r = {1, 4, 1, 2, 1, 2, 1, 4};
    ASSERT_EQ(vesk_utility_abs_to_real_rect(1920, 1080, &r, &real), VESK_OK);
    vesk_real_rect want = {480, 540, 960, 270};
    EXPECT_EQ(memcmp(&real, &want, sizeof(want)), 0);
    // Larger than its full scale: accepted, and the result lies outside the picture.
    const vesk_abstract_rect wide = {3, 2, 0, 1, 2, 1, 1, 1};
    ASSERT_EQ(vesk_utility_abs_to_real_rect(1000, 500, &wide, &real), VESK_OK);
    want = {1500, 0, 2000, 500};
    EXPECT_EQ(memcmp(&real, &want, sizeof(want)), 0);
    for (int zero = 0; zero < 4; ++zero) {
        vesk_abstract_rect bad = {1, 2, 1, 2, 1, 2, 1, 2};
        (&bad.x_full)[2 * zero] = 0;
        EXPECT_EQ(vesk_utility_abs_to_real_rect(1920, 1080, &bad, &real), VESK_ERR_INVALID_PARAM) << zero;
    }

    // Back to abstract and round trip to the same pixels.
    vesk_abstract_rect back = {};
    const vesk_real_rect px = {10, 20, 30, 40};
    ASSERT_EQ(vesk_utility_real_to_abs_rect(640, 480, &back, &px), VESK_OK);
    const vesk_abstract_rect want_abs = {10, 640, 20, 480, 30, 640, 40, 480};
    EXPECT_EQ(memcmp(&back, &want_abs, sizeof(want_abs)), 0);
    ASSERT_EQ(vesk_utility_abs_to_real_rect(640, 480, &back, &real), VESK_OK);
    EXPECT_EQ(memcmp(&real, &px, sizeof(px)), 0);
}

TEST(CoordinateTest, ValidityChecksScalesValuesAndBothEdges)
{
    // The sums are unsigned 32-bit products without reduction, and the answer is the wrapped
    // one: the first wrapping row passes the edge yet reads "valid", the second lies inside yet
    // its wrapped denominator (65536) is too small.
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
