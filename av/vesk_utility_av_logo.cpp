// vesk_utility_av_logo - loading and lookup of the logo frames.
#include "av/vesk_utility_av_logo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <new>

#include "av/vesk_utility_av_mng.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_paths.h"
#include "core/vesk_utility_purposes.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr const char* k_cls = "vesk_logo_table";

constexpr const char* k_logo_paths[k_logo_rows] = {
    "/mnt/mtd/res/platform/novideo.nvr",
    "/mnt/mtd/res/platform/no_rec_file.nvr",
    "/mnt/mtd/res/platform/lock_ops.nvr",
    "/mnt/mtd/res/platform/company.nvr",
    "/mnt/mtd/res/platform/not_support.nvr",
    "/mnt/mtd/res/platform/svac.nvr",
    "/mnt/mtd/app/noauthority.nvr",
    "/mnt/mtd/app/gui_unmatch.nvr",
    "/mnt/mtd/res/platform/not_connect_camera.nvr",
    "/mnt/mtd/res/platform/not_support_video_type.nvr",
    "/mnt/mtd/res/platform/novideo_mid.nvr",
    "/mnt/mtd/res/platform/no_rec_file_mid.nvr",
    "/mnt/mtd/res/platform/lock_ops_mid.nvr",
    "/mnt/mtd/res/platform/company_mid.nvr",
    "/mnt/mtd/res/platform/not_support_mid.nvr",
    "/mnt/mtd/res/platform/svac_mid.nvr",
    "/mnt/mtd/app/noauthority_big.nvr",
    "/mnt/mtd/app/gui_unmatch.nvr",
    "/mnt/mtd/res/platform/not_connect_camera_mid.nvr",
    "/mnt/mtd/res/platform/not_support_video_type.nvr",
};

// Reads exactly len bytes unless the file ends first; the count read.
size_t read_full(int fd, void* buf, size_t len)
{
    size_t got = 0;
    while (got < len) {
        const ssize_t n = read(fd, static_cast<uint8_t*>(buf) + got, len - got);
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    return got;
}

} // namespace

const char* vesk_logo_table::row_path(uint32_t i)
{
    return k_logo_paths[i];
}

vesk_logo_table::~vesk_logo_table()
{
    for (row& r : m_rows)
        vesk_free(__FILE__, __func__, r.frame);
}

void vesk_logo_table::load(const char* root)
{
    for (uint32_t i = 0; i < k_logo_rows; i++) {
        row& r = m_rows[i];
        vesk_free(__FILE__, __func__, r.frame); // a reload replaces the row, or leaves it empty
        r.frame = nullptr;
        r.length = 0;
        r.type = i % 10 + 1;
        r.large = i >= 10 ? 1 : 0;
        char path[256];
        snprintf(path, sizeof(path), "%s%s", root, k_logo_paths[i]);
        const int fd = open(path, O_RDONLY);
        if (fd < 0) {
            VESK_LOG_ERR(k_cls, "[Load Logo Frame] Open Failed %s Failed\n", path);
            continue;
        }
        uint8_t head[k_nvr_head_size];
        if (read_full(fd, head, sizeof(head)) != sizeof(head)) {
            VESK_LOG_ERR(k_cls, "[Load Logo Frame] Read %s BMP File Header Failed\n", path);
            close(fd);
            continue;
        }
        uint16_t width;
        uint16_t height;
        uint32_t len;
        memcpy(&width, head + k_nvr_width_off, sizeof(width));
        memcpy(&height, head + k_nvr_height_off, sizeof(height));
        memcpy(&len, head + k_nvr_length_off, sizeof(len));
        if (width == 0 || height == 0) {
            VESK_LOG_ERR(k_cls, "[Load Logo Frame] Path %s Vertify Logo Frame Width[%hu] Height[%hu] Not Invalid\n",
                path, width, height);
            close(fd);
            continue;
        }
        // The length field is believed only as far as the file and the maximum go, before any
        // allocation: a lying field must cost neither a huge block nor the start-up.
        struct stat st;
        if (fstat(fd, &st) != 0 || st.st_size < static_cast<off_t>(k_nvr_head_size)
            || len > static_cast<uint64_t>(st.st_size) - k_nvr_head_size) {
            VESK_LOG_ERR(k_cls, "[Load Logo Frame] Read %s Logo Frame Failed\n", path);
            close(fd);
            continue;
        }
        if (len > k_logo_max_payload) {
            VESK_LOG_ERR(k_cls, "[Load Logo Frame] Path %s Logo Frame Length %u Over %u\n", path, len,
                k_logo_max_payload);
            close(fd);
            continue;
        }
        auto* frame = static_cast<uint8_t*>(
            vesk_malloc(VESK_USER_UTILITY, k_purpose_logo, len + sizeof(_tagVeskFrameHeader), 4));
        if (frame == nullptr) {
            VESK_LOG_ERR(k_cls, "[Load Logo Frame] Path %s Malloc Logo Frame Buffer Failed\n", path);
            close(fd);
            continue;
        }
        const size_t got = read_full(fd, frame + sizeof(_tagVeskFrameHeader), len);
        close(fd);
        if (got != len) {
            VESK_LOG_ERR(k_cls, "[Load Logo Frame] Read %s Logo Frame Failed\n", path);
            vesk_free(__FILE__, __func__, frame);
            continue;
        }
        _tagVeskFrameHeader h;
        memset(&h, 0, sizeof(h));
        h.uiStartId = VESK_FRAME_STARTCODE;
        h.uiFrameType = r.large != 0 ? VESK_FRAME_TYPE_I : VESK_FRAME_TYPE_KEY2;
        h.uiLength = static_cast<uint32_t>(got);
        h.usWidth = width;
        h.usHeight = height;
        h.ucCodec = 8;
        h.ucReserved[0] = 24;
        h.ucReserved[1] = 0x47;
        h.ucReserved[2] = 0x39;
        memcpy(frame, &h, sizeof(h));
        r.frame = reinterpret_cast<_tagVeskFrameHeader*>(frame);
        r.length = static_cast<uint32_t>(got + sizeof(h));
    }
}

VESK_ERR vesk_logo_table::get(uint32_t type, bool large, _tagVeskFrameHeader** frame, uint32_t* length)
{
    if (frame == nullptr || length == nullptr) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_OPERATE_FAIL;
    }
    _tagVeskFrameHeader* fallback = nullptr;
    uint32_t fallback_len = 0;
    for (const row& r : m_rows) {
        if (r.frame == nullptr || r.type != type)
            continue;
        if ((r.large != 0) == large) {
            *frame = r.frame;
            *length = r.length;
            return VESK_OK;
        }
        fallback = r.frame;
        fallback_len = r.length;
    }
    *frame = fallback;
    *length = fallback_len;
    return fallback != nullptr ? VESK_OK : VESK_ERR_OPERATE_FAIL;
}

vesk_logo_table& logo_table()
{
    // Never destroyed, like every service of the layer: readers may hold a logo frame until exit.
    alignas(vesk_logo_table) static unsigned char s_mem[sizeof(vesk_logo_table)];
    static vesk_logo_table* s_table = new (s_mem) vesk_logo_table();
    return *s_table;
}

void load_logo_frame()
{
    logo_table().load(vesk_root());
}

} // namespace vesk_utility
