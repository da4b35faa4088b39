// vesk_utility_image - conversions between the picture formats of snapshots and the display,
// over libyuv. Two-step conversions run in bands of a few rows through one small accounted
// scratch buffer, so converting a 1080p frame never holds a second frame-sized copy unless it
// scales.
#include "media/vesk_utility_image.h"

#include <libyuv.h>

#include <algorithm>
#include <cstring>

#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_purposes.h"

namespace vesk_utility
{

using namespace vesk_soft;

vesk_scratch::vesk_scratch(size_t size)
{
    if (size > 0 && size < (1u << 31))
        m_p = static_cast<uint8_t*>(
            vesk_malloc(VESK_USER_UTILITY, k_purpose_picture_scratch, static_cast<unsigned>(size), 16));
}

vesk_scratch::~vesk_scratch()
{
    if (m_p != nullptr)
        vesk_free(__FILE__, __func__, m_p);
}

namespace
{

// Rows per band of a two-step conversion; even, so chroma rows stay whole.
constexpr uint32_t k_band = 16;

inline uint32_t half(uint32_t v)
{
    return (v + 1) / 2;
}

uint32_t pixel_bytes(uint32_t format)
{
    switch (format) {
    case VESK_PIX_GRAY8:
        return 1;
    case VESK_PIX_RGB565:
    case VESK_PIX_ARGB1555:
        return 2;
    case VESK_PIX_RGB24:
    case VESK_PIX_BGR24:
        return 3;
    case VESK_PIX_ARGB8888:
        return 4;
    default:
        return 0;
    }
}

const libyuv::YuvConstants* constants(vesk_color_matrix m)
{
    switch (m) {
    case VESK_MATRIX_BT601_FULL:
        return &libyuv::kYuvJPEGConstants;
    case VESK_MATRIX_BT709:
        return &libyuv::kYuvH709Constants;
    default:
        return &libyuv::kYuvI601Constants;
    }
}

// Rows [y, y + rows) of img; y even for YUV.
vesk_image band(const vesk_image& img, uint32_t y, uint32_t rows)
{
    vesk_image b = img;
    b.height = rows;
    b.plane[0] += size_t(y) * img.stride[0];
    if (image_is_yuv(img.format)) {
        b.plane[1] += size_t(y / 2) * img.stride[1];
        if (img.format == VESK_PIX_I420)
            b.plane[2] += size_t(y / 2) * img.stride[2];
    }
    return b;
}

inline int S(uint32_t v)
{
    return static_cast<int>(v);
}

// Y between the limited range 16..235 and full-range gray.
uint8_t expand_luma(uint8_t y)
{
    const int v = (int(y) - 16) * 255 * 2 / 219;
    return uint8_t(std::clamp((v + 1) / 2, 0, 255));
}

uint8_t compress_luma(uint8_t g)
{
    return uint8_t(16 + (int(g) * 219 * 2 + 255) / 510);
}

// BT.709 limited from RGB, which libyuv lacks: 16-bit fixed point, chroma from the 2 x 2 mean.
constexpr int32_t fx(double v)
{
    return int32_t(v * 65536 + (v < 0 ? -0.5 : 0.5));
}
constexpr double k_yl = 219.0 / 255, k_cl = 224.0 / 255;
constexpr int32_t k_yr = fx(0.2126 * k_yl), k_yg = fx(0.7152 * k_yl), k_yb = fx(0.0722 * k_yl);
constexpr int32_t k_ur = fx(-0.2126 / 1.8556 * k_cl), k_ug = fx(-0.7152 / 1.8556 * k_cl), k_ub = fx(0.5 * k_cl);
constexpr int32_t k_vr = fx(0.5 * k_cl), k_vg = fx(-0.7152 / 1.5748 * k_cl), k_vb = fx(-0.0722 / 1.5748 * k_cl);

void argb_to_i420_709(const uint8_t* argb, uint32_t stride, const vesk_image& d)
{
    for (uint32_t y = 0; y < d.height; y += 2) {
        const uint8_t* r0 = argb + size_t(y) * stride;
        const uint8_t* r1 = y + 1 < d.height ? r0 + stride : r0;
        uint8_t* y0 = d.plane[0] + size_t(y) * d.stride[0];
        uint8_t* y1 = y + 1 < d.height ? y0 + d.stride[0] : nullptr;
        uint8_t* u = d.plane[1] + size_t(y / 2) * d.stride[1];
        uint8_t* v = d.plane[2] + size_t(y / 2) * d.stride[2];
        auto luma = [](const uint8_t* p) {
            return uint8_t(16 + ((k_yr * p[2] + k_yg * p[1] + k_yb * p[0] + 0x8000) >> 16));
        };
        for (uint32_t x = 0; x < d.width; x += 2) {
            const uint32_t x1 = x + 1 < d.width ? x + 1 : x;
            y0[x] = luma(r0 + 4 * x);
            if (x1 != x)
                y0[x1] = luma(r0 + 4 * x1);
            if (y1 != nullptr) {
                y1[x] = luma(r1 + 4 * x);
                if (x1 != x)
                    y1[x1] = luma(r1 + 4 * x1);
            }
            int32_t sb = 0, sg = 0, sr = 0;
            for (const uint8_t* p : {r0 + 4 * x, r0 + 4 * x1, r1 + 4 * x, r1 + 4 * x1}) {
                sb += p[0];
                sg += p[1];
                sr += p[2];
            }
            // Sums of four samples: shift two bits more, rounding to nearest.
            u[x / 2] = uint8_t(std::clamp(128 + ((k_ur * sr + k_ug * sg + k_ub * sb + (1 << 17)) >> 18), 0, 255));
            v[x / 2] = uint8_t(std::clamp(128 + ((k_vr * sr + k_vg * sg + k_vb * sb + (1 << 17)) >> 18), 0, 255));
        }
    }
}

// BT.709 limited into ARGB. libyuv keeps its coefficients in signed 8 bits, which clamps 709's
// blue term (2.112) and leaves saturated colours up to 12 off; this plain loop is exact to
// rounding, at the price of SIMD speed for 709 only.
constexpr double k_kr = 0.2126, k_kb = 0.0722, k_kg = 1 - k_kr - k_kb;
constexpr int32_t k_y = fx(255.0 / 219), k_rv = fx(2 * (1 - k_kr) * 255 / 224), k_bu = fx(2 * (1 - k_kb) * 255 / 224);
constexpr int32_t k_gu = fx(2 * (1 - k_kb) * k_kb / k_kg * 255 / 224), k_gv = fx(2 * (1 - k_kr) * k_kr / k_kg * 255 / 224);

void yuv709_to_argb(const vesk_image& s, uint8_t* argb, uint32_t stride)
{
    const bool i420 = s.format == VESK_PIX_I420, nv21 = s.format == VESK_PIX_NV21;
    for (uint32_t y = 0; y < s.height; ++y) {
        const uint8_t* yr = s.plane[0] + size_t(y) * s.stride[0];
        const uint8_t* c1 = s.plane[1] + size_t(y / 2) * s.stride[1];
        const uint8_t* c2 = i420 ? s.plane[2] + size_t(y / 2) * s.stride[2] : nullptr;
        uint8_t* out = argb + size_t(y) * stride;
        for (uint32_t x = 0; x < s.width; ++x) {
            int u, v;
            if (i420) {
                u = c1[x / 2];
                v = c2[x / 2];
            } else {
                u = c1[(x / 2) * 2 + (nv21 ? 1 : 0)];
                v = c1[(x / 2) * 2 + (nv21 ? 0 : 1)];
            }
            const int32_t l = k_y * (yr[x] - 16) + 0x8000;
            u -= 128;
            v -= 128;
            out[4 * x + 0] = uint8_t(std::clamp((l + k_bu * u) >> 16, 0, 255));
            out[4 * x + 1] = uint8_t(std::clamp((l - k_gu * u - k_gv * v) >> 16, 0, 255));
            out[4 * x + 2] = uint8_t(std::clamp((l + k_rv * v) >> 16, 0, 255));
            out[4 * x + 3] = 255;
        }
    }
}

void copy_planes(const vesk_image& s, const vesk_image& d)
{
    if (!image_is_yuv(s.format)) {
        libyuv::CopyPlane(s.plane[0], S(s.stride[0]), d.plane[0], S(d.stride[0]), S(image_row_bytes(s.format, s.width)),
            S(s.height));
        return;
    }
    libyuv::CopyPlane(s.plane[0], S(s.stride[0]), d.plane[0], S(d.stride[0]), S(s.width), S(s.height));
    if (s.format == VESK_PIX_I420) {
        for (int i = 1; i < 3; ++i)
            libyuv::CopyPlane(s.plane[i], S(s.stride[i]), d.plane[i], S(d.stride[i]), S(half(s.width)), S(half(s.height)));
    } else {
        libyuv::CopyPlane(s.plane[1], S(s.stride[1]), d.plane[1], S(d.stride[1]), S(2 * half(s.width)), S(half(s.height)));
    }
}

// Same size, both YUV, different formats.
int yuv_to_yuv(const vesk_image& s, const vesk_image& d)
{
    const int w = S(s.width), h = S(s.height);
    if (s.format == VESK_PIX_I420) {
        auto to_nv = d.format == VESK_PIX_NV12 ? libyuv::I420ToNV12 : libyuv::I420ToNV21;
        return to_nv(s.plane[0], S(s.stride[0]), s.plane[1], S(s.stride[1]), s.plane[2], S(s.stride[2]), d.plane[0],
            S(d.stride[0]), d.plane[1], S(d.stride[1]), w, h);
    }
    if (d.format == VESK_PIX_I420) {
        auto to_i420 = s.format == VESK_PIX_NV12 ? libyuv::NV12ToI420 : libyuv::NV21ToI420;
        return to_i420(s.plane[0], S(s.stride[0]), s.plane[1], S(s.stride[1]), d.plane[0], S(d.stride[0]), d.plane[1],
            S(d.stride[1]), d.plane[2], S(d.stride[2]), w, h);
    }
    // NV12 <-> NV21: the same swap of the chroma pair either way.
    return libyuv::NV21ToNV12(s.plane[0], S(s.stride[0]), s.plane[1], S(s.stride[1]), d.plane[0], S(d.stride[0]),
        d.plane[1], S(d.stride[1]), w, h);
}

// Same size: any format into ARGB.
int to_argb(const vesk_image& s, uint8_t* argb, uint32_t stride, vesk_color_matrix m)
{
    const int w = S(s.width), h = S(s.height), ds = S(stride);
    const uint8_t* p = s.plane[0];
    const int ps = S(s.stride[0]);
    if (m == VESK_MATRIX_BT709 && image_is_yuv(s.format)) {
        yuv709_to_argb(s, argb, stride);
        return 0;
    }
    switch (s.format) {
    case VESK_PIX_I420:
        return libyuv::I420ToARGBMatrix(
            p, ps, s.plane[1], S(s.stride[1]), s.plane[2], S(s.stride[2]), argb, ds, constants(m), w, h);
    case VESK_PIX_NV12:
        return libyuv::NV12ToARGBMatrix(p, ps, s.plane[1], S(s.stride[1]), argb, ds, constants(m), w, h);
    case VESK_PIX_NV21:
        return libyuv::NV21ToARGBMatrix(p, ps, s.plane[1], S(s.stride[1]), argb, ds, constants(m), w, h);
    case VESK_PIX_GRAY8:
        return libyuv::J400ToARGB(p, ps, argb, ds, w, h);
    case VESK_PIX_RGB24:
        return libyuv::RAWToARGB(p, ps, argb, ds, w, h);
    case VESK_PIX_BGR24:
        return libyuv::RGB24ToARGB(p, ps, argb, ds, w, h);
    case VESK_PIX_RGB565:
        return libyuv::RGB565ToARGB(p, ps, argb, ds, w, h);
    case VESK_PIX_ARGB1555:
        return libyuv::ARGB1555ToARGB(p, ps, argb, ds, w, h);
    case VESK_PIX_ARGB8888:
        return libyuv::ARGBCopy(p, ps, argb, ds, w, h);
    }
    return -1;
}

// Same size: ARGB into any format. `tmp` holds an I420 picture of d's size when d is NV12 or
// NV21 under a matrix other than limited BT.601 (the only one libyuv writes directly).
int from_argb(const uint8_t* argb, uint32_t stride, const vesk_image& d, vesk_color_matrix m, uint8_t* tmp)
{
    const int w = S(d.width), h = S(d.height), ss = S(stride);
    uint8_t* p = d.plane[0];
    const int ps = S(d.stride[0]);
    switch (d.format) {
    case VESK_PIX_GRAY8:
        return libyuv::ARGBToJ400(argb, ss, p, ps, w, h);
    case VESK_PIX_RGB24:
        return libyuv::ARGBToRAW(argb, ss, p, ps, w, h);
    case VESK_PIX_BGR24:
        return libyuv::ARGBToRGB24(argb, ss, p, ps, w, h);
    case VESK_PIX_RGB565:
        return libyuv::ARGBToRGB565(argb, ss, p, ps, w, h);
    case VESK_PIX_ARGB1555:
        return libyuv::ARGBToARGB1555(argb, ss, p, ps, w, h);
    case VESK_PIX_ARGB8888:
        return libyuv::ARGBCopy(argb, ss, p, ps, w, h);
    default:
        break;
    }
    if (m == VESK_MATRIX_BT601 && d.format != VESK_PIX_I420) {
        auto to_nv = d.format == VESK_PIX_NV12 ? libyuv::ARGBToNV12 : libyuv::ARGBToNV21;
        return to_nv(argb, ss, p, ps, d.plane[1], S(d.stride[1]), w, h);
    }
    vesk_image i420 = d;
    if (d.format != VESK_PIX_I420) {
        i420.format = VESK_PIX_I420;
        i420.plane[0] = tmp;
        i420.stride[0] = d.width;
        i420.plane[1] = tmp + size_t(d.width) * d.height;
        i420.plane[2] = i420.plane[1] + size_t(half(d.width)) * half(d.height);
        i420.stride[1] = i420.stride[2] = half(d.width);
    }
    int rc = 0;
    if (m == VESK_MATRIX_BT709)
        argb_to_i420_709(argb, stride, i420);
    else if (m == VESK_MATRIX_BT601_FULL)
        rc = libyuv::ARGBToJ420(argb, ss, i420.plane[0], S(i420.stride[0]), i420.plane[1], S(i420.stride[1]),
            i420.plane[2], S(i420.stride[2]), w, h);
    else
        rc = libyuv::ARGBToI420(argb, ss, i420.plane[0], S(i420.stride[0]), i420.plane[1], S(i420.stride[1]),
            i420.plane[2], S(i420.stride[2]), w, h);
    return rc != 0 || d.format == VESK_PIX_I420 ? rc : yuv_to_yuv(i420, d);
}

// Gray and YUV: the luma plane, its range mapped by a table, chroma neutral.
void yuv_to_gray(const vesk_image& s, const vesk_image& d, vesk_color_matrix m)
{
    uint8_t lut[256];
    for (int i = 0; i < 256; ++i)
        lut[i] = m == VESK_MATRIX_BT601_FULL ? uint8_t(i) : expand_luma(uint8_t(i));
    for (uint32_t y = 0; y < s.height; ++y) {
        const uint8_t* in = s.plane[0] + size_t(y) * s.stride[0];
        uint8_t* out = d.plane[0] + size_t(y) * d.stride[0];
        for (uint32_t x = 0; x < s.width; ++x)
            out[x] = lut[in[x]];
    }
}

void gray_to_yuv(const vesk_image& s, const vesk_image& d, vesk_color_matrix m)
{
    uint8_t lut[256];
    for (int i = 0; i < 256; ++i)
        lut[i] = m == VESK_MATRIX_BT601_FULL ? uint8_t(i) : compress_luma(uint8_t(i));
    for (uint32_t y = 0; y < s.height; ++y) {
        const uint8_t* in = s.plane[0] + size_t(y) * s.stride[0];
        uint8_t* out = d.plane[0] + size_t(y) * d.stride[0];
        for (uint32_t x = 0; x < s.width; ++x)
            out[x] = lut[in[x]];
    }
    if (d.format == VESK_PIX_I420) {
        libyuv::SetPlane(d.plane[1], S(d.stride[1]), S(half(d.width)), S(half(d.height)), 128);
        libyuv::SetPlane(d.plane[2], S(d.stride[2]), S(half(d.width)), S(half(d.height)), 128);
    } else {
        libyuv::SetPlane(d.plane[1], S(d.stride[1]), S(2 * half(d.width)), S(half(d.height)), 128);
    }
}

// Same size, any pair of formats.
VESK_ERR convert_same_size(const vesk_image& s, const vesk_image& d, vesk_color_matrix m)
{
    const bool sy = image_is_yuv(s.format), dy = image_is_yuv(d.format);
    int rc = 0;
    if (s.format == d.format) {
        copy_planes(s, d);
    } else if (sy && dy) {
        rc = yuv_to_yuv(s, d);
    } else if (sy && d.format == VESK_PIX_GRAY8) {
        yuv_to_gray(s, d, m);
    } else if (s.format == VESK_PIX_GRAY8 && dy) {
        gray_to_yuv(s, d, m);
    } else if (d.format == VESK_PIX_ARGB8888) {
        rc = to_argb(s, d.plane[0], d.stride[0], m);
    } else {
        // Through ARGB, a band at a time; an NV destination may need an I420 band as well.
        const bool direct = s.format == VESK_PIX_ARGB8888;
        const size_t argb_band = direct ? 0 : size_t(s.width) * 4 * k_band;
        const size_t i420_band = dy ? size_t(vesk_utility_image_size(VESK_PIX_I420, s.width, k_band)) : 0;
        vesk_scratch scratch(argb_band + i420_band + 16);
        if (scratch.data() == nullptr)
            return VESK_ERR_NO_RESOURCE;
        for (uint32_t y = 0; y < s.height && rc == 0; y += k_band) {
            const uint32_t rows = std::min(k_band, s.height - y);
            const vesk_image sb = band(s, y, rows);
            const uint8_t* argb = sb.plane[0];
            uint32_t stride = sb.stride[0];
            if (!direct) {
                rc = to_argb(sb, scratch.data(), s.width * 4, m);
                argb = scratch.data();
                stride = s.width * 4;
            }
            if (rc == 0)
                rc = from_argb(argb, stride, band(d, y, rows), m, scratch.data() + argb_band);
        }
    }
    if (rc != 0) {
        VESK_ERR_FN("conversion %u -> %u failed (%d)\n", s.format, d.format, rc);
        return VESK_ERR_OPERATE_FAIL;
    }
    return VESK_OK;
}

// A tightly packed image of `format` inside scratch memory.
bool scratch_image(vesk_scratch& mem, uint32_t format, uint32_t w, uint32_t h, vesk_image& img)
{
    const uint32_t size = vesk_utility_image_size(format, w, h);
    return mem.data() != nullptr && vesk_utility_image_wrap(&img, format, w, h, mem.data(), size) == VESK_OK;
}

} // namespace

vesk_image image_rows(const vesk_image& img, uint32_t y, uint32_t rows)
{
    return band(img, y, rows);
}

bool image_is_yuv(uint32_t format)
{
    return format == VESK_PIX_I420 || format == VESK_PIX_NV12 || format == VESK_PIX_NV21;
}

uint32_t image_row_bytes(uint32_t format, uint32_t width)
{
    return pixel_bytes(format) * width;
}

bool image_valid(const vesk_image& img)
{
    if (img.width == 0 || img.height == 0 || img.width > k_image_max_side || img.height > k_image_max_side)
        return false;
    if (!image_is_yuv(img.format))
        return pixel_bytes(img.format) != 0 && img.plane[0] != nullptr
            && img.stride[0] >= image_row_bytes(img.format, img.width);
    if (img.plane[0] == nullptr || img.plane[1] == nullptr || img.stride[0] < img.width)
        return false;
    if (img.format == VESK_PIX_I420)
        return img.plane[2] != nullptr && img.stride[1] >= half(img.width) && img.stride[2] >= half(img.width);
    return img.stride[1] >= 2 * half(img.width);
}

VESK_ERR image_convert(const vesk_image& src, const vesk_real_rect* crop, const vesk_image& dst, vesk_color_matrix m)
{
    if (!image_valid(src) || !image_valid(dst) || m > VESK_MATRIX_BT709)
        return VESK_ERR_INVALID_PARAM;
    vesk_real_rect c = {0, 0, int32_t(src.width), int32_t(src.height)};
    if (crop != nullptr)
        c = *crop;
    const bool sy = image_is_yuv(src.format);
    if (c.x < 0 || c.y < 0 || c.w <= 0 || c.h <= 0 || int64_t(c.x) + c.w > src.width || int64_t(c.y) + c.h > src.height
        || (sy && (c.x % 2 != 0 || c.y % 2 != 0)))
        return VESK_ERR_INVALID_PARAM;

    // The crop as an image of its own.
    vesk_image s = band(src, uint32_t(c.y), uint32_t(c.h));
    s.width = uint32_t(c.w);
    if (sy) {
        s.plane[0] += c.x;
        s.plane[1] += src.format == VESK_PIX_I420 ? c.x / 2 : c.x;
        if (src.format == VESK_PIX_I420)
            s.plane[2] += c.x / 2;
    } else {
        s.plane[0] += size_t(c.x) * pixel_bytes(src.format);
    }
    if (s.width == dst.width && s.height == dst.height)
        return convert_same_size(s, dst, m);

    // Scaling: within YUV as I420, otherwise as ARGB, then into the destination's format.
    const uint32_t hub = sy ? VESK_PIX_I420 : VESK_PIX_ARGB8888;
    vesk_scratch from_mem(s.format == hub ? 0 : vesk_utility_image_size(hub, s.width, s.height));
    vesk_scratch to_mem(vesk_utility_image_size(hub, dst.width, dst.height));
    vesk_image from = s, to = {};
    if (s.format != hub) {
        if (!scratch_image(from_mem, hub, s.width, s.height, from))
            return VESK_ERR_NO_RESOURCE;
        const VESK_ERR err = convert_same_size(s, from, m);
        if (err != VESK_OK)
            return err;
    }
    if (!scratch_image(to_mem, hub, dst.width, dst.height, to))
        return VESK_ERR_NO_RESOURCE;
    const int rc = sy ? libyuv::I420Scale(from.plane[0], S(from.stride[0]), from.plane[1], S(from.stride[1]),
                            from.plane[2], S(from.stride[2]), S(from.width), S(from.height), to.plane[0],
                            S(to.stride[0]), to.plane[1], S(to.stride[1]), to.plane[2], S(to.stride[2]), S(to.width),
                            S(to.height), libyuv::kFilterBilinear)
                      : libyuv::ARGBScale(from.plane[0], S(from.stride[0]), S(from.width), S(from.height), to.plane[0],
                            S(to.stride[0]), S(to.width), S(to.height), libyuv::kFilterBilinear);
    if (rc != 0)
        return VESK_ERR_OPERATE_FAIL;
    return convert_same_size(to, dst, m);
}

} // namespace vesk_utility

