// vesk_utility_md5 - MD5 digests over nettle: the counter object behind vesk_md5_cnt, whose
// nettle context lives inside the accounted object (nettle allocates nothing of its own), and
// the one-shot digests of a buffer and of a file.
#ifndef VESK_UTILITY_MD5_H
#define VESK_UTILITY_MD5_H

#include <nettle/md5.h>

#include <cstddef>
#include <cstdint>

#include "vesk_utility_codec.h"

namespace vesk_utility {

using vesk_soft::VESK_ERR;

class vesk_md5_realize final : public vesk_soft::vesk_md5_cnt {
public:
    vesk_md5_realize();
    vesk_md5_realize(const vesk_md5_realize&) = delete;
    vesk_md5_realize& operator=(const vesk_md5_realize&) = delete;

    VESK_ERR reset() override;
    VESK_ERR update(const void* data, uint32_t len) override;
    VESK_ERR final(uint8_t digest[16]) override;
    VESK_ERR final_hex(char hex[33]) override;

    // Accounted under the layer's id (purpose k_purpose_md5_cnt).
    static void* operator new(std::size_t size) noexcept;
    static void operator delete(void* p) noexcept;

private:
    md5_ctx m_ctx;
};

void vesk_md5_buf(const void* data, uint32_t len, uint8_t digest[16]);
// VESK_ERR_OPERATE_FAIL (logged with the errno text) when the file cannot be opened or read.
VESK_ERR vesk_md5_file(const char* path, uint8_t digest[16]);
// 16 bytes as 32 lower-case hex characters and a NUL.
void vesk_md5_hex(const uint8_t digest[16], char hex[33]);

}  // namespace vesk_utility

#endif  // VESK_UTILITY_MD5_H
