// Host names arrive as UTF-8 or as GBK (the Chinese double-byte code page 936 family) and are kept as UTF-8.
#pragma once

// Whether the first `length` bytes are well-formed UTF-8 (RFC 2279: sequences of up to six bytes; overlong
// forms and surrogates pass) with at least one multi-byte sequence. Pure ASCII is 0: it takes the GBK road,
// which leaves it as it is.
int is_text_utf_eight(const char *str, long length);

// Swaps the two bytes of every double-byte character in place, so that the trail byte comes first. Returns
// its argument.
unsigned char *ovani_convert_gbk_host_endian(unsigned char *host_name_gbk);

// Decodes one character, given as first byte plus 256 times second byte of a swapped text. Returns how many
// bytes it took, 1 or 2; 0 for an unknown code, with a line feed as its character.
int enc_gbk_to_unicode_one(unsigned short gbk, unsigned int *ucs);

// Converts a swapped GBK text to UTF-8. `*outlen` is the size of `outbuf` on entry and the bytes written on
// success; the rest of `outbuf` is then zero, and at least one byte of it remains. Unknown codes become line
// feeds. Returns 0, or -1 with `outbuf` untouched.
int gbk_to_utf_eight(const unsigned char *inbuf, unsigned int inlen, unsigned char *outbuf,
                     unsigned int *outlen);
