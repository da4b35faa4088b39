// vesk_utility_charset - character-set conversion over glibc iconv. An iconv_t carries shift
// state and is not thread-safe, and opening one loads a gconv module and costs far more than a
// short conversion, so each thread keeps its own small set of open converters.
#include "codec/vesk_utility_charset.h"

#include <errno.h>
#include <iconv.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "core/vesk_utility_log.h"

namespace vesk_utility {

using namespace vesk_soft;

namespace {

const iconv_t k_no_cd = reinterpret_cast<iconv_t>(-1);
constexpr size_t k_iconv_fail = static_cast<size_t>(-1);

// Per-thread converters, keyed by the two names exactly as the caller spelled them. Four
// directions cover the firmware's use (GB2312/GBK to and from UTF-8); a fifth replaces the
// oldest. Names longer than the key are converted with a converter of the call's own.
struct conv_cache {
    static constexpr int k_slots = 4;
    static constexpr size_t k_name_max = 23;
    struct slot {
        char from[k_name_max + 1];
        char to[k_name_max + 1];
        iconv_t cd = k_no_cd;
    };
    slot slots[k_slots];
    int next = 0;

    conv_cache() = default;
    conv_cache(const conv_cache&) = delete;
    conv_cache& operator=(const conv_cache&) = delete;
    ~conv_cache()
    {
        for (slot& s : slots)
            if (s.cd != k_no_cd)
                iconv_close(s.cd);
    }
};

thread_local conv_cache t_cache;

bool is_utf8_name(const char* name)
{
    return strcasecmp(name, "UTF-8") == 0 || strcasecmp(name, "UTF8") == 0;
}

// Says which of the two sets has no converter on this system (a board image without its
// gconv module); UTF-8 is built into the C library.
void log_missing_module(const char* from, const char* to)
{
    const char* missing = from;
    iconv_t probe = iconv_open("UTF-8", from);
    if (probe != k_no_cd) {
        iconv_close(probe);
        missing = to;
    }
    const char* path = getenv("GCONV_PATH");
    VESK_ERR_FN("no gconv module for %s (converting %s to %s; GCONV_PATH=%s)\n", missing, from, to,
                path != nullptr ? path : "(default)");
}

// The converter of this thread for from -> to; *owned is set when the caller must close it.
// With may_evict false a converter missing from the cache is opened for the call alone, so
// that the one a conversion in progress uses stays open.
iconv_t get_converter(const char* from, const char* to, bool* owned, bool may_evict = true)
{
    *owned = false;
    const bool cacheable = strlen(from) <= conv_cache::k_name_max && strlen(to) <= conv_cache::k_name_max;
    if (cacheable) {
        for (conv_cache::slot& s : t_cache.slots)
            if (s.cd != k_no_cd && strcmp(s.from, from) == 0 && strcmp(s.to, to) == 0) {
                iconv(s.cd, nullptr, nullptr, nullptr, nullptr);  // back to the initial state
                return s.cd;
            }
    }
    iconv_t cd = iconv_open(to, from);
    if (cd == k_no_cd) {
        log_missing_module(from, to);
        return k_no_cd;
    }
    if (!cacheable || !may_evict) {
        *owned = true;
        return cd;
    }
    conv_cache::slot& s = t_cache.slots[t_cache.next];
    t_cache.next = (t_cache.next + 1) % conv_cache::k_slots;
    if (s.cd != k_no_cd)
        iconv_close(s.cd);
    strcpy(s.from, from);
    strcpy(s.to, to);
    s.cd = cd;
    return cd;
}

// How many input bytes the character at `in` takes in set `from` when iconv refused it
// (invalid there, or not representable in the target): 1 when it is no character at all.
size_t refused_char_len(const char* from, const char* in, size_t avail)
{
    if (is_utf8_name(from)) {
        uint32_t n = vesk_utf8_char_len(reinterpret_cast<const unsigned char*>(in),
                                        avail > 4 ? 4 : static_cast<uint32_t>(avail));
        return n != 0 ? n : 1;
    }
    bool owned = false;
    iconv_t cd = get_converter(from, "UTF-8", &owned, false);
    size_t len = 1;
    if (cd == k_no_cd)
        return len;
    for (size_t n = 1; n <= 4 && n <= avail; n++) {
        char buf[16];
        char* ip = const_cast<char*>(in);
        size_t il = n;
        char* op = buf;
        size_t ol = sizeof(buf);
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        if (iconv(cd, &ip, &il, &op, &ol) != k_iconv_fail && il == 0) {
            len = n;
            break;
        }
        if (errno == EILSEQ)
            break;
    }
    if (owned)
        iconv_close(cd);
    return len;
}

}  // namespace

uint32_t vesk_utf8_char_len(const unsigned char* s, uint32_t avail)
{
    if (avail == 0)
        return 0;
    const unsigned char c = s[0];
    if (c < 0x80)
        return 1;
    uint32_t n;
    unsigned char lo = 0x80, hi = 0xBF;  // range of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
        n = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        if (c == 0xE0)
            lo = 0xA0;  // no overlong forms
        else if (c == 0xED)
            hi = 0x9F;  // no surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        if (c == 0xF0)
            lo = 0x90;
        else if (c == 0xF4)
            hi = 0x8F;  // nothing above U+10FFFF
    } else {
        return 0;
    }
    if (avail < n || s[1] < lo || s[1] > hi)
        return 0;
    for (uint32_t i = 2; i < n; i++)
        if ((s[i] & 0xC0) != 0x80)
            return 0;
    return n;
}

