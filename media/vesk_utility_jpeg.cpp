// vesk_utility_jpeg - snapshots to and from JPEG over TurboJPEG. Sizes come from the header
// before any pixel memory is committed, so a hostile file cannot make the board allocate a
// picture it never meant to hold. Formats TurboJPEG cannot write directly go through the
// image converter, in accounted scratch memory.
#include "media/vesk_utility_jpeg.h"

#include <turbojpeg.h>

#include <cstring>

#include "core/vesk_utility_log.h"
#include "media/vesk_utility_image.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

// A TurboJPEG handle for the length of one call.
class tj_handle
{
public:
    explicit tj_handle(bool compress) : m_h(compress ? tjInitCompress() : tjInitDecompress()) { }
    ~tj_handle()
    {
        if (m_h != nullptr)
            tjDestroy(m_h);
    }
    tj_handle(const tj_handle&) = delete;
    tj_handle& operator=(const tj_handle&) = delete;
    tjhandle get() const { return m_h; }

private:
    tjhandle m_h;
};

// Progressive files may hold thousands of scans that each cost a pass over the picture.
constexpr int k_decode_flags = TJFLAG_LIMITSCANS;

// TurboJPEG's pixel format for a packed format it reads and writes as is, or -1.
int tj_format(uint32_t format)
{
    switch (format) {
    case VESK_PIX_GRAY8:
        return TJPF_GRAY;
    case VESK_PIX_RGB24:
        return TJPF_RGB;
    case VESK_PIX_BGR24:
        return TJPF_BGR;
    case VESK_PIX_ARGB8888:
        return TJPF_BGRA;
    default:
        return -1;
    }
}

struct header {
    int width, height, subsamp, colorspace;
};

VESK_ERR read_header(tjhandle h, const uint8_t* jpeg, uint32_t size, header& hd)
{
    if (tjDecompressHeader3(h, jpeg, size, &hd.width, &hd.height, &hd.subsamp, &hd.colorspace) != 0
        || hd.width <= 0 || hd.height <= 0)
        return VESK_ERR_OPERATE_FAIL;
    return VESK_OK;
}

} // namespace

VESK_ERR jpeg_get_info(const uint8_t* jpeg, uint32_t size, vesk_jpeg_info& info)
{
    tj_handle h(false);
    header hd;
    if (h.get() == nullptr)
        return VESK_ERR_NO_RESOURCE;
    const VESK_ERR err = read_header(h.get(), jpeg, size, hd);
    if (err != VESK_OK)
        return err;
    info.width = uint32_t(hd.width);
    info.height = uint32_t(hd.height);
    info.subsamp = uint32_t(hd.subsamp);
    info.channels = hd.colorspace == TJCS_GRAY ? 1 : (hd.colorspace == TJCS_CMYK || hd.colorspace == TJCS_YCCK) ? 4 : 3;
    return VESK_OK;
}

VESK_ERR jpeg_encode(const vesk_image& src, vesk_color_matrix matrix, uint32_t quality, uint8_t* out,
    uint32_t out_size, uint32_t& out_len)
{
    if (!image_valid(src) || quality < 1 || quality > 100 || matrix > VESK_MATRIX_BT709)
        return VESK_ERR_INVALID_PARAM;
    tj_handle h(true);
    if (h.get() == nullptr)
        return VESK_ERR_NO_RESOURCE;
    const int w = int(src.width), ht = int(src.height);
    const int subsamp = src.format == VESK_PIX_GRAY8 ? TJSAMP_GRAY : TJSAMP_420;
    // With NOREALLOC TurboJPEG takes the buffer to hold tjBufSize() bytes whatever size it is
    // told, so a smaller caller buffer is written through accounted scratch and copied.
    const unsigned long worst = tjBufSize(w, ht, subsamp);
    vesk_scratch spill(out_size < worst ? worst : 0);
    unsigned char* dst = out_size < worst ? spill.data() : out;
    unsigned long len = worst;
    if (dst == nullptr)
        return VESK_ERR_NO_RESOURCE;
    int rc;
    const bool planes_as_is = src.format == VESK_PIX_I420 && matrix == VESK_MATRIX_BT601_FULL;
    if (planes_as_is) {
        const unsigned char* planes[3] = {src.plane[0], src.plane[1], src.plane[2]};
        const int strides[3] = {int(src.stride[0]), int(src.stride[1]), int(src.stride[2])};
        rc = tjCompressFromYUVPlanes(h.get(), planes, w, strides, ht, subsamp, &dst, &len, int(quality), TJFLAG_NOREALLOC);
    } else {
        // Anything TurboJPEG does not take as is becomes BGRA first.
        const uint8_t* pixels = src.plane[0];
        int pitch = int(src.stride[0]);
        int format = tj_format(src.format);
        vesk_scratch bgra(format < 0 ? size_t(w) * 4 * ht : 0);
        if (format < 0) {
            vesk_image tmp;
            if (bgra.data() == nullptr
                || vesk_utility_image_wrap(&tmp, VESK_PIX_ARGB8888, src.width, src.height, bgra.data(), w * 4 * ht)
                    != VESK_OK)
                return VESK_ERR_NO_RESOURCE;
            const VESK_ERR err = image_convert(src, nullptr, tmp, matrix);
            if (err != VESK_OK)
                return err;
            pixels = bgra.data();
            pitch = w * 4;
            format = TJPF_BGRA;
        }
        rc = tjCompress2(h.get(), pixels, w, pitch, ht, format, &dst, &len, subsamp, int(quality), TJFLAG_NOREALLOC);
    }
    if (rc != 0) {
        VESK_ERR_FN("jpeg encode: %s\n", tjGetErrorStr2(h.get()));
        return VESK_ERR_OPERATE_FAIL;
    }
    if (len > out_size)
        return VESK_ERR_NO_RESOURCE;
    if (dst != out)
        memcpy(out, dst, len);
    out_len = uint32_t(len);
    return VESK_OK;
}

