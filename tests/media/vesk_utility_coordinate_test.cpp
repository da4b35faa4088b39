// Analytics coordinates: conversions both ways, the deliberate asymmetry of the point and
// rectangle checks, and the rectangle validity test with its unsigned fraction sums.
#include <gtest/gtest.h>

#include "vesk_utility.h"

using namespace vesk_soft;

TEST(CoordinateTest, PointConversionScalesAndChecksEachFraction)
{
    vesk_real_point real = {-1, -1};
    const vesk_abstract_point p = {5, 10, 3, 4};
    ASSERT_EQ(vesk_utility_abs_to_real_point(1920, 1080, &p, &real), VESK_OK);
    EXPECT_EQ(real.x, 960);
    EXPECT_EQ(real.y, 810);

    // A full fraction is the edge itself, not the last pixel; division truncates.
    const vesk_abstract_point edge = {7, 7, 2, 3};
    ASSERT_EQ(vesk_utility_abs_to_real_point(704, 576, &edge, &real), VESK_OK);
    EXPECT_EQ(real.x, 704);
    EXPECT_EQ(real.y, 384);
    const vesk_abstract_point third = {1, 3, 1, 3};
    ASSERT_EQ(vesk_utility_abs_to_real_point(100, 100, &third, &real), VESK_OK);
    EXPECT_EQ(real.x, 33);

    real = {-1, -1};
    for (const vesk_abstract_point bad : {vesk_abstract_point {1, 0, 1, 2}, vesk_abstract_point {1, 2, 1, 0},
             vesk_abstract_point {3, 2, 1, 2}, vesk_abstract_point {1, 2, 5, 4}}) {
        EXPECT_EQ(vesk_utility_abs_to_real_point(1920, 1080, &bad, &real), VESK_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(real.x, -1); // untouched on refusal
    EXPECT_EQ(vesk_utility_abs_to_real_point(1920, 1080, nullptr, &real), VESK_ERR_INVALID_PARAM);

    // Back to abstract: stored as given, no reduction and no range check.
    vesk_abstract_point back = {};
    const vesk_real_point outside = {2000, 540};
    ASSERT_EQ(vesk_utility_real_to_abs_point(1920, 1080, &back, &outside), VESK_OK);
    EXPECT_EQ(back.x, 2000u);
    EXPECT_EQ(back.x_full, 1920u);
    EXPECT_EQ(back.y, 540u);
    EXPECT_EQ(back.y_full, 1080u);
}

TEST(CoordinateTest, RectConversionRefusesOnlyZeroFullScales)
{
    vesk_real_rect real = {};
    const vesk_abstract_rect r = {1, 4, 1, 2, 1, 2, 1, 4};
    ASSERT_EQ(vesk_utility_abs_to_real_rect(1920, 1080, &r, &real), VESK_OK);
    EXPECT_EQ(real.x, 480);
    EXPECT_EQ(real.y, 540);
    EXPECT_EQ(real.w, 960);
    EXPECT_EQ(real.h, 270);

    // Larger than its full scale: accepted, and the result lies outside the picture.
    const vesk_abstract_rect wide = {3, 2, 0, 1, 2, 1, 1, 1};
    ASSERT_EQ(vesk_utility_abs_to_real_rect(1000, 500, &wide, &real), VESK_OK);
    EXPECT_EQ(real.x, 1500);
    EXPECT_EQ(real.w, 2000);
    EXPECT_EQ(vesk_utility_is_valid_abs(&wide), 0);

    for (int zero = 0; zero < 4; ++zero) {
        vesk_abstract_rect bad = {1, 2, 1, 2, 1, 2, 1, 2};
        (&bad.x_full)[2 * zero] = 0;
        EXPECT_EQ(vesk_utility_abs_to_real_rect(1920, 1080, &bad, &real), VESK_ERR_INVALID_PARAM) << zero;
    }

    vesk_abstract_rect back = {};
    const vesk_real_rect px = {10, 20, 30, 40};
    ASSERT_EQ(vesk_utility_real_to_abs_rect(640, 480, &back, &px), VESK_OK);
    const vesk_abstract_rect want = {10, 640, 20, 480, 30, 640, 40, 480};
    EXPECT_EQ(memcmp(&back, &want, sizeof(want)), 0);
    // A round trip returns the pixels.
    ASSERT_EQ(vesk_utility_abs_to_real_rect(640, 480, &back, &real), VESK_OK);
    EXPECT_EQ(memcmp(&real, &px, sizeof(px)), 0);
}

TEST(CoordinateTest, ValidityChecksScalesValuesAndBothEdges)
{
    const vesk_abstract_rect half = {1, 2, 0, 1, 1, 2, 1, 1};
    EXPECT_EQ(vesk_utility_is_valid_abs(&half), 1);
    const vesk_abstract_rect too_wide = {1, 2, 0, 1, 2, 3, 1, 1}; // 1/2 + 2/3 > 1
    EXPECT_EQ(vesk_utility_is_valid_abs(&too_wide), 0);
    const vesk_abstract_rect exact = {1, 3, 1, 4, 2, 3, 3, 4}; // reaches both edges exactly
    EXPECT_EQ(vesk_utility_is_valid_abs(&exact), 1);
    const vesk_abstract_rect too_tall = {0, 1, 1, 4, 1, 1, 4, 5}; // 1/4 + 4/5 > 1
    EXPECT_EQ(vesk_utility_is_valid_abs(&too_tall), 0);
    const vesk_abstract_rect zero_scale = {0, 1, 0, 0, 0, 1, 0, 1};
    EXPECT_EQ(vesk_utility_is_valid_abs(&zero_scale), 0);
    const vesk_abstract_rect value_over = {0, 1, 0, 1, 0, 1, 2, 1};
    EXPECT_EQ(vesk_utility_is_valid_abs(&value_over), 0);
    EXPECT_EQ(vesk_utility_is_valid_abs(nullptr), 0);

    // The sums are unsigned 32-bit products without reduction, and the answer is the wrapped
    // one: 1/2 + 131072/131073 passes the edge, yet both products wrap into "valid"; and
    // 0/65536 + 65534/65537 lies inside, yet its wrapped denominator (65536) is too small.
    const vesk_abstract_rect wraps_in = {65536, 131072, 0, 1, 131072, 131073, 1, 1};
    EXPECT_EQ(vesk_utility_is_valid_abs(&wraps_in), 1);
    const vesk_abstract_rect wraps_out = {0, 65536, 0, 1, 65534, 65537, 1, 1};
    EXPECT_EQ(vesk_utility_is_valid_abs(&wraps_out), 0);
}
