// What the fuzz targets share. Each is one source with LLVMFuzzerTestOneInput, and leaves nothing behind that
// would make the next input fare differently.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <vector>

using Bytes = std::span<const uint8_t>;

// What the code under test promises; the fuzzer keeps the input that breaks it.
#define PROMISE(condition) ((condition) ? static_cast<void>(0) : broken_promise(#condition))

[[noreturn]] inline void broken_promise(const char *condition)
{
    fprintf(stderr, "not so: %s\n", condition);
    abort();
}

// Takes an input apart from the front. What is not there reads as 0, or as fewer bytes.
class Input {
public:
    Input(const uint8_t *data, size_t size) : rest_(data, size) {}

    bool empty() const { return rest_.empty(); }
    Bytes take(size_t size)
    {
        Bytes taken = rest_.first(std::min(size, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    uint8_t byte() { return empty() ? 0 : take(1)[0]; }
    Bytes block() { return take(byte()); } // behind a byte that tells its length
    Bytes rest() { return take(rest_.size()); }

private:
    Bytes rest_;
};

// A copy in memory of exactly its size: the address sanitizer sees the first byte read beyond it.
template <typename Byte = char>
std::vector<Byte> copy_of(Bytes bytes)
{
    return {bytes.begin(), bytes.end()};
}

template <typename Byte = char>
std::vector<Byte> text_of(Bytes bytes)
{
    std::vector<Byte> text = copy_of<Byte>(bytes);
    text.push_back('\0');
    text.shrink_to_fit();
    return text;
}
