// A batch of routing netlink messages, as it is read from the kernel's socket.
#include <sanitizer/asan_interface.h>
#include <unistd.h>

#include "fuzz/fuzz.h"
#include "ovani/ovani_neigh.h"

namespace {

constexpr int BATCH_FD = 1000;
Bytes batch;
void *beyond; // the part of the reader's buffer that nothing was read into
size_t beyond_size;

} // namespace

extern "C" ssize_t __real_read(int fd, void *buffer, size_t size);
extern "C" ssize_t __wrap_read(int fd, void *buffer, size_t size)
{
    if (fd != BATCH_FD) {
        return __real_read(fd, buffer, size);
    }
    PROMISE(batch.size() <= size);
    std::ranges::copy(batch, static_cast<uint8_t *>(buffer));
    beyond = static_cast<uint8_t *>(buffer) + batch.size();
    beyond_size = size - batch.size();
    ASAN_POISON_MEMORY_REGION(beyond, beyond_size);
    return static_cast<ssize_t>(batch.size());
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    start_daemon(1);
    ifidx_lan = 7;
    stderr = fopen("/dev/null", "we"); // what the reader says of every damaged message
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    batch = {data, size};
    beyond = nullptr;
    read_netlink_message(BATCH_FD);
    PROMISE(beyond != nullptr); // it was read
    ASAN_UNPOISON_MEMORY_REGION(beyond, beyond_size);
    return 0;
}
