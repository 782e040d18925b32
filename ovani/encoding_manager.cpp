#include "ovani/encoding_manager.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ovani/encoding_manager_table.h"
#include "ovani/ovani_log.h"

namespace {

// Continuation bytes after a lead byte, -1 for a byte that cannot lead. FE and FF lead five-byte sequences.
int continuation_bytes(uint8_t lead)
{
    if (lead >= 0xfe) {
        return 4;
    }
    if (lead >= 0xfc) {
        return 5;
    }
    if (lead >= 0xf8) {
        return 4;
    }
    if (lead >= 0xf0) {
        return 3;
    }
    if (lead >= 0xe0) {
        return 2;
    }
    return lead >= 0xc0 ? 1 : -1;
}

} // namespace

int is_text_utf_eight(const char *str, long length)
{
    if (str == nullptr) {
        return 0;
    }
    int expected = 0;
    bool all_ascii = true;
    for (long i = 0; i < length; ++i) {
        auto byte = static_cast<uint8_t>(str[i]);
        if (expected > 0) {
            if ((byte & 0xc0) != 0x80) {
                return 0;
            }
            --expected;
        } else if (byte >= 0x80) {
            all_ascii = false;
            expected = continuation_bytes(byte);
            if (expected < 0) {
                return 0;
            }
        }
    }
    return expected == 0 && !all_ascii ? 1 : 0;
}

unsigned char *ovani_convert_gbk_host_endian(unsigned char *host_name_gbk)
{
    if (host_name_gbk == nullptr) {
        ovani_log(VELM_LOG_DEBUG, "host_name_gbk is bigedtion return\n");
        return nullptr;
    }
    ovani_log(VELM_LOG_DEBUG, "host_name_gbk is littleedtion to conver\n");
    size_t length = strlen(reinterpret_cast<const char *>(host_name_gbk));
    for (size_t i = 0; i + 1 < length; ++i) {
        if (host_name_gbk[i] >= 0x80) {
            std::swap(host_name_gbk[i], host_name_gbk[i + 1]);
            ++i;
        }
    }
    return host_name_gbk;
}

int enc_gbk_to_unicode_one(unsigned short gbk, unsigned int *ucs)
{
    // The first byte alone decides whether this is ASCII. A double-byte character whose trail byte is below
    // 0x80 is therefore read as that ASCII character and a stray lead byte.
    unsigned int first = gbk & 0xffU;
    if (first < 0x80) {
        *ucs = first;
        return 1;
    }
    *ucs = '\n';
    if (gbk < GBK_FIRST || gbk > GBK_LAST) {
        ovani_log(VELM_LOG_DEBUG, "gbk = 0x%x\n", gbk);
        ovani_log(VELM_LOG_DEBUG, "gbk code error\n");
        return 0;
    }
    const GbkRow *row = std::ranges::lower_bound(tab_GBK_to_UCS2, gbk, {}, &GbkRow::gbk);
    if (row->gbk != gbk) {
        ovani_log(VELM_LOG_DEBUG, "gbk=0x%x\n", gbk);
        ovani_log(VELM_LOG_DEBUG, "gbk code error\n");
        return 0;
    }
    *ucs = row->ucs2;
    return 2;
}

namespace {

constexpr size_t UTF8_MAX_BYTES = 6;

// The six-byte scheme of RFC 2279. Returns the length written, 0 for a value of 0x80000000 or above.
int enc_unicode_to_utf8_one(unsigned int ucs, unsigned char *out)
{
    struct Form {
        unsigned int limit;
        uint8_t lead;
    };
    constexpr Form forms[] = {{0x80, 0x00},     {0x800, 0xc0},     {0x10000, 0xe0},
                              {0x200000, 0xf0}, {0x4000000, 0xf8}, {0x80000000, 0xfc}};
    int continuation = 0;
    for (const Form &form : forms) {
        if (ucs < form.limit) {
            for (int i = continuation; i > 0; --i) {
                out[i] = static_cast<uint8_t>(0x80 | (ucs & 0x3f));
                ucs >>= 6;
            }
            out[0] = static_cast<uint8_t>(form.lead | ucs);
            return continuation + 1;
        }
        ++continuation;
    }
    return 0;
}

struct Freed {
    void operator()(unsigned char *block) const { free(block); }
};

} // namespace

int gbk_to_utf_eight(const unsigned char *inbuf, unsigned int inlen, unsigned char *outbuf,
                     unsigned int *outlen)
{
    if (inbuf == nullptr || outbuf == nullptr || outlen == nullptr) {
        ovani_log(VELM_LOG_DEBUG, "param err, NULL pointer\n");
        return -1;
    }
    if (inlen == 0 || *outlen == 0) {
        ovani_log(VELM_LOG_DEBUG, "param err, buf length 0\n");
        return -1;
    }
    std::unique_ptr<unsigned char, Freed> utf8{static_cast<unsigned char *>(calloc(inlen, UTF8_MAX_BYTES))};
    if (utf8 == nullptr) {
        return -1;
    }
    unsigned int length = 0;
    unsigned int i = 0;
    while (inlen - i >= 2) {
        unsigned int ucs = 0;
        auto code = static_cast<unsigned short>(inbuf[i] | inbuf[i + 1] << 8);
        i += enc_gbk_to_unicode_one(code, &ucs) == 1 ? 1 : 2;
        length += static_cast<unsigned int>(enc_unicode_to_utf8_one(ucs, utf8.get() + length));
    }
    // A last ASCII byte is kept, a last lead byte without its trail dropped.
    if (inlen - i == 1 && inbuf[i] < 0x80) {
        utf8.get()[length++] = inbuf[i];
    }
    if (length >= *outlen) {
        ovani_log(VELM_LOG_DEBUG, "output len %d not enough need %d bytes\n", static_cast<int>(*outlen),
                  static_cast<int>(length + 1));
        return -1;
    }
    memset(outbuf, 0, *outlen);
    memcpy(outbuf, utf8.get(), length);
    *outlen = length;
    return 0;
}
