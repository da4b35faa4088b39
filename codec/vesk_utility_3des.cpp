// vesk_utility_3des - triple DES over nettle. The key schedule lives on the stack for one call
// and is wiped before returning. The last block is padded or unpadded in a local copy, so that
// the caller's buffer needs to hold exactly the result and may be the input itself.
#include "codec/vesk_utility_3des.h"

#include <nettle/cbc.h>
#include <nettle/des.h>

#include <cstring>

namespace vesk_utility {

using namespace vesk_soft;

namespace {

constexpr uint32_t k_block = DES3_BLOCK_SIZE;

// A scheduled key; weak keys are scheduled all the same (nettle only reports them).
struct des3_key {
    des3_ctx ctx;
    explicit des3_key(const uint8_t* key, uint32_t key_len)
    {
        uint8_t k[DES3_KEY_SIZE];
        memcpy(k, key, 16);
        memcpy(k + 16, key + (key_len == 24 ? 16 : 0), 8);  // two keys: K3 = K1
        des3_set_key(&ctx, k);
        explicit_bzero(k, sizeof(k));
    }
    ~des3_key() { explicit_bzero(&ctx, sizeof(ctx)); }
    des3_key(const des3_key&) = delete;
    des3_key& operator=(const des3_key&) = delete;
};

void run_blocks(bool encrypt, des3_ctx* ctx, vesk_3des_mode mode, uint8_t* iv, uint32_t len, uint8_t* dst,
                const uint8_t* src)
{
    if (len == 0)
        return;
    if (mode == VESK_3DES_ECB) {
        (encrypt ? des3_encrypt : des3_decrypt)(ctx, len, dst, src);
        return;
    }
    // nettle's documented way of passing a cipher to its modes.
    nettle_cipher_func* f = encrypt ? reinterpret_cast<nettle_cipher_func*>(des3_encrypt)
                                    : reinterpret_cast<nettle_cipher_func*>(des3_decrypt);
    if (encrypt)
        cbc_encrypt(ctx, f, k_block, iv, len, dst, src);
    else
        cbc_decrypt(ctx, f, k_block, iv, len, dst, src);
}

}  // namespace

VESK_ERR vesk_3des_encrypt(const uint8_t* key, uint32_t key_len, vesk_3des_mode mode, vesk_3des_pad pad,
                           const uint8_t* iv, const uint8_t* in, uint32_t in_len, uint8_t* out, uint32_t out_size,
                           uint32_t* out_len)
{
    if (out_len != nullptr)
        *out_len = 0;
    const uint32_t whole = in_len / k_block * k_block;
    const uint32_t rest = in_len - whole;
    if (pad == VESK_3DES_PAD_NONE && rest != 0)
        return VESK_ERR_INVALID_PARAM;
    // PKCS#7 always adds a block's worth or less; zero padding only completes the last block.
    const bool last_block = pad == VESK_3DES_PAD_PKCS7 || rest != 0;
    const uint64_t total = static_cast<uint64_t>(whole) + (last_block ? k_block : 0);
    if (total > out_size)
        return VESK_ERR_NO_RESOURCE;

    uint8_t last[k_block];
    if (last_block) {  // copied before the whole blocks may overwrite an in-place input
        memcpy(last, in + whole, rest);
        memset(last + rest, pad == VESK_3DES_PAD_PKCS7 ? static_cast<int>(k_block - rest) : 0, k_block - rest);
    }
    des3_key k(key, key_len);
    uint8_t chain[k_block] = {};
    if (mode == VESK_3DES_CBC)
        memcpy(chain, iv, k_block);
    run_blocks(true, &k.ctx, mode, chain, whole, out, in);
    if (last_block)
        run_blocks(true, &k.ctx, mode, chain, k_block, out + whole, last);
    explicit_bzero(last, sizeof(last));
    if (out_len != nullptr)
        *out_len = static_cast<uint32_t>(total);
    return VESK_OK;
}

VESK_ERR vesk_3des_decrypt(const uint8_t* key, uint32_t key_len, vesk_3des_mode mode, vesk_3des_pad pad,
                           const uint8_t* iv, const uint8_t* in, uint32_t in_len, uint8_t* out, uint32_t out_size,
                           uint32_t* out_len)
{
    if (out_len != nullptr)
        *out_len = 0;
    if (in_len % k_block != 0 || (pad == VESK_3DES_PAD_PKCS7 && in_len == 0))
        return VESK_ERR_OPERATE_FAIL;
    if (in_len == 0)
        return VESK_OK;
    // The last block is decrypted into a local copy: its CBC chain value and the block itself
    // are saved first, since an in-place decryption of the others overwrites them.
    const uint32_t head = in_len - k_block;
    uint8_t last_ct[k_block], last_chain[k_block] = {}, chain[k_block] = {};
    memcpy(last_ct, in + head, k_block);
    if (mode == VESK_3DES_CBC) {
        memcpy(chain, iv, k_block);
        memcpy(last_chain, head == 0 ? iv : in + head - k_block, k_block);
    }
    des3_key k(key, key_len);
    uint8_t last[k_block];
    run_blocks(false, &k.ctx, mode, last_chain, k_block, last, last_ct);

    uint32_t keep = k_block;
    if (pad == VESK_3DES_PAD_PKCS7) {
        const uint8_t n = last[k_block - 1];
        bool ok = n >= 1 && n <= k_block;
        for (uint32_t i = k_block - (ok ? n : 0); i < k_block; i++)
            ok = ok && last[i] == n;
        if (!ok) {
            explicit_bzero(last, sizeof(last));
            return VESK_ERR_OPERATE_FAIL;
        }
        keep = k_block - n;
    }
    if (static_cast<uint64_t>(head) + keep > out_size) {
        explicit_bzero(last, sizeof(last));
        return VESK_ERR_NO_RESOURCE;
    }
    run_blocks(false, &k.ctx, mode, chain, head, out, in);
    memcpy(out + head, last, keep);
    explicit_bzero(last, sizeof(last));
    if (out_len != nullptr)
        *out_len = head + keep;
    return VESK_OK;
}

}  // namespace vesk_utility
