// vesk_utility_md5 - MD5 counters and one-shot digests over nettle. Files are streamed through
// a stack buffer: an upgrade image is larger than the memory the box can spare for it.
#include "codec/vesk_utility_md5.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_purposes.h"

namespace vesk_utility {

using namespace vesk_soft;

namespace {
constexpr char k_src[] = "vesk_utility_md5.cpp";
constexpr size_t k_file_chunk = 16 * 1024;
}  // namespace

void* vesk_md5_realize::operator new(std::size_t size) noexcept
{
    return vesk_malloc(VESK_USER_UTILITY, k_purpose_md5_cnt, static_cast<unsigned>(size),
                       vesk_obj_align<vesk_md5_realize>());
}

void vesk_md5_realize::operator delete(void* p) noexcept
{
    vesk_free(k_src, "vesk_md5_realize", p);
}

vesk_md5_realize::vesk_md5_realize()
{
    md5_init(&m_ctx);
}

VESK_ERR vesk_md5_realize::reset()
{
    md5_init(&m_ctx);
    return VESK_OK;
}

VESK_ERR vesk_md5_realize::update(const void* data, uint32_t len)
{
    if (data == nullptr && len > 0) {
        VESK_LOG_ERR("vesk_md5_realize", "data == NULL, len = %u\n", len);
        return VESK_ERR_INVALID_PARAM;
    }
    if (len > 0)
        md5_update(&m_ctx, len, static_cast<const uint8_t*>(data));
    return VESK_OK;
}

VESK_ERR vesk_md5_realize::final(uint8_t digest[16])
{
    if (digest == nullptr) {
        VESK_LOG_ERR("vesk_md5_realize", "digest == NULL\n");
        return VESK_ERR_INVALID_PARAM;
    }
    md5_digest(&m_ctx, MD5_DIGEST_SIZE, digest);  // also resets the context
    return VESK_OK;
}

VESK_ERR vesk_md5_realize::final_hex(char hex[33])
{
    if (hex == nullptr) {
        VESK_LOG_ERR("vesk_md5_realize", "hex == NULL\n");
        return VESK_ERR_INVALID_PARAM;
    }
    uint8_t digest[MD5_DIGEST_SIZE];
    md5_digest(&m_ctx, MD5_DIGEST_SIZE, digest);
    vesk_md5_hex(digest, hex);
    return VESK_OK;
}

void vesk_md5_hex(const uint8_t digest[16], char hex[33])
{
    static const char k_digits[] = "0123456789abcdef";
    for (int i = 0; i < 16; i++) {
        hex[2 * i] = k_digits[digest[i] >> 4];
        hex[2 * i + 1] = k_digits[digest[i] & 0xF];
    }
    hex[32] = '\0';
}

void vesk_md5_buf(const void* data, uint32_t len, uint8_t digest[16])
{
    md5_ctx ctx;
    md5_init(&ctx);
    if (len > 0)
        md5_update(&ctx, len, static_cast<const uint8_t*>(data));
    md5_digest(&ctx, MD5_DIGEST_SIZE, digest);
}

VESK_ERR vesk_md5_file(const char* path, uint8_t digest[16])
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        VESK_ERR_FN("open %s fail: %s\n", path, strerror(errno));
        return VESK_ERR_OPERATE_FAIL;
    }
    md5_ctx ctx;
    md5_init(&ctx);
    uint8_t buf[k_file_chunk];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n == 0)
            break;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            VESK_ERR_FN("read %s fail: %s\n", path, strerror(errno));
            close(fd);
            return VESK_ERR_OPERATE_FAIL;
        }
        md5_update(&ctx, static_cast<size_t>(n), buf);
    }
    close(fd);
    md5_digest(&ctx, MD5_DIGEST_SIZE, digest);
    return VESK_OK;
}

}  // namespace vesk_utility
