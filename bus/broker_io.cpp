#include "broker_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

namespace bus {

namespace {

constexpr int ACCEPT_PAUSE_MS = 100;
constexpr size_t WIRE_HEAD = sizeof(ubus_msghdr) + sizeof(blob_attr);

// Name of a user or group, asked of the system once.
const std::string *name_of(std::unordered_map<unsigned, std::string> &known, unsigned id,
                           const char *(*find)(unsigned))
{
    const auto it = known.find(id);
    if (it != known.end()) {
        return &it->second;
    }
    const char *name = find(id);
    return name != nullptr ? &known.emplace(id, name).first->second : nullptr;
}

const char *find_user(unsigned id)
{
    const passwd *entry = getpwuid(id);
    return entry != nullptr ? entry->pw_name : nullptr;
}

const char *find_group(unsigned id)
{
    const group *entry = getgrgid(id);
    return entry != nullptr ? entry->gr_name : nullptr;
}

int listen_at(const char *path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(address.sun_path, path, strlen(path));

    struct stat left_over = {};
    if (lstat(path, &left_over) == 0 && S_ISSOCK(left_over.st_mode)) {
        unlink(path);
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return -1;
    }
    const mode_t old_mask = umask(0177);
    const int bound = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    umask(old_mask);
    if (bound == 0 && listen(fd, SOMAXCONN) == 0) {
        return fd;
    }
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

// Bytes written, 0 when the socket takes no more for now, -1 when it never will.
ssize_t write_parts(int fd, std::span<iovec> parts)
{
    msghdr m = {};
    m.msg_iov = parts.data();
    m.msg_iovlen = parts.size();
    const ssize_t n = sendmsg(fd, &m, MSG_NOSIGNAL | MSG_DONTWAIT);
    return n < 0 && (errno == EAGAIN || errno == EINTR) ? 0 : n;
}

void tell_of_drops(Client &c)
{
    if (c.dropped > 0) {
        fprintf(stderr, "ubusd: client %08x (process %d): %zu messages dropped\n", c.id, c.pid, c.dropped);
        c.dropped = 0;
    }
}

} // namespace

Broker *broker_start(const char *path)
{
    const int fd = listen_at(path);
    return fd < 0 ? nullptr : new Broker(path, fd);
}

void broker_stop(Broker *broker)
{
    delete broker;
}

Broker::Broker(const char *path, int listener) : path_(path)
{
    acceptor_.broker = this;
    acceptor_.fd = listener;
    acceptor_.cb = [](uloop_fd *u, unsigned) { static_cast<Acceptor *>(u)->broker->accept_clients(); };
    accept_timer_.broker = this;
    accept_timer_.cb = [](uloop_timeout *t) { static_cast<AcceptTimer *>(t)->broker->listen_again(); };
    listen_again();
}

Broker::~Broker()
{
    uloop_timeout_cancel(&accept_timer_);
    uloop_fd_delete(&acceptor_);
    close(acceptor_.fd);
    unlink(path_.c_str());
    for (const auto &[id, client] : clients_) {
        doom(*client);
    }
    settle();
    blob_buf_free(&out_);
    blob_buf_free(&shown_);
}

void Broker::listen_again()
{
    uloop_fd_add(&acceptor_, ULOOP_READ);
}

void Broker::accept_clients()
{
    for (;;) {
        const int fd = accept4(acceptor_.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            add_client(fd);
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED) {
            continue;
        }
        if (errno != EAGAIN) {
            // Out of descriptors or memory: the connection stays there to be reported again and again.
            uloop_fd_delete(&acceptor_);
            uloop_timeout_set(&accept_timer_, ACCEPT_PAUSE_MS);
        }
        break;
    }
    settle();
}

void Broker::add_client(int fd)
{
    auto client = std::make_unique<Client>();
    Client &c = *client;
    c.fd = fd;
    c.cb = [](uloop_fd *u, unsigned events) {
        auto *self = static_cast<Client *>(u);
        self->broker->on_client(*self, events);
    };
    c.broker = this;
    c.id = new_id(clients_);

    ucred who = {};
    socklen_t len = sizeof(who);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &who, &len) == 0) {
        c.pid = who.pid;
        c.user = name_of(users_, who.uid, find_user);
        c.group = name_of(groups_, who.gid, find_group);
        c.root = who.uid == 0 && who.gid == 0;
    }

