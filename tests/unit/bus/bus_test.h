// What the tests of the bus share: a broker of their own, clients that speak raw bytes, bytes written as
// text.
#ifndef TESTS_UNIT_BUS_BUS_TEST_H
#define TESTS_UNIT_BUS_BUS_TEST_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <libubus.h>

constexpr int kWaitMs = 10000; // for what must come; only a failing test waits so long

using Bytes = std::vector<uint8_t>;

/*
 * Bytes as text: hexadecimal digits, spaces ignored; 'text' for the characters (no terminator); [name] for an
 * id of four bytes. `match` compares: an id that is not in `ids` yet is put there, one that is must be the
 * same.
 */
using Ids = std::map<std::string, std::string>;
Bytes bytes(const char *text, const Ids &ids = {});
bool match(const char *text, const Bytes &actual, Ids &ids);
std::string hex(const Bytes &bytes);

struct Blob {
    blob_buf buf = {};

    Blob() { blob_buf_init(&buf, 0); }
    ~Blob() { blob_buf_free(&buf); }
    Blob(const Blob &) = delete;
    Blob &operator=(const Blob &) = delete;
    operator blob_attr *() { return buf.head; }
};

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    std::string file(const char *name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// A broker in a child process. Ending it fails the test if it did not end in order, or leaked.
class BrokerProcess {
public:
    explicit BrokerProcess(std::string path, unsigned max_descriptors = 0);
    ~BrokerProcess() { stop(); }
    BrokerProcess(const BrokerProcess &) = delete;
    BrokerProcess &operator=(const BrokerProcess &) = delete;
    void start();
    void stop();
    const char *path() const { return path_.c_str(); }
    pid_t pid() const { return pid_; }

private:
    std::string path_;
    unsigned max_descriptors_;
    pid_t pid_ = -1;
};

struct Message {
    Bytes raw; // header and blob
    uint8_t type() const { return raw[1]; }
    uint16_t seq() const { return static_cast<uint16_t>(raw[2] << 8 | raw[3]); }
    uint32_t peer() const;
    uint32_t u32(ubus_msg_attr id) const; // ~0 when it is not there
    std::string text(ubus_msg_attr id) const;
    blob_attr *attr(ubus_msg_attr id) const;
};

// A client without the library. Receives with a time limit, and nothing once the connection is closed.
class RawClient {
public:
    explicit RawClient(const char *path);
    explicit RawClient(int fd) : fd_(fd) {}
    ~RawClient();
    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;

    bool connected() const { return fd_ >= 0; }
    bool write(const Bytes &bytes);
    bool send(ubus_msg_type type, uint16_t seq, uint32_t peer, blob_attr *blob);
    std::optional<Message> receive(int timeout_ms = kWaitMs);
    std::optional<Message> receive(ubus_msg_type type, int timeout_ms = kWaitMs); // passes over other types
    bool closed(); // by the other side; waits for it
    uint32_t id() const { return id_; }
    int fd() const { return fd_; }

    // Requests as a client would make them; the result is the status, ~0 without an answer.
    uint32_t request(ubus_msg_type type, uint32_t peer, blob_attr *blob);
    uint32_t add_object(const char *path, const char *method = nullptr); // the object's id, 0: refused
    uint32_t listen(uint32_t object, const char *pattern);
    uint32_t send_event(const char *name, uint32_t value);
    bool ping();

private:
    int fd_ = -1;
    uint32_t id_ = 0;
    uint16_t seq_ = 100;
    Bytes input_;
};

class BrokerTest : public testing::Test {
protected:
    TempDir dir_;
    BrokerProcess broker_{dir_.file("bus")};
    const char *path_ = broker_.path();
};

#endif
