#include "bus_test.h"

#include <cstring>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include "bus/broker.h"

namespace {

// Runs in the child.
int run_broker(const char *path, unsigned max_descriptors, int ready)
{
    const rlimit limit = {max_descriptors, max_descriptors};
    if (max_descriptors > 0) {
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    uloop_init();
    bus::Broker *broker = bus::broker_start(path);
    if (!broker || write(ready, "", 1) != 1) {
        return 2;
    }
    close(ready);
    uloop_run();
    bus::broker_stop(broker);
    uloop_done();
#ifdef __SANITIZE_ADDRESS__
    return __lsan_do_recoverable_leak_check();
#else
    return 0;
#endif
}

void put_invoke(blob_buf *buf, uint32_t object, const char *method)
{
    blob_put_u32(buf, UBUS_ATTR_OBJID, object);
    blob_put_string(buf, UBUS_ATTR_METHOD, method);
}

} // namespace

Bytes bytes(const std::string &text, const Words &words)
{
    Bytes result;
    for (size_t i = 0; i < text.size(); ++i) {
        const size_t end = text.find(text[i] == '[' ? ']' : '\'', i + 1);
        if (text[i] == '[') {
            const uint32_t word = cpu_to_be32(words.at(text.substr(i + 1, end - i - 1)));
            const auto *start = reinterpret_cast<const uint8_t *>(&word);
            result.insert(result.end(), start, start + sizeof(word));
            i = end;
        } else if (text[i] == '\'') {
            result.insert(result.end(), text.begin() + static_cast<ptrdiff_t>(i) + 1,
                          text.begin() + static_cast<ptrdiff_t>(end));
            i = end;
        } else if (text[i] != ' ') {
            result.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
            ++i;
        }
    }
    return result;
}

std::string hex(const Bytes &bytes)
{
    std::string text;
    char two[3];
    for (const uint8_t byte : bytes) {
        snprintf(two, sizeof(two), "%02x", byte);
        text += two;
    }
    return text;
}

Bytes bytes_of(const blob_attr *blob)
{
    const auto *start = reinterpret_cast<const uint8_t *>(blob);
    return {start, start + blob_raw_len(blob)};
}

std::string socket_path()
{
    static int count = 0;
    return "/tmp/bus_test." + std::to_string(getpid()) + "." + std::to_string(count++);
}

void BrokerProcess::start()
{
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        signal(SIGTERM, SIG_DFL);
        close(ready[0]);
        _exit(run_broker(path(), max_descriptors_, ready[1]));
    }
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the broker did not start";
    close(ready[0]);
}

void BrokerProcess::stop()
{
    if (pid_ < 0) {
        return;
    }
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    EXPECT_EQ(status, 0) << "the broker did not end in order";
    pid_ = -1;
}

blob_attr *Message::attr(ubus_msg_attr id) const
{
    blob_attr *tb[UBUS_ATTR_MAX];
    auto *blob = reinterpret_cast<blob_attr *>(const_cast<uint8_t *>(raw.data() + sizeof(ubus_msghdr)));
    blob_parse_untrusted(blob, raw.size() - sizeof(ubus_msghdr), tb, nullptr, UBUS_ATTR_MAX);
    return tb[id];
}

uint32_t Message::u32(ubus_msg_attr id) const
{
    return attr(id) ? blob_get_u32(attr(id)) : ~0U;
}

const char *Message::text(ubus_msg_attr id) const
{
    return attr(id) ? blob_get_string(attr(id)) : "";
}

Bytes message(int type, uint16_t seq, uint32_t peer, blob_attr *blob)
{
    const ubus_msghdr hdr = {0, static_cast<uint8_t>(type), cpu_to_be16(seq), cpu_to_be32(peer)};
    Bytes raw(sizeof(hdr) + blob_raw_len(blob));
    memcpy(raw.data(), &hdr, sizeof(hdr));
    memcpy(raw.data() + sizeof(hdr), blob, blob_raw_len(blob));
    return raw;
}

Bytes event_message(const char *name, size_t size)
{
    Blob blob;
    put_invoke(&blob.buf, UBUS_SYSTEM_OBJECT_EVENT, "send");
    void *data = blob_nest_start(&blob.buf, UBUS_ATTR_DATA);
    blobmsg_add_string(&blob.buf, "id", name);
    void *table = blobmsg_open_table(&blob.buf, "data");
    blobmsg_add_string(&blob.buf, "text", std::string(size, 'x').c_str());
    blobmsg_close_table(&blob.buf, table);
    blob_nest_end(&blob.buf, data);
    return message(UBUS_MSG_INVOKE, 1, UBUS_SYSTEM_OBJECT_EVENT, blob);
}

int connected_to(const char *path)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {.sun_family = AF_UNIX};
    strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    return fd;
}

RawClient::RawClient(const char *path) : fd_(connected_to(path))
{
    const auto hello = receive();
    id_ = hello ? hello->peer() : 0;
}

RawClient::~RawClient()
{
    close(fd_);
}