    clients_.emplace(c.id, std::move(client));
    watch(c);
    blob_buf_init(&out_, 0);
    send(c, UBUS_MSG_HELLO, 0, c.id, out_.head);
}

Client *Broker::find_client(uint32_t id)
{
    const auto it = clients_.find(id);
    return it == clients_.end() ? nullptr : it->second.get();
}

// Marks a client for removal: whoever is looking at it now still may. Nothing is kept for it any more.
void Broker::doom(Client &c)
{
    if (c.doomed) {
        return;
    }
    c.doomed = true;
    account(c);
    doomed_.push_back(c.id);
}

// Ends each turn: removes the doomed, which may doom others.
void Broker::settle()
{
    while (!doomed_.empty()) {
        Client *c = find_client(doomed_.back());
        doomed_.pop_back();
        remove_client(*c);
    }
}

void Broker::remove_client(Client &c)
{
    const auto it = clients_.find(c.id);
    const std::unique_ptr<Client> owner = std::move(it->second);
    clients_.erase(it);
    std::erase(monitors_, &c);
    uloop_fd_delete(&c);
    close(c.fd);
    tell_of_drops(c);
    while (!c.objects.empty()) {
        drop_object(*c.objects.back());
    }
}

void Broker::watch(Client &c)
{
    const unsigned events = ULOOP_READ | (c.output.empty() ? 0U : ULOOP_WRITE);
    if (!c.doomed && c.flags != events && uloop_fd_add(&c, events) < 0) {
        doom(c);
    }
}

// Counts what is kept for the client, after any of that has changed.
void Broker::account(Client &c)
{
    const size_t held = c.doomed ? 0 : c.registered + c.input.capacity() + c.output.capacity();
    held_ = held_ - c.held + held;
    c.held = held;
    if (held_ > MAX_HELD_BY_ALL) {
        const auto by_held = [](const auto &a, const auto &b) { return a.second->held < b.second->held; };
        doom(*std::max_element(clients_.begin(), clients_.end(), by_held)->second);
    }
}

void Broker::on_client(Client &c, unsigned events)
{
    if ((events & ULOOP_WRITE) != 0) {
        flush(c);
    }
    // What a client wrote before it hung up still counts.
    if ((events & ULOOP_READ) != 0) {
        do {
            receive(c);
        } while (c.error && !c.doomed);
    }
    settle();
}

