#include "bus_test.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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

constexpr size_t kIdSize = 4;

// Runs in the child.
int run_broker(const char *path, unsigned max_descriptors, int ready)
{
    if (max_descriptors > 0) {
        const rlimit limit = {max_descriptors, max_descriptors};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    uloop_init();
    Broker *broker = broker_start(path);
    if (!broker || write(ready, "", 1) != 1)
        return 2;
    close(ready);
    uloop_run();
    broker_stop(broker);
    uloop_done();
#ifdef __SANITIZE_ADDRESS__
    return __lsan_do_recoverable_leak_check();
#else
    return 0;
#endif
}

int connect_to(const char *path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0)
        return fd;
    close(fd);
    return -1;
}

} // namespace

Bytes bytes(const char *text, const Ids &ids)
{
    std::string digits;
    for (const char *p = text; *p; p++) {
        if (*p == '\'') {
            for (p++; *p != '\''; p++)
                digits += hex({static_cast<uint8_t>(*p)});
        } else if (*p == '[') {
            const char *end = strchr(p, ']');
            digits += ids.at(std::string(p + 1, end));
            p = end;
        } else if (*p != ' ') {
            digits += *p;
        }
    }
    Bytes result;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        result.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return result;
}

bool match(const char *text, const Bytes &actual, Ids &ids)
{
    size_t at = 0;
    for (const char *p = text; *p; p++) {
        if (*p == '[') {
            const char *end = strchr(p, ']');
            const std::string name(p + 1, end);
            if (!ids.contains(name) && at + kIdSize <= actual.size())
                ids[name] = hex(Bytes(actual.begin() + static_cast<ptrdiff_t>(at),
                                      actual.begin() + static_cast<ptrdiff_t>(at + kIdSize)));
            at += kIdSize;
            p = end;
        } else if (*p == '\'') {
            for (p++; *p != '\''; p++)
                at++;
        } else if (*p != ' ') {
            at++;
            p++;
        }
    }
    if (at == actual.size() && bytes(text, ids) == actual)
        return true;
    ADD_FAILURE() << "expected " << text << "\n     got " << hex(actual);
    return false;
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

TempDir::TempDir()
{
    char name[] = "/tmp/bus_test.XXXXXX";
    path_ = mkdtemp(name);
}

TempDir::~TempDir()
{
    std::filesystem::remove_all(path_);
}

BrokerProcess::BrokerProcess(std::string path, unsigned max_descriptors)
    : path_(std::move(path)), max_descriptors_(max_descriptors)
{
    start();
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
        _exit(run_broker(path_.c_str(), max_descriptors_, ready[1]));
    }
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the broker did not start";
    close(ready[0]);
}

void BrokerProcess::stop()
{
    if (pid_ < 0)
        return;
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    EXPECT_EQ(status, 0) << "the broker did not end in order";
    pid_ = -1;
}

uint32_t Message::peer() const
{
    uint32_t peer = 0;
    memcpy(&peer, raw.data() + 4, sizeof(peer));
    return be32_to_cpu(peer);
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
    const blob_attr *found = attr(id);
    return found && blob_len(found) == sizeof(uint32_t) ? blob_get_u32(found) : ~0U;
}

std::string Message::text(ubus_msg_attr id) const
{
    const blob_attr *found = attr(id);
    return found ? blob_get_string(found) : "";
}

RawClient::RawClient(const char *path) : fd_(connect_to(path))
{
    if (const auto hello = connected() ? receive() : std::nullopt)
        id_ = hello->peer();
}

RawClient::~RawClient()
{
    if (fd_ >= 0)
        close(fd_);
}

