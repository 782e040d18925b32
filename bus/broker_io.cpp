#include "broker_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

namespace bus {

namespace {

static_assert(kMaxQueued > size_t{2} * UBUS_MAX_MSGLEN);
constexpr int kAcceptPauseMs = 100;
constexpr size_t kQueuedSize = 128; // what a queued message takes besides its bytes
constexpr size_t kMaxGathered = 32; // messages sent with one system call
constexpr size_t kWireHead = sizeof(ubus_msghdr) + sizeof(blob_attr);

int64_t now_ms()
{
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Name of a user or group, asked of the system once.
const std::string *name_of(std::unordered_map<unsigned, std::string> &known, unsigned id,
                           const char *(*find)(unsigned))
{
    const auto it = known.find(id);
    if (it != known.end()) {
        return &it->second;
    }
    const char *name = find(id);
    return name ? &known.emplace(id, name).first->second : nullptr;
}

const char *find_user(unsigned id)
{
    const passwd *entry = getpwuid(id);
    return entry ? entry->pw_name : nullptr;
}

const char *find_group(unsigned id)
{
    const group *entry = getgrgid(id);
    return entry ? entry->gr_name : nullptr;
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

iovec part(const void *data, size_t len, size_t skip)
{
    skip = std::min(skip, len);
    return {const_cast<uint8_t *>(static_cast<const uint8_t *>(data)) + skip, len - skip};
}

// Bytes written, 0 when the socket takes no more for now, -1 when it never will.
ssize_t write_parts(int fd, iovec *parts, size_t count)
{
    msghdr m = {};
    m.msg_iov = parts;
    m.msg_iovlen = count;
    const ssize_t n = sendmsg(fd, &m, MSG_NOSIGNAL | MSG_DONTWAIT);
    return n < 0 && (errno == EAGAIN || errno == EINTR) ? 0 : n;
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
            uloop_timeout_set(&accept_timer_, kAcceptPauseMs);
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
    c.stall.cb = [](uloop_timeout *t) {
        Client *self = static_cast<StallTimer *>(t)->client;
        self->broker->on_stall(*self);
    };
    c.stall.client = &c;
    c.broker = this;
    c.id = new_id(clients_);

    ucred who = {};
    socklen_t len = sizeof(who);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &who, &len) == 0) {
        c.user = name_of(users_, who.uid, find_user);
        c.group = name_of(groups_, who.gid, find_group);
    }

    clients_.emplace(c.id, std::move(client));
    watch(c);
    blob_buf_init(&out_, 0);
    Outgoing hello = message(UBUS_MSG_HELLO, 0, c.id, out_.head);
    send(nullptr, c, hello);
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
    held_ -= c.held;
    c.held = 0;
    doomed_.push_back(c.id);
}

// Ends each turn: removes and resumes clients until there are none to, for either may lead to more.
void Broker::settle()
{
    while (!doomed_.empty() || !resumed_.empty()) {
        std::vector<uint32_t> &list = doomed_.empty() ? resumed_ : doomed_;
        const bool remove = !doomed_.empty();
        Client *c = find_client(list.back());
        list.pop_back();
        if (c && remove) {
            remove_client(*c);
        } else if (c) {
            resume(*c);
        }
    }
}

void Broker::remove_client(Client &c)
{
    const auto it = clients_.find(c.id);
    const std::unique_ptr<Client> owner = std::move(it->second);
    clients_.erase(it);
    uloop_fd_delete(&c);
    uloop_timeout_cancel(&c.stall);
    close(c.fd);
    let_go(c);
    while (!c.objects.empty()) {
        drop_object(*c.objects.back(), nullptr);
    }
}

// Goes on with a client that had to wait.
void Broker::resume(Client &c)
{
    if (c.doomed || c.waits > 0) {
        return;
    }
    if (c.lookup) {
        go_on_with_lookup(c);
    }
    if (c.doomed || c.paused()) {
        return;
    }
    Bytes input;
    input.swap(c.input);
    release(c, input.size());
    const size_t used = consume(c, input);
    keep_input(c, std::span(input).subspan(used));
    watch(c);
}

// Waits for what the client can be waited for now.
void Broker::watch(Client &c)
{
    const unsigned events = (c.paused() ? 0u : ULOOP_READ) | (c.queue.empty() ? 0u : ULOOP_WRITE);
    if (!c.doomed && c.flags != events && uloop_fd_add(&c, events) < 0) {
        doom(c);
    }
}

void Broker::hold(Client &c, size_t bytes)
{
    if (c.doomed) {
        return;
    }
    c.held += bytes;
    held_ += bytes;
    if (held_ <= kMaxHeldByAll) {
        return;
    }
    const auto most = std::max_element(clients_.begin(), clients_.end(), [](const auto &a, const auto &b) {
        return a.second->held < b.second->held;
    });
    doom(*most->second);
}

void Broker::release(Client &c, size_t bytes)
{
    bytes = std::min(bytes, c.held);
    c.held -= bytes;
    held_ -= bytes;
}

void Broker::on_client(Client &c, unsigned events)
{
    if (events & ULOOP_WRITE) {
        flush(c);
    }
    // What a client wrote before it hung up still counts.
    if (events & ULOOP_READ) {
        do {
            if (!c.doomed && !c.paused()) {
                receive(c);
            }
        } while (c.error && !c.doomed && !c.paused());
    }
    settle();
}

void Broker::on_stall(Client &c)
{
    doom(c);
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
    std::span<uint8_t> input(read_buffer_.data(), static_cast<size_t>(n));
    if (c.input.empty()) {
        keep_input(c, input.subspan(consume(c, input)));
    } else {
        Bytes joined;
        joined.swap(c.input);
        release(c, joined.size());
        joined.insert(joined.end(), input.begin(), input.end());
        const size_t used = consume(c, joined);
        joined.erase(joined.begin(), joined.begin() + static_cast<ptrdiff_t>(used));
        joined.swap(c.input);
        hold(c, c.input.size());
    }
    watch(c);
}

void Broker::keep_input(Client &c, std::span<const uint8_t> rest)
{
    c.input.assign(rest.begin(), rest.end());
    hold(c, rest.size());
}

// Handles the complete messages at the front of `input`; gives their length. Stops at a client that has to
// wait.
size_t Broker::consume(Client &c, std::span<uint8_t> input)
{
    size_t used = 0;
    while (!c.doomed && !c.paused() && input.size() - used >= kWireHead) {
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
        blob_parse_untrusted(m.blob, len, m.attr, kMessagePolicy, UBUS_ATTR_MAX);
        handle(c, m);
        used += sizeof(m.hdr) + len;
    }
    return used;
}

void put_header(Outgoing &m, int type, uint16_t seq, uint32_t peer)
{
    const ubus_msghdr hdr = {0, static_cast<uint8_t>(type), cpu_to_be16(seq), cpu_to_be32(peer)};
    memcpy(m.head.data(), &hdr, sizeof(hdr));
}

Outgoing message(int type, uint16_t seq, uint32_t peer, const blob_attr *blob)
{
    Outgoing m = {{}, sizeof(ubus_msghdr), bytes_of(blob), nullptr};
    put_header(m, type, seq, peer);
    return m;
}

bool Broker::send(Client *from, Client &to, Outgoing &m)
{
    if (to.doomed) {
        return false;
    }
    size_t sent = 0;
    if (to.queue.empty()) {
        iovec parts[] = {part(m.head.data(), m.head_len, 0), part(m.body.data(), m.body.size(), 0)};
        const ssize_t n = write_parts(to.fd, parts, 2);
        if (n < 0) {
            doom(to);
            return false;
        }
        sent = static_cast<size_t>(n);
        if (sent == m.size()) {
            return true;
        }
        to.last_read = now_ms();
    }

    const bool room = to.queued + m.size() + kQueuedSize <= kMaxQueued; // always, for what has begun
    if (room) {
        enqueue(to, m, sent);
    }
    if (to.queued > kHighWater && !to.doomed) {
        hold_back(from, to);
    }
    return room;
}

void Broker::enqueue(Client &to, Outgoing &m, size_t sent)
{
    if (!m.kept) {
        m.kept = std::make_shared<const Bytes>(m.body.begin(), m.body.end());
    }
    to.queue.push_back({m.head, m.head_len, m.kept, sent});
    to.queued += m.size() + kQueuedSize;
    hold(to, m.size() + kQueuedSize);
    watch(to);
}

// `from` waits until `to` has caught up; `to` has a little time to begin.
void Broker::hold_back(Client *from, Client &to)
{
    const int64_t patience = to.last_read + kStallMs - now_ms();
    if (patience <= 0) {
        doom(to);
        return;
    }
    if (!to.stall.pending) {
        uloop_timeout_set(&to.stall, static_cast<int>(patience));
    }
    if (from) {
        to.held_back.push_back(from->id);
        from->waits++;
        watch(*from);
    }
}

void Broker::flush(Client &c)
{
    while (!c.queue.empty() && !c.doomed) {
        iovec parts[2 * kMaxGathered];
        size_t count = 0;
        size_t gathered = 0;
        for (const Queued &q : c.queue) {
            if (count == 2 * kMaxGathered) {
                break;
            }
            const size_t into_body = q.sent - std::min(q.sent, q.head_len);
            parts[count++] = part(q.head.data(), q.head_len, q.sent);
            parts[count++] = part(q.body->data(), q.body->size(), into_body);
            gathered += q.size() - q.sent;
        }
        const ssize_t n = write_parts(c.fd, parts, count);
        if (n < 0) {
            doom(c);
        }
        if (n <= 0) {
            return;
        }

        auto left = static_cast<size_t>(n);
        while (left > 0) {
            Queued &q = c.queue.front();
            const size_t now = std::min(left, q.size() - q.sent);
            q.sent += now;
            left -= now;
            if (q.sent == q.size()) {
                c.queued -= q.size() + kQueuedSize;
                release(c, q.size() + kQueuedSize);
                c.queue.pop_front();
            }
        }
        after_progress(c);
        if (static_cast<size_t>(n) < gathered) {
            break;
        }
    }
    watch(c);
}

void Broker::after_progress(Client &c)
{
    c.last_read = now_ms();
    if (c.stall.pending && c.queued > kHighWater) {
        uloop_timeout_set(&c.stall, kStallMs);
    } else {
        uloop_timeout_cancel(&c.stall);
    }
    if (c.queued <= kLowWater) {
        let_go(c);
    }
}

// Those who waited for this client need not any more.
void Broker::let_go(Client &c)
{
    for (const uint32_t id : c.held_back) {
        Client *sender = find_client(id);
        if (sender && --sender->waits == 0) {
            resumed_.push_back(id);
        }
    }
    c.held_back.clear();
}

} // namespace bus