// Reads once. Descriptors sent along find no room and are closed by the kernel.
void Broker::receive(Client &c)
{
    const ssize_t n = recv(c.fd, read_buffer_.data(), read_buffer_.size(), MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (n <= 0) {
        doom(c);
        return;
    }
    c.input.insert(c.input.end(), read_buffer_.data(), read_buffer_.data() + n);
    const size_t used = consume(c, c.input);
    c.input = Bytes(c.input.begin() + static_cast<ptrdiff_t>(used), c.input.end());
    account(c);
}

// Handles the complete messages at the front of `input`; gives their length.
size_t Broker::consume(Client &c, std::span<uint8_t> input)
{
    size_t used = 0;
    while (!c.doomed && input.size() - used >= WIRE_HEAD) {
        Received m = {};
        memcpy(&m.hdr, input.data() + used, sizeof(m.hdr));
        m.hdr.seq = be16_to_cpu(m.hdr.seq);
        m.hdr.peer = be32_to_cpu(m.hdr.peer);
        m.blob = reinterpret_cast<blob_attr *>(input.data() + used + sizeof(m.hdr));
        const size_t len = blob_raw_len(m.blob);
        if (m.hdr.version != 0 || len < sizeof(blob_attr) || len > UBUS_MAX_MSGLEN) {
            doom(c);
            break;
        }
        if (input.size() - used < sizeof(m.hdr) + len) {
            break;
        }
        blob_parse_untrusted(m.blob, len, m.attr, MESSAGE_POLICY, UBUS_ATTR_MAX);
        show(c, m.hdr, m.blob, false);
        handle(c, m);
        used += sizeof(m.hdr) + len;
    }
    return used;
}

bool Broker::send(Client &to, int type, uint16_t seq, uint32_t peer, const blob_attr *blob)
{
    if (to.doomed) {
        return false;
    }
    if (type != UBUS_MSG_MONITOR) {
        show(to, {0, static_cast<uint8_t>(type), seq, peer}, blob, true);
    }
    const ubus_msghdr hdr = {0, static_cast<uint8_t>(type), cpu_to_be16(seq), cpu_to_be32(peer)};
    iovec parts[] = {{const_cast<ubus_msghdr *>(&hdr), sizeof(hdr)},
                     {const_cast<blob_attr *>(blob), blob_raw_len(blob)}};
    const size_t size = sizeof(hdr) + blob_raw_len(blob);
    size_t taken = 0;
    if (to.output.empty()) {
        const ssize_t n = write_parts(to.fd, parts);
        if (n < 0) {
            give_up_sending(to);
            return false;
        }
        taken = static_cast<size_t>(n);
        if (taken == size) {
            return true;
        }
    }

    const bool event = (type == UBUS_MSG_INVOKE && peer == 0) || type == UBUS_MSG_MONITOR;
    if (to.queued() + size > (event ? MAX_QUEUED_EVENTS : MAX_QUEUED)) {
        if (to.dropped++ == 0) {
            fprintf(stderr, "ubusd: client %08x (process %d) does not keep up, dropping messages\n", to.id,
                    to.pid);
        }
        return false;
    }
    for (const iovec &part : parts) {
        const auto *bytes = static_cast<const uint8_t *>(part.iov_base);
        to.output.insert(to.output.end(), bytes, bytes + part.iov_len);
    }
    to.sent += taken;
    account(to);
    watch(to);
    return true;
}

void Broker::flush(Client &c)
{
    iovec rest[] = {{c.output.data() + c.sent, c.queued()}};
    const ssize_t n = write_parts(c.fd, rest);
    if (n < 0) {
        give_up_sending(c);
        return;
    }
    c.sent += static_cast<size_t>(n);
    if (c.queued() == 0) {
        c.output = Bytes();
        c.sent = 0;
        tell_of_drops(c);
    } else if (c.sent >= c.queued()) { // not more often, so that each byte is moved once at most
        c.output.erase(c.output.begin(), c.output.begin() + static_cast<ptrdiff_t>(c.sent));
        c.sent = 0;
    }
    account(c);
    go_on_with_lookups(c);
    watch(c);
}

// The client reads no more. What it wrote still counts: its end is behind that.
void Broker::give_up_sending(Client &c)
{
    shutdown(c.fd, SHUT_RDWR);
    c.output = Bytes();
    c.sent = 0;
    account(c);
    watch(c);
}

// Shows a message from or to a client to the monitors. One too long to be shown is a gap in their numbers.
void Broker::show(const Client &c, const ubus_msghdr &hdr, const blob_attr *blob, bool sent)
{
    if (monitors_.empty()) {
        return;
    }
    blob_buf_init(&shown_, 0);
    blob_put_u32(&shown_, UBUS_MONITOR_CLIENT, c.id);
    blob_put_u32(&shown_, UBUS_MONITOR_PEER, hdr.peer);
    blob_put_u32(&shown_, UBUS_MONITOR_SEQ, hdr.seq);
    blob_put_u32(&shown_, UBUS_MONITOR_TYPE, hdr.type);
    blob_put_u8(&shown_, UBUS_MONITOR_SEND, sent ? 1 : 0);
    const blob_attr *data =
        blob_put(&shown_, UBUS_MONITOR_DATA, blob_data(blob), static_cast<unsigned>(blob_len(blob)));
    const bool fits = data != nullptr && blob_raw_len(shown_.head) <= UBUS_MAX_MSGLEN;
    for (Client *monitor : monitors_) {
        ++monitor->shown;
        if (fits) {
            send(*monitor, UBUS_MSG_MONITOR, monitor->shown, 0, shown_.head);
        }
    }
}

} // namespace bus
