// What the tests of the bus share: a broker of their own, clients that speak raw bytes, bytes written as
// text.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <libubus.h>

constexpr int WAIT_MS = 10000; // for what must come; only a failing test waits so long

using Bytes = std::vector<uint8_t>;

// Bytes from text: hexadecimal digits, spaces ignored; 'abc' for the characters; [name] for a word of
// `words`.
using Words = std::map<std::string, uint32_t>;
Bytes bytes(const std::string &text, const Words &words = {});
std::string hex(const Bytes &bytes);
Bytes bytes_of(const blob_attr *blob);

struct Blob {
    blob_buf buf = {};

    Blob() { blob_buf_init(&buf, 0); }
    ~Blob() { blob_buf_free(&buf); }
    operator blob_attr *() { return buf.head; }
};

int connected_to(const char *path); // a descriptor, not greeted yet

// A path for a socket that nobody else uses.
std::string socket_path();

// A broker in a child process. Stopping it fails the test if it did not end in order, or leaked.
class BrokerProcess {
public:
    explicit BrokerProcess(unsigned max_descriptors = 0) : max_descriptors_(max_descriptors) { start(); }
    ~BrokerProcess() { stop(); }
    void start();
    void stop();
    const char *path() const { return path_.c_str(); }
    std::string proc(const char *file) const { return "/proc/" + std::to_string(pid_) + "/" + file; }

private:
    std::string path_ = socket_path();
    unsigned max_descriptors_;
    pid_t pid_ = -1;
};

struct Message {
    Bytes raw; // header and blob
    uint8_t type() const { return raw[1]; }
    uint16_t seq() const { return static_cast<uint16_t>(raw[2] << 8 | raw[3]); }
    uint32_t peer() const
    {
        return static_cast<uint32_t>(raw[4] << 24 | raw[5] << 16 | raw[6] << 8 | raw[7]);
    }
    blob_attr *attr(ubus_msg_attr id) const;
    uint32_t u32(ubus_msg_attr id) const;
    const char *text(ubus_msg_attr id) const;
};

Bytes message(int type, uint16_t seq, uint32_t peer, blob_attr *blob);

// A client without the library. Receives nothing once the connection is closed.
class RawClient {
public:
    explicit RawClient(const char *path);
    explicit RawClient(int fd) : fd_(fd) {}
    ~RawClient();

    int fd() const { return fd_; }
    uint32_t id() const { return id_; }
    bool write(const Bytes &bytes) const;
    bool has_input() const;
    std::optional<Message> receive();
    std::optional<Message> receive(ubus_msg_type type); // passes over others
    uint32_t status();                                  // that of the next answer; ~0 when none comes
    size_t calls_passed_over() const { return calls_passed_over_; }
    bool closed() const; // by the other side; waits for it

    // Requests, and their status.
    uint32_t request(int type, uint32_t peer, blob_attr *blob);
    uint32_t add_object(const char *path, const char *method = nullptr); // gives the id; 0: refused
    uint32_t listen(uint32_t object, const char *pattern);
    uint32_t send_event(const char *name);
    bool ping();

    // Halves of calls.
    bool call(uint16_t seq, uint32_t object, const char *method) const;
    bool answer(const Message &call, uint32_t object, uint32_t status) const;

private:
    int fd_ = -1;
    uint32_t id_ = 0;
    uint16_t seq_ = 100;
    size_t calls_passed_over_ = 0;
    Bytes input_;
};

// "send" of an event whose message { "text" } is about `size` bytes.
Bytes event_message(const char *name, size_t size);

class BrokerTest : public testing::Test {
protected:
    BrokerProcess broker_;
    const char *path_ = broker_.path();
};