namespace vesk_soft
{

uint32_t vesk_utility_image_size(uint32_t format, uint32_t width, uint32_t height)
{
    if (width == 0 || height == 0 || width > vesk_utility::k_image_max_side || height > vesk_utility::k_image_max_side)
        return 0;
    const uint64_t luma = uint64_t(width) * height;
    if (vesk_utility::image_is_yuv(format))
        return uint32_t(luma + 2 * uint64_t(vesk_utility::half(width)) * vesk_utility::half(height));
    const uint64_t size = uint64_t(vesk_utility::image_row_bytes(format, width)) * height;
    return size < (1u << 31) ? uint32_t(size) : 0;
}

VESK_ERR vesk_utility_image_wrap(vesk_image* img, uint32_t format, uint32_t width, uint32_t height, void* buf, uint32_t size)
{
    const uint32_t need = vesk_utility_image_size(format, width, height);
    if (img == nullptr || buf == nullptr || need == 0 || size < need)
        return VESK_ERR_INVALID_PARAM;
    uint8_t* p = static_cast<uint8_t*>(buf);
    *img = {format, width, height, {p, nullptr, nullptr}, {vesk_utility::image_row_bytes(format, width), 0, 0}};
    if (vesk_utility::image_is_yuv(format)) {
        const uint32_t cw = vesk_utility::half(width), ch = vesk_utility::half(height);
        img->stride[0] = width;
        img->plane[1] = p + size_t(width) * height;
        if (format == VESK_PIX_I420) {
            img->plane[2] = img->plane[1] + size_t(cw) * ch;
            img->stride[1] = img->stride[2] = cw;
        } else {
            img->stride[1] = 2 * cw;
        }
    }
    return VESK_OK;
}

} // namespace vesk_soft