bool RawClient::write(const Bytes &bytes)
{
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

bool RawClient::send(ubus_msg_type type, uint16_t seq, uint32_t peer, blob_attr *blob)
{
    const ubus_msghdr hdr = {0, static_cast<uint8_t>(type), cpu_to_be16(seq), cpu_to_be32(peer)};
    Bytes raw(sizeof(hdr) + blob_raw_len(blob));
    memcpy(raw.data(), &hdr, sizeof(hdr));
    memcpy(raw.data() + sizeof(hdr), blob, blob_raw_len(blob));
    return write(raw);
}

std::optional<Message> RawClient::receive(int timeout_ms)
{
    for (;;) {
        constexpr size_t kHead = sizeof(ubus_msghdr) + sizeof(blob_attr);
        if (input_.size() >= kHead) {
            const auto *blob = reinterpret_cast<const blob_attr *>(input_.data() + sizeof(ubus_msghdr));
            const size_t len = sizeof(ubus_msghdr) + blob_raw_len(blob);
            if (input_.size() >= len) {
                const auto end = input_.begin() + static_cast<ptrdiff_t>(len);
                Message m = {Bytes(input_.begin(), end)};
                input_.erase(input_.begin(), end);
                return m;
            }
        }
        pollfd pfd = {fd_, POLLIN, 0};
        if (poll(&pfd, 1, timeout_ms) <= 0)
            return std::nullopt;
        uint8_t buffer[65536];
        const ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
        if (n <= 0)
            return std::nullopt;
        input_.insert(input_.end(), buffer, buffer + n);
    }
}

std::optional<Message> RawClient::receive(ubus_msg_type type, int timeout_ms)
{
    for (;;) {
        auto m = receive(timeout_ms);
        if (!m || m->type() == type)
            return m;
    }
}

bool RawClient::closed()
{
    uint8_t buffer[65536];
    for (;;) {
        pollfd pfd = {fd_, POLLIN, 0};
        if (poll(&pfd, 1, kWaitMs) <= 0)
            return false;
        if (recv(fd_, buffer, sizeof(buffer), 0) <= 0)
            return true;
    }
}

uint32_t RawClient::request(ubus_msg_type type, uint32_t peer, blob_attr *blob)
{
    const uint16_t seq = ++seq_;
    if (!send(type, seq, peer, blob))
        return ~0U;
    for (;;) {
        const auto m = receive(UBUS_MSG_STATUS);
        if (!m || m->seq() == seq)
            return m ? m->u32(UBUS_ATTR_STATUS) : ~0U;
    }
}

uint32_t RawClient::add_object(const char *path, const char *method)
{
    Blob blob;
    if (path) {
        blob_put_string(&blob.buf, UBUS_ATTR_OBJPATH, path);
        void *signature = blob_nest_start(&blob.buf, UBUS_ATTR_SIGNATURE);
        if (method)
            blobmsg_close_table(&blob.buf, blobmsg_open_table(&blob.buf, method));
        blob_nest_end(&blob.buf, signature);
    }
    send(UBUS_MSG_ADD_OBJECT, ++seq_, 0, blob);
    for (auto m = receive(); m && m->type() != UBUS_MSG_STATUS; m = receive()) {
        if (m->type() == UBUS_MSG_DATA) {
            receive(UBUS_MSG_STATUS);
            return m->u32(UBUS_ATTR_OBJID);
        }
    }
    return 0;
}

uint32_t RawClient::listen(uint32_t object, const char *pattern)
{
    Blob blob;
    blob_put_u32(&blob.buf, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_EVENT);
    blob_put_string(&blob.buf, UBUS_ATTR_METHOD, "register");
    void *data = blob_nest_start(&blob.buf, UBUS_ATTR_DATA);
    blobmsg_add_u32(&blob.buf, "object", object);
    blobmsg_add_string(&blob.buf, "pattern", pattern);
    blob_nest_end(&blob.buf, data);
    return request(UBUS_MSG_INVOKE, UBUS_SYSTEM_OBJECT_EVENT, blob);
}

uint32_t RawClient::send_event(const char *name, uint32_t value)
{
    Blob blob;
    blob_put_u32(&blob.buf, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_EVENT);
    blob_put_string(&blob.buf, UBUS_ATTR_METHOD, "send");
    void *data = blob_nest_start(&blob.buf, UBUS_ATTR_DATA);
    blobmsg_add_string(&blob.buf, "id", name);
    void *table = blobmsg_open_table(&blob.buf, "data");
    blobmsg_add_u32(&blob.buf, "value", value);
    blobmsg_close_table(&blob.buf, table);
    blob_nest_end(&blob.buf, data);
    return request(UBUS_MSG_INVOKE, UBUS_SYSTEM_OBJECT_EVENT, blob);
}

bool RawClient::ping()
{
    Blob blob;
    return request(UBUS_MSG_PING, 0, blob) == UBUS_STATUS_OK;
}
