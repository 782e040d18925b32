#include <libubox/uloop.h>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

class Uloop : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(uloop_init(), 0); }
    void TearDown() override
    {
        uloop_done();
        uloop_handle_sigchld = true;
    }
};

struct Pipe : uloop_fd {
    Pipe *other;
};

// Readable at once: its writing end has written and is closed.
Pipe *new_pipe(uloop_fd_handler cb)
{
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    EXPECT_EQ(write(fds[1], "", 1), 1);
    close(fds[1]);
    auto *p = new Pipe{};
    p->cb = cb;
    p->fd = fds[0];
    EXPECT_EQ(uloop_fd_add(p, ULOOP_READ), 0);
    return p;
}

void free_pipe(Pipe *p)
{
    uloop_fd_delete(p);
    close(p->fd);
    delete p;
}

void (*disposition(int signo))(int)
{
    struct sigaction action = {};
    sigaction(signo, nullptr, &action);
    return action.sa_handler;
}

} // namespace

TEST_F(Uloop, CallbackMayFreeItselfAndOneThatWaitsForItsTurn)
{
    const auto free_both = [](uloop_fd *u, unsigned) {
        free_pipe(static_cast<Pipe *>(u)->other);
        free_pipe(static_cast<Pipe *>(u));
        uloop_end();
    };
    Pipe *a = new_pipe(free_both);
    Pipe *b = new_pipe(free_both);
    a->other = b;
    b->other = a;
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(uloop_run_timeout(0), 0);
}

TEST_F(Uloop, HungUpDescriptorIsReportedOnce)
{
    static int calls;
    Pipe *p = new_pipe([](uloop_fd *, unsigned) { calls++; });
    for (int i = 0; i < 3; ++i) {
        uloop_run_timeout(1);
    }
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(p->error);
    free_pipe(p);
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

TEST_F(Uloop, TakesOnlyDefaultDispositionsAndGivesThemBack)
{
    uloop_done();
    const auto own = [](int) {};
    signal(SIGINT, own);
    uloop_handle_sigchld = false;
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(disposition(SIGINT), +own);
    EXPECT_EQ(disposition(SIGCHLD), SIG_DFL);
    EXPECT_EQ(disposition(SIGPIPE), SIG_IGN);
    EXPECT_NE(disposition(SIGTERM), SIG_DFL);
    uloop_done();
    EXPECT_EQ(disposition(SIGINT), +own);
    EXPECT_EQ(disposition(SIGPIPE), SIG_DFL);
    EXPECT_EQ(disposition(SIGTERM), SIG_DFL);
    signal(SIGINT, SIG_DFL);
}

TEST_F(Uloop, TellsOfAChildsEnd)
{
    static int status;
    uloop_process child = {};
    child.cb = [](uloop_process *, int ret) {
        status = ret;
        uloop_end();
    };
    child.pid = fork();
    if (child.pid == 0) {
        _exit(7);
    }
    EXPECT_EQ(uloop_process_add(&child), 0);
    uloop_run();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
}
