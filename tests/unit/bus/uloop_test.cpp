#include <libubox/uloop.h>

#include <memory>

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

class Uloop : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(uloop_init(), 0); }
    void TearDown() override { uloop_done(); }
};

// Readable at once: its writing end has written and is closed.
struct Pipe : uloop_fd {
    explicit Pipe(uloop_fd_handler handler) : uloop_fd{.cb = handler}
    {
        int fds[2];
        EXPECT_EQ(pipe(fds), 0);
        EXPECT_EQ(write(fds[1], "", 1), 1);
        close(fds[1]);
        fd = fds[0];
        EXPECT_EQ(uloop_fd_add(this, ULOOP_READ), 0);
    }
    ~Pipe()
    {
        uloop_fd_delete(this);
        close(fd);
    }
};

} // namespace

TEST_F(Uloop, CallbackMayFreeItselfAndOneThatWaitsForItsTurn)
{
    static std::unique_ptr<Pipe> pipes[2];
    for (auto &one : pipes) {
        one = std::make_unique<Pipe>([](uloop_fd *, unsigned) {
            pipes[0].reset();
            pipes[1].reset();
            uloop_end();
        });
    }
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(uloop_run_timeout(0), 0);
}

TEST_F(Uloop, HungUpDescriptorIsReportedOnce)
{
    static int calls;
    const Pipe one([](uloop_fd *, unsigned) { ++calls; });
    for (int i = 0; i < 3; ++i) {
        uloop_run_timeout(1);
    }
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(one.error);
}

TEST_F(Uloop, SignalEndsTheLoopEvenIfItCameBefore)
{
    raise(SIGTERM);
    EXPECT_EQ(uloop_run(), SIGTERM);
    uloop_timeout end = {};
    end.cb = [](uloop_timeout *) { raise(SIGINT); };
    uloop_timeout_set(&end, 1);
    EXPECT_EQ(uloop_run(), SIGINT);
}
