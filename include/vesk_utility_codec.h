// vesk_utility_codec.h - byte codecs: character-set conversion (GB2312, GBK, UTF-8 and any
// other set the C library's iconv knows), base64, MD5 and triple DES.
//
// Common contract of the buffer functions below:
// - Arguments are checked first: a NULL pointer (other than an optional out_len) or a
//   meaningless size is VESK_ERR_INVALID_PARAM, logged, and nothing is written.
// - Output goes into the caller's buffer `out` of `out_size` bytes; nothing is ever written at
//   or past out + out_size. A result that does not fit is VESK_ERR_NO_RESOURCE.
// - `out_len`, when not NULL, receives the bytes written (0 on failure; what a failed call
//   left in `out` is not to be used).
// - They keep no state of the layer and work before vesk_utility_init, like the generic
//   helpers; the MD5 counter handle alone needs the layer initialised.
// - Thread safety: every function may be called from any thread at any time. A vesk_md5_cnt
//   is one running digest and belongs to one thread at a time.
#ifndef VESK_UTILITY_CODEC_H
#define VESK_UTILITY_CODEC_H

#include <cstdint>

#include "vesk_utility_types.h"

namespace vesk_soft {

// ---- Character sets ---------------------------------------------------------------------
// Converts in_len bytes of `in` from character set `from` to `to` (iconv names: "GB2312",
// "GBK", "GB18030", "UTF-8", "UTF-16LE", "BIG5", ...; `in` need not be NUL-terminated).
// Text results are always NUL-terminated: one byte after the converted ones, not counted in
// *out_len, so out_size must exceed the converted length.
// Input that is invalid in `from`, cut off at its end, or not representable in `to`:
//   replace_invalid false: VESK_ERR_OPERATE_FAIL;
//   replace_invalid true:  each such character (a single byte when the input is not even
//   well-formed) becomes U+FFFD when `to` is UTF-8, '?' otherwise, and the call succeeds.
// A set this system's iconv cannot convert (on a board image without the gconv module):
// VESK_ERR_NOT_SUPPORT, logged with the name of the set that has no module.
// Each thread keeps a few open converters, one per direction used, so a steady stream of
// conversions costs no iconv_open (glibc allocates them with its own malloc: they are not in
// the layer's accounting; they are closed when the thread ends).
VESK_API VESK_ERR vesk_utility_charset_convert(const char* from, const char* to, const char* in, uint32_t in_len,
                                               char* out, uint32_t out_size, uint32_t* out_len,
                                               VESK_BOOL replace_invalid);
// Shortcuts of vesk_utility_charset_convert without replacement (invalid input fails).
// GB2312 is the two-byte EUC form (EUC-CN) in which the console and the Chinese titles travel;
// GBK is its superset. UTF-8 text is 1.5 times its GB2312 size at most (3 bytes for each 2).
VESK_API VESK_ERR vesk_utility_gb2312_to_utf8(const char* in, uint32_t in_len, char* out, uint32_t out_size,
                                              uint32_t* out_len);
VESK_API VESK_ERR vesk_utility_utf8_to_gb2312(const char* in, uint32_t in_len, char* out, uint32_t out_size,
                                              uint32_t* out_len);
VESK_API VESK_ERR vesk_utility_gbk_to_utf8(const char* in, uint32_t in_len, char* out, uint32_t out_size,
                                           uint32_t* out_len);
VESK_API VESK_ERR vesk_utility_utf8_to_gbk(const char* in, uint32_t in_len, char* out, uint32_t out_size,
                                           uint32_t* out_len);
// Whether len bytes of `in` are well-formed UTF-8 (RFC 3629: no overlong forms, no surrogates,
// nothing above U+10FFFF). An empty input is; a NULL one with len > 0 is not.
VESK_API VESK_BOOL vesk_utility_is_utf8(const char* in, uint32_t len);
// Cuts the NUL-terminated UTF-8 string `str` in place so that it fits a fixed field of
// field_size bytes with its NUL, never inside a character (a character that would be split is
// dropped whole). *out_len (optional) gets the new length. field_size 0 is
// VESK_ERR_INVALID_PARAM. Bytes that are not UTF-8 are counted as one character each.
VESK_API VESK_ERR vesk_utility_utf8_truncate(char* str, uint32_t field_size, uint32_t* out_len);

// ---- Base64 (RFC 4648) ------------------------------------------------------------------
// Flags, or-ed: the URL-safe alphabet ('-' and '_' for '+' and '/'), and no '=' padding on
// encoding.
constexpr uint32_t VESK_BASE64_URL = 0x1;
constexpr uint32_t VESK_BASE64_NO_PAD = 0x2;

// The out_size an encoding of in_len bytes needs, with its NUL (UINT32_MAX when no buffer
// could hold it).
VESK_API uint32_t vesk_utility_base64_encode_size(uint32_t in_len, uint32_t flags);
// Encodes in_len bytes as text, NUL-terminated (the NUL not counted in *out_len).
VESK_API VESK_ERR vesk_utility_base64_encode(const void* in, uint32_t in_len, char* out, uint32_t out_size,
                                             uint32_t* out_len, uint32_t flags);
// Decodes in_len characters strictly: only characters of the alphabet the flags choose, then
// either complete '=' padding or none at all (VESK_BASE64_NO_PAD is irrelevant here), and
// unused trailing bits zero. Anything else (white space, a line break, a lone final
// character, '=' inside, the other alphabet's characters) is VESK_ERR_OPERATE_FAIL. The output
// is binary and not terminated; its size is at most in_len / 4 * 3 + 2.
VESK_API VESK_ERR vesk_utility_base64_decode(const char* in, uint32_t in_len, void* out, uint32_t out_size,
                                             uint32_t* out_len, uint32_t flags);

// ---- MD5 --------------------------------------------------------------------------------
// MD5 is kept for what the firmware's peers check with it (upgrade images, digest logins),
// not for security.

// One running digest. Get it with vesk_utility_new_md5_cnt, give it back with
// vesk_utility_delete_md5_cnt; it lives in the layer's accounted memory and is listed by the
// resource manager's handle dump ("md5 fd").
class vesk_md5_cnt {
public:
    // Starts a new digest (a new counter starts reset).
    virtual VESK_ERR reset() = 0;
    // Adds len bytes. VESK_ERR_INVALID_PARAM for NULL data with len > 0.
    virtual VESK_ERR update(const void* data, uint32_t len) = 0;
    // The 16-byte digest of everything added since the last reset; the counter is reset.
    virtual VESK_ERR final(uint8_t digest[16]) = 0;
    // The same as 32 lower-case hex characters and a NUL (33 bytes); the counter is reset.
    virtual VESK_ERR final_hex(char hex[33]) = 0;
    virtual ~vesk_md5_cnt() {}
};

// NULL before vesk_utility_init or when the registry is out of nodes.
VESK_API vesk_md5_cnt* vesk_utility_new_md5_cnt(vesk_user_id usr_id, const char* name);
// Deleting a counter that is not registered (never created, already deleted) ends the process.
VESK_API VESK_ERR vesk_utility_delete_md5_cnt(vesk_md5_cnt* cnt, const char* file, const char* func);
// Digest of len bytes at data.
VESK_API VESK_ERR vesk_utility_md5_buf(const void* data, uint32_t len, uint8_t digest[16]);
// Digest of a whole file, read in pieces through a 16 KiB stack buffer (upgrade images are
// larger than the memory to spare). A file that cannot be opened or read:
// VESK_ERR_OPERATE_FAIL, logged with the errno text.
VESK_API VESK_ERR vesk_utility_md5_file(const char* path, uint8_t digest[16]);

// ---- Triple DES (DES-EDE3) --------------------------------------------------------------
// Kept only for compatibility with devices that still speak it; it is slow and its 64-bit
// blocks are weak by today's measure. Do not choose it for anything new.
enum vesk_3des_mode : uint32_t {
    VESK_3DES_ECB = 0,
    VESK_3DES_CBC = 1,  // iv: 8 bytes, required
};
enum vesk_3des_pad : uint32_t {
    VESK_3DES_PAD_NONE = 0,   // in_len must be a multiple of 8
    VESK_3DES_PAD_PKCS7 = 1,  // 1-8 bytes of value n are added; checked and removed on decryption
    VESK_3DES_PAD_ZERO = 2,   // 0-7 zero bytes are added; decryption returns them (they cannot
                              // be told from data: the caller knows its length)
};

// key_len 16 (two keys: K1 K2, the third is K1) or 24 (K1 K2 K3); parity bits are ignored and
// weak keys are accepted, as other implementations do. out may equal in (no other overlap).
// out_size must hold the padded length (in_len rounded up to 8, plus 8 with PKCS#7 when in_len
// is a multiple of 8).
// An unknown mode or padding, a missing iv in CBC mode, or an unpadded in_len that is not a
// multiple of 8: VESK_ERR_INVALID_PARAM.
VESK_API VESK_ERR vesk_utility_3des_encrypt(const uint8_t* key, uint32_t key_len, vesk_3des_mode mode,
                                            vesk_3des_pad pad, const uint8_t* iv, const void* in, uint32_t in_len,
                                            void* out, uint32_t out_size, uint32_t* out_len);
// Ciphertext whose length is not a multiple of 8 (nor at least 8 with PKCS#7), or a wrong
// PKCS#7 pad (wrong key, damaged data): VESK_ERR_OPERATE_FAIL, *out_len 0, and out holds
// garbage that must not be used. out_size must hold the plaintext: in_len, less the pad.
// out may equal in (no other overlap).
VESK_API VESK_ERR vesk_utility_3des_decrypt(const uint8_t* key, uint32_t key_len, vesk_3des_mode mode,
                                            vesk_3des_pad pad, const uint8_t* iv, const void* in, uint32_t in_len,
                                            void* out, uint32_t out_size, uint32_t* out_len);

}  // namespace vesk_soft

#endif  // VESK_UTILITY_CODEC_H
