#include <libubox/uloop.h>

#include <memory>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

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

struct Timer : uloop_timeout {
    std::vector<int> *fired;
    int number;
};

struct Pipe : uloop_fd {
    int write_end;
    int calls;
    Pipe *victim;
};

Pipe new_pipe(uloop_fd_handler cb)
{
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    Pipe p = {};
    p.cb = cb;
    p.fd = fds[0];
    p.write_end = fds[1];
    return p;
}

void close_pipe(Pipe &p)
{
    uloop_fd_delete(&p);
    close(p.fd);
    if (p.write_end >= 0)
        close(p.write_end);
}

void (*disposition(int signo))(int)
{
    struct sigaction action = {};
    sigaction(signo, nullptr, &action);
    return action.sa_handler;
}

} // namespace

TEST_F(Uloop, TimersRunInOrderAndCanBeCancelledAndSetAgain)
{
    std::vector<int> fired;
    Timer timers[4] = {};
    const int delays[] = {30, 10, 20, 15};
    for (int i = 0; i < 4; i++) {
        timers[i].fired = &fired;
        timers[i].number = i;
        timers[i].cb = [](uloop_timeout *t) {
            auto *self = static_cast<Timer *>(t);
            self->fired->push_back(self->number);
            if (self->number == 0)
                uloop_end();
        };
        EXPECT_EQ(uloop_timeout_set(&timers[i], delays[i]), 0);
    }
    EXPECT_EQ(uloop_timeout_cancel(&timers[3]), 0);
    EXPECT_EQ(uloop_timeout_cancel(&timers[3]), -1);
    EXPECT_EQ(uloop_timeout_remaining64(&timers[3]), -1);
    EXPECT_GT(uloop_timeout_remaining64(&timers[0]), 0);
    EXPECT_EQ(uloop_timeout_set(&timers[1], 25), 0);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(fired, (std::vector<int>{2, 1, 0}));
}

// Both are readable at once; whichever comes first deletes and frees both.
TEST_F(Uloop, CallbackMayFreeADescriptorThatWaitsForItsTurn)
{
    const auto free_both = [](uloop_fd *u, unsigned) {
        auto *self = static_cast<Pipe *>(u);
        for (Pipe *p : {self->victim, self}) {
            close_pipe(*p);
            delete p;
        }
        uloop_end();
    };
    auto *a = new Pipe(new_pipe(free_both));
    auto *b = new Pipe(new_pipe(free_both));
    a->victim = b;
    b->victim = a;
    for (Pipe *p : {a, b}) {
        EXPECT_EQ(write(p->write_end, "", 1), 1);
        EXPECT_EQ(uloop_fd_add(p, ULOOP_READ), 0);
    }
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(uloop_run_timeout(0), 0);
}

TEST_F(Uloop, HungUpDescriptorIsReportedOnce)
{
    Pipe p = new_pipe([](uloop_fd *u, unsigned) { static_cast<Pipe *>(u)->calls++; });
    EXPECT_EQ(uloop_fd_add(&p, ULOOP_READ), 0);
    close(p.write_end);
    p.write_end = -1;
    for (int i = 0; i < 3; i++)
        uloop_run_timeout(1);
    EXPECT_EQ(p.calls, 1);
    EXPECT_TRUE(p.error);
    EXPECT_FALSE(p.registered);
    close_pipe(p);
}

TEST_F(Uloop, TermSignalEndsTheLoopEvenIfItCameBefore)
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
    signal(SIGCHLD, SIG_DFL);
    uloop_handle_sigchld = false;
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(disposition(SIGINT), +own);
    EXPECT_EQ(disposition(SIGCHLD), SIG_DFL);
    EXPECT_EQ(disposition(SIGPIPE), SIG_IGN);
    EXPECT_NE(disposition(SIGTERM), SIG_DFL);
    uloop_done();
    signal(SIGINT, SIG_DFL);
    EXPECT_EQ(disposition(SIGPIPE), SIG_DFL);
    EXPECT_EQ(disposition(SIGTERM), SIG_DFL);
}

TEST_F(Uloop, TellsOfAChildsEnd)
{
    static int status;
    status = -1;
    uloop_process child = {};
    child.cb = [](uloop_process *, int ret) {
        status = ret;
        uloop_end();
    };
    child.pid = fork();
    if (child.pid == 0)
        _exit(7);
    EXPECT_EQ(uloop_process_add(&child), 0);
    uloop_run();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
}
