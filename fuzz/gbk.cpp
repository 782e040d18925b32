// Host names: an output size, then a text.
#include "fuzz/fuzz.h"
#include "ovani/encoding_manager.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    start_daemon(1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input{{data, size}};
    std::vector<char> utf8(input.byte(), 'x');
    auto room = static_cast<unsigned>(utf8.size());
    auto text = text_of(input.rest);
    auto length = static_cast<unsigned>(text.size() - 1);
    auto *gbk = reinterpret_cast<unsigned char *>(text.data());
    is_text_utf_eight(text.data(), static_cast<long>(length));
    ovani_convert_gbk_host_endian(gbk);
    PROMISE(text.back() == '\0');
    unsigned written = room;
    if (gbk_to_utf_eight(gbk, length, reinterpret_cast<unsigned char *>(utf8.data()), &written) != 0) {
        PROMISE(std::ranges::all_of(utf8, [](char c) { return c == 'x'; }));
        return 0;
    }
    PROMISE(written < room);
    PROMISE(std::all_of(utf8.begin() + written, utf8.end(), [](char c) { return c == '\0'; }));
    bool ascii = std::none_of(utf8.begin(), utf8.end(), [](char c) { return (c & 0x80) != 0; });
    PROMISE(ascii || is_text_utf_eight(utf8.data(), written) == 1);
    return 0;
}