VESK_ERR jpeg_decode(const uint8_t* jpeg, uint32_t size, uint32_t denom, uint64_t max_pixels, const vesk_image& dst)
{
    if (denom != 1 && denom != 2 && denom != 4 && denom != 8)
        return VESK_ERR_INVALID_PARAM;
    tj_handle h(false);
    header hd;
    if (h.get() == nullptr)
        return VESK_ERR_NO_RESOURCE;
    VESK_ERR err = read_header(h.get(), jpeg, size, hd);
    if (err != VESK_OK)
        return err;
    if (uint64_t(hd.width) * uint64_t(hd.height) > max_pixels)
        return VESK_ERR_NO_RESOURCE;
    if (hd.colorspace == TJCS_CMYK || hd.colorspace == TJCS_YCCK)
        return VESK_ERR_NOT_SUPPORT;
    const tjscalingfactor sf = {1, int(denom)};
    const int sw = TJSCALED(hd.width, sf), sh = TJSCALED(hd.height, sf);
    if (!image_valid(dst) || int(dst.width) != sw || int(dst.height) != sh)
        return VESK_ERR_INVALID_PARAM;

    int rc;
    const int format = tj_format(dst.format);
    if (format >= 0) {
        rc = tjDecompress2(h.get(), jpeg, size, dst.plane[0], sw, int(dst.stride[0]), sh, format, k_decode_flags);
    } else if (dst.format == VESK_PIX_I420 && hd.subsamp == TJSAMP_420) {
        unsigned char* planes[3] = {dst.plane[0], dst.plane[1], dst.plane[2]};
        int strides[3] = {int(dst.stride[0]), int(dst.stride[1]), int(dst.stride[2])};
        rc = tjDecompressToYUVPlanes(h.get(), jpeg, size, planes, sw, strides, sh, k_decode_flags);
    } else {
        // Into I420 (a 4:2:0 file) or BGRA scratch, then converted as full-range BT.601.
        const bool yuv = hd.subsamp == TJSAMP_420 && image_is_yuv(dst.format);
        const uint32_t fmt = yuv ? VESK_PIX_I420 : VESK_PIX_ARGB8888;
        const uint32_t bytes = vesk_utility_image_size(fmt, uint32_t(sw), uint32_t(sh));
        vesk_scratch mem(bytes);
        vesk_image tmp;
        if (mem.data() == nullptr || vesk_utility_image_wrap(&tmp, fmt, uint32_t(sw), uint32_t(sh), mem.data(), bytes) != VESK_OK)
            return VESK_ERR_NO_RESOURCE;
        if (yuv) {
            unsigned char* planes[3] = {tmp.plane[0], tmp.plane[1], tmp.plane[2]};
            int strides[3] = {int(tmp.stride[0]), int(tmp.stride[1]), int(tmp.stride[2])};
            rc = tjDecompressToYUVPlanes(h.get(), jpeg, size, planes, sw, strides, sh, k_decode_flags);
        } else {
            rc = tjDecompress2(h.get(), jpeg, size, tmp.plane[0], sw, int(tmp.stride[0]), sh, TJPF_BGRA, k_decode_flags);
        }
        if (rc == 0)
            return image_convert(tmp, nullptr, dst, VESK_MATRIX_BT601_FULL);
    }
    // A warning (a truncated or damaged file) fails too: a snapshot is whole or it is refused.
    if (rc != 0)
        return VESK_ERR_OPERATE_FAIL;
    return VESK_OK;
}

} // namespace vesk_utility