bool RawClient::write(const Bytes &bytes) const
{
    size_t at = 0;
    while (at < bytes.size()) {
        const ssize_t n = send(fd_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        at += static_cast<size_t>(n);
    }
    return true;
}

bool RawClient::has_input() const
{
    pollfd pfd = {fd_, POLLIN, 0};
    return !input_.empty() || poll(&pfd, 1, 0) > 0;
}

std::optional<Message> RawClient::receive()
{
    for (;;) {
        const auto *head = reinterpret_cast<const blob_attr *>(input_.data() + sizeof(ubus_msghdr));
        const bool has_head = input_.size() >= sizeof(ubus_msghdr) + sizeof(blob_attr);
        const size_t len = has_head ? sizeof(ubus_msghdr) + blob_raw_len(head) : 0;
        if (has_head && input_.size() >= len) {
            const auto end = input_.begin() + static_cast<ptrdiff_t>(len);
            Message m = {Bytes(input_.begin(), end)};
            input_.erase(input_.begin(), end);
            return m;
        }
        uint8_t buffer[65536];
        pollfd pfd = {fd_, POLLIN, 0};
        const ssize_t n = poll(&pfd, 1, WAIT_MS) > 0 ? recv(fd_, buffer, sizeof(buffer), 0) : -1;
        if (n <= 0) {
            return std::nullopt;
        }
        input_.insert(input_.end(), buffer, buffer + n);
    }
}

std::optional<Message> RawClient::receive(ubus_msg_type type)
{
    for (;;) {
        auto m = receive();
        if (!m || m->type() == type) {
            return m;
        }
        calls_passed_over_ += m->type() == UBUS_MSG_INVOKE;
    }
}

bool RawClient::closed() const
{
    uint8_t buffer[65536];
    pollfd pfd = {fd_, POLLIN, 0};
    while (poll(&pfd, 1, WAIT_MS) > 0) {
        if (recv(fd_, buffer, sizeof(buffer), 0) <= 0) {
            return true;
        }
    }
    return false;
}

uint32_t RawClient::status()
{
    const auto m = receive(UBUS_MSG_STATUS);
    return m ? m->u32(UBUS_ATTR_STATUS) : ~0U;
}

uint32_t RawClient::request(int type, uint32_t peer, blob_attr *blob)
{
    auto m = write(message(type, ++seq_, peer, blob)) ? receive(UBUS_MSG_STATUS) : std::nullopt;
    while (m && m->seq() != seq_) {
        m = receive(UBUS_MSG_STATUS);
    }
    return m ? m->u32(UBUS_ATTR_STATUS) : ~0U;
}

uint32_t RawClient::add_object(const char *path, const char *method)
{
    Blob blob;
    if (path) {
        blob_put_string(&blob.buf, UBUS_ATTR_OBJPATH, path);
        void *signature = blob_nest_start(&blob.buf, UBUS_ATTR_SIGNATURE);
        if (method) {
            blobmsg_close_table(&blob.buf, blobmsg_open_table(&blob.buf, method));
        }
        blob_nest_end(&blob.buf, signature);
    }
    write(message(UBUS_MSG_ADD_OBJECT, ++seq_, 0, blob));
    uint32_t id = 0;
    for (auto m = receive(); m && m->type() != UBUS_MSG_STATUS; m = receive()) {
        if (m->type() == UBUS_MSG_DATA) {
            id = m->u32(UBUS_ATTR_OBJID);
        }
    }
    return id;
}

uint32_t RawClient::listen(uint32_t object, const char *pattern)
{
    Blob blob;
    put_invoke(&blob.buf, UBUS_SYSTEM_OBJECT_EVENT, "register");
    void *data = blob_nest_start(&blob.buf, UBUS_ATTR_DATA);
    blobmsg_add_u32(&blob.buf, "object", object);
    blobmsg_add_string(&blob.buf, "pattern", pattern);
    blob_nest_end(&blob.buf, data);
    return request(UBUS_MSG_INVOKE, UBUS_SYSTEM_OBJECT_EVENT, blob);
}

uint32_t RawClient::send_event(const char *name)
{
    return write(event_message(name, 1)) ? status() : ~0U;
}

bool RawClient::ping()
{
    Blob blob;
    return request(UBUS_MSG_PING, 0, blob) == UBUS_STATUS_OK;
}

bool RawClient::call(uint16_t seq, uint32_t object, const char *method) const
{
    Blob blob;
    put_invoke(&blob.buf, object, method);
    blob_put(&blob.buf, UBUS_ATTR_DATA, nullptr, 0);
    return write(message(UBUS_MSG_INVOKE, seq, object, blob));
}

bool RawClient::answer(const Message &call, uint32_t object, uint32_t status) const
{
    Blob blob;
    blob_put_u32(&blob.buf, UBUS_ATTR_STATUS, status);
    blob_put_u32(&blob.buf, UBUS_ATTR_OBJID, object);
    return write(message(UBUS_MSG_STATUS, call.seq(), call.peer(), blob));
}
