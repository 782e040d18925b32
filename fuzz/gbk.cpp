// Host names: an output size, then a text.
#include "fuzz/daemon.h"
#include "fuzz/fuzz.h"
#include "ovani/encoding_manager.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fake::reset();
    constexpr unsigned char untouched = 0xaa;
    Input input{data, size};
    unsigned room = input.byte();
    auto text = text_of<unsigned char>(input.rest());
    auto length = static_cast<unsigned>(text.size() - 1);
    is_text_utf_eight(reinterpret_cast<const char *>(text.data()), static_cast<long>(length));
    ovani_convert_gbk_host_endian(text.data());
    PROMISE(text.back() == '\0');

    std::vector<unsigned char> utf8(room, untouched);
    unsigned written = room;
    if (gbk_to_utf_eight(text.data(), length, utf8.data(), &written) != 0) {
        PROMISE(std::ranges::count(utf8, untouched) == room);
        return 0;
    }
    PROMISE(written < room);
    PROMISE(std::all_of(utf8.begin() + written, utf8.end(), [](unsigned char c) { return c == 0; }));
    bool ascii = std::all_of(utf8.begin(), utf8.begin() + written, [](unsigned char c) { return c < 0x80; });
    PROMISE(ascii || is_text_utf_eight(reinterpret_cast<const char *>(utf8.data()), written) == 1);
    return 0;
}
