// What the tests over a bus share: the broker in a process of its own, clients with the library and with
// their bare socket, and bytes written as text.
#pragma once

#include <csignal>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <libubus.h>

constexpr int WAIT_MS = 10000; // for what must come; only a failing test waits so long

// Runs the loop until `done`; false when that takes absurdly long.
inline bool run_until(const std::function<bool()> &done)
{
    for (int turns = 0; turns < WAIT_MS / 5 && !done(); ++turns) {
        uloop_run_timeout(5);
    }
    return done();
}

// The broker that belongs to the library under test.
struct BrokerProcess {
    const std::string path = testing::TempDir() + "ovani_bus_test." + std::to_string(getpid());
    pid_t pid = 0;

    ~BrokerProcess() { stop(); }

    void launch(const char *delay_seconds = "0")
    {
        pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            constexpr const char *command = "sleep $1; exec " UBUSD_COMMAND " -s $2";
            execl("/bin/sh", "sh", "-c", command, "sh", delay_seconds, path.c_str(), nullptr);
            _exit(127);
        }
    }

    // Returns when it takes connections.
    void start()
    {
        launch();
        ubus_context *ctx = nullptr;
        const auto connects = [&] { return ctx != nullptr || (ctx = ubus_connect(path.c_str())) != nullptr; };
        ASSERT_TRUE(run_until(connects)) << "the broker did not start";
        ubus_free(ctx);
    }

    // Terminated, it must end in order, and with nothing leaked where that is looked at.
    void stop(int signo = SIGTERM)
    {
        int status = 0;
        if (pid > 0 && kill(pid, signo) == 0 && waitpid(pid, &status, 0) == pid && signo == SIGTERM) {
            EXPECT_EQ(status, 0) << "the broker did not end in order";
        }
        unlink(path.c_str());
        pid = 0;
    }
};

struct Blob {
    blob_buf buf = {};

    Blob() { blob_buf_init(&buf, 0); }
    ~Blob() { blob_buf_free(&buf); }
    operator blob_attr *() const { return buf.head; }
    std::string bytes() const { return {reinterpret_cast<const char *>(buf.head), blob_raw_len(buf.head)}; }
};

// A message { text } of about `size` bytes.
struct Text : Blob {
    explicit Text(size_t size) { blobmsg_add_string(&buf, "text", std::string(size, 'x').c_str()); }
};

// A client. Outside the loop what comes in is handed out when a call of its own returns.
struct Peer {
    explicit Peer(const BrokerProcess &broker) : ctx(ubus_connect(broker.path.c_str())) {}
    ~Peer() { ubus_free(ctx); }

    // With this the broker has taken all that was sent, and all that it sent before has come.
    Peer &sync()
    {
        EXPECT_EQ(look_up("nobody"), UBUS_STATUS_NOT_FOUND);
        return *this;
    }
    int look_up(const char *path)
    {
        uint32_t id = 0;
        return ubus_lookup_id(ctx, path, &id);
    }
    int listen(const char *pattern) { return ubus_register_event_handler(ctx, &listener, pattern); }
    int send(const char *event, blob_attr *data = nullptr) { return ubus_send_event(ctx, event, data); }
    uint32_t publish(const char *name)
    {
        object.name = name;
        EXPECT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_OK);
        return object.id;
    }
    void answer(size_t which, int status) { ubus_complete_deferred_request(ctx, &calls.at(which), status); }
    void start_call(uint32_t id, const char *method, blob_attr *data = nullptr)
    {
        ubus_request &request = requests.emplace_back();
        EXPECT_EQ(ubus_invoke_async(ctx, id, method, data, &request), UBUS_STATUS_OK);
        request.priv = this;
        request.data_cb = [](ubus_request *req, int, blob_attr *msg) {
            static_cast<Peer *>(req->priv)->received = blob_len(msg);
        };
        request.complete_cb = [](ubus_request *req, int status) {
            static_cast<Peer *>(req->priv)->statuses.push_back(status);
        };
        ubus_complete_request_async(ctx, &request);
    }

    // As bytes: a whole message; empty once the connection is closed.
    void write(const std::string &bytes) const
    {
        const ssize_t n = ::send(ctx->sock.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        EXPECT_EQ(n, static_cast<ssize_t>(bytes.size()));
    }
    std::string read() const
    {
        std::string message(sizeof(ubus_msghdr) + sizeof(blob_attr), '\0');
        if (recv(ctx->sock.fd, message.data(), message.size(), MSG_WAITALL) <= 0) {
            return "";
        }
        const size_t head = message.size();
        const auto *blob = reinterpret_cast<const blob_attr *>(message.data() + sizeof(ubus_msghdr));
        message.resize(sizeof(ubus_msghdr) + blob_raw_len(blob));
        recv(ctx->sock.fd, message.data() + head, message.size() - head, MSG_WAITALL);
        return message;
    }

    std::vector<std::string> heard;       // the names of events and of methods called
    std::vector<ubus_request_data> calls; // of its object's "defer", to be answered
    std::vector<int> statuses;            // of its own calls, as they ended
    size_t received = 0;                  // the length of the last reply
    ubus_context *ctx;

    struct Object : ubus_object {
        Peer *peer;
    };
    struct Listener : ubus_event_handler {
        Peer *peer;
    };
    static void on_event(ubus_context *, ubus_event_handler *ev, const char *type, blob_attr *)
    {
        static_cast<Listener *>(ev)->peer->heard.emplace_back(type);
    }
    static int on_call(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method,
                       blob_attr *msg)
    {
        Peer *peer = static_cast<Object *>(obj)->peer;
        const std::string name = method;
        peer->heard.push_back(name);
        if (name == "echo") {
            return ubus_send_reply(ctx, req, msg);
        }
        if (name == "defer") {
            ubus_defer_request(ctx, req, &peer->calls.emplace_back());
        } else if (name == "ask_back") { // makes calls while it is itself being called
            peer->sync();
            EXPECT_EQ(peer->send("asked"), UBUS_STATUS_OK);
            peer->heard.emplace_back("answered");
        }
        return UBUS_STATUS_OK;
    }
    static constexpr ubus_method METHODS[] = {{.name = "note", .handler = on_call},
                                              {.name = "echo", .handler = on_call},
                                              {.name = "defer", .handler = on_call},
                                              {.name = "ask_back", .handler = on_call}};
    ubus_object_type type = {.name = "peer", .id = 0, .methods = METHODS, .n_methods = std::size(METHODS)};
    Object object = {{.type = &type, .methods = METHODS, .n_methods = std::size(METHODS)}, this};
    Listener listener = {{.cb = on_event}, this};
    std::deque<ubus_request> requests;
};

class BrokerTest : public testing::Test {
protected:
    void SetUp() override { broker_.start(); }

    BrokerProcess broker_;
};

// Bytes from text: hexadecimal digits, spaces ignored; 'abc' for the characters; [name] for one of `words`.
using Words = std::map<std::string, uint32_t>;
inline std::string bytes(const std::string &text, const Words &words = {})
{
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        const size_t end = text.find(text[i] == '[' ? ']' : '\'', i + 1);
        const std::string inner = text.substr(i + 1, end - i - 1);
        if (text[i] == '[') {
            const uint32_t word = cpu_to_be32(words.at(inner));
            result.append(reinterpret_cast<const char *>(&word), sizeof(word));
            i = end;
        } else if (text[i] == '\'') {
            result += inner;
            i = end;
        } else if (text[i] != ' ') {
            result += static_cast<char>(std::stoul(text.substr(i++, 2), nullptr, 16));
        }
    }
    return result;
}
