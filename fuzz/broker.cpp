// What clients write to the broker: steps of a client's number and the block it writes. The number behind the
// last client's sets how much the clients' sockets take at a time, so that messages have to wait; bit 6 of a
// client's adds so many zeroes that some dozen messages are more than the broker lets wait.
#include <cerrno>
#include <cstring>
#include <string>

#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <libubox/uloop.h>

#include "bus/broker.h"
#include "fuzz/fuzz.h"

namespace {

constexpr int CLIENTS = 3;
constexpr int TURNS = 8; // of the loop, enough for all that one message sets going
constexpr unsigned FILLED = 0x40;
constexpr uint8_t FILLING[0x10000] = {};
constexpr size_t UNLIMITED = SIZE_MAX;

uint32_t next_id;
size_t room = UNLIMITED; // what a client's socket takes at a time
std::string path;
bus::Broker *broker;

void let_work()
{
    for (int i = 0; i < TURNS; ++i) {
        uloop_run_timeout(0);
    }
}

int connect_client()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    PROMISE(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0);
    let_work();
    return fd;
}

void read_all(std::span<const int> fds)
{
    static char bytes[0x10000];
    for (int fd : fds) {
        while (recv(fd, bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
        }
    }
}

// Whether the broker greets who comes now.
bool serves()
{
    int fd = connect_client();
    char greeting[12];
    bool greeted = recv(fd, greeting, sizeof greeting, MSG_DONTWAIT) == sizeof greeting;
    close(fd);
    let_work();
    return greeted;
}

} // namespace

// The broker draws ids, so that nobody guesses them; an input has to name them.
extern "C" ssize_t __wrap_getrandom(void *buffer, size_t size, unsigned)
{
    memcpy(buffer, &next_id, std::min(size, sizeof next_id));
    ++next_id;
    return static_cast<ssize_t>(size);
}

// What the broker sends, as far as there is room.
extern "C" ssize_t __real_sendmsg(int fd, const msghdr *message, int flags);
extern "C" ssize_t __wrap_sendmsg(int fd, const msghdr *message, int flags)
{
    std::vector<iovec> parts{message->msg_iov, message->msg_iov + message->msg_iovlen};
    size_t left = room;
    for (iovec &part : parts) {
        part.iov_len = std::min(part.iov_len, left);
        left -= part.iov_len;
    }
    if (left == room) {
        errno = EAGAIN;
        return -1;
    }
    msghdr fitting = *message;
    fitting.msg_iov = parts.data();
    return __real_sendmsg(fd, &fitting, flags);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    path = "/tmp/ovani-fuzz-" + std::to_string(getpid());
    uloop_init();
    broker = bus::broker_start(path.c_str());
    PROMISE(broker != nullptr);
    atexit([] { bus::broker_stop(broker); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    next_id = 0x10000;
    int fds[CLIENTS];
    std::ranges::generate(fds, connect_client);
    for (Input input{{data, size}}; !input.rest.empty();) {
        unsigned kind = input.byte();
        unsigned number = kind % (CLIENTS + 1);
        Bytes message = input.block();
        if (number == CLIENTS) {
            room = message.size() * message.size(); // from none to much
            continue;
        }
        send(fds[number], message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if ((kind & FILLED) != 0) {
            send(fds[number], FILLING, sizeof FILLING, MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        let_work();
        read_all(fds);
    }
    room = UNLIMITED;
    for (int i = 0; i < TURNS; ++i) {
        let_work();
        read_all(fds);
    }
    for (int fd : fds) {
        close(fd);
    }
    let_work();
    PROMISE(serves());
    return 0;
}