bool vesk_is_utf8(const char* s, uint32_t len)
{
    const unsigned char* p = reinterpret_cast<const unsigned char*>(s);
    uint32_t i = 0;
    while (i < len) {
        if (p[i] < 0x80) {  // the common ASCII run, one compare a byte
            i++;
            continue;
        }
        uint32_t n = vesk_utf8_char_len(p + i, len - i);
        if (n == 0)
            return false;
        i += n;
    }
    return true;
}

uint32_t vesk_utf8_fit(const char* s, uint32_t len, uint32_t max)
{
    if (len <= max)
        return len;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(s);
    uint32_t i = 0;
    while (i < len) {
        uint32_t n = vesk_utf8_char_len(p + i, len - i);
        if (n == 0)
            n = 1;
        if (i + n > max)
            break;
        i += n;
    }
    return i;
}

unsigned vesk_charset_cached_converters()
{
    unsigned n = 0;
    for (const conv_cache::slot& s : t_cache.slots)
        n += s.cd != k_no_cd;
    return n;
}

VESK_ERR vesk_charset_convert(const char* from, const char* to, const char* in, uint32_t in_len, char* out,
                              uint32_t out_size, uint32_t* out_len, bool replace_invalid)
{
    if (out_len != nullptr)
        *out_len = 0;
    out[0] = '\0';
    bool owned = false;
    iconv_t cd = get_converter(from, to, &owned);
    if (cd == k_no_cd)
        return VESK_ERR_NOT_SUPPORT;

    static const char k_utf8_replacement[] = "\xEF\xBF\xBD";  // U+FFFD
    const char* repl = is_utf8_name(to) ? k_utf8_replacement : "?";
    const size_t repl_len = strlen(repl);

    char* ip = const_cast<char*>(in);  // iconv's prototype; the input is not written
    size_t il = in_len;
    char* op = out;
    size_t ol = out_size - 1;  // the NUL's byte stays free
    VESK_ERR ret = VESK_OK;
    while (il > 0) {
        if (iconv(cd, &ip, &il, &op, &ol) != k_iconv_fail)
            break;
        if (errno == E2BIG) {
            ret = VESK_ERR_NO_RESOURCE;
            break;
        }
        if ((errno != EILSEQ && errno != EINVAL) || !replace_invalid) {
            ret = VESK_ERR_OPERATE_FAIL;
            break;
        }
        // The refused character: at most what is left when it is cut off at the end.
        // Into UTF-8 every character is representable, so a refusal there is a bad byte.
        size_t skip = (errno == EINVAL || is_utf8_name(to)) ? 1 : refused_char_len(from, ip, il);
        if (ol < repl_len) {
            ret = VESK_ERR_NO_RESOURCE;
            break;
        }
        memcpy(op, repl, repl_len);
        op += repl_len;
        ol -= repl_len;
        ip += skip;
        il -= skip;
    }
    // A stateful target (ISO-2022, UTF-7) may still owe its return to the initial state.
    if (ret == VESK_OK && iconv(cd, nullptr, nullptr, &op, &ol) == k_iconv_fail)
        ret = VESK_ERR_NO_RESOURCE;
    if (owned)
        iconv_close(cd);
    if (ret != VESK_OK) {
        out[0] = '\0';
        return ret;
    }
    *op = '\0';
    if (out_len != nullptr)
        *out_len = static_cast<uint32_t>(op - out);
    return VESK_OK;
}

}  // namespace vesk_utility
