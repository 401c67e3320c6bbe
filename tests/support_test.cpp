// The test support's own faults: a file that was never written must not read
// as empty, and a program the tests start is the only one they ever signal.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <stdexcept>

#include "test_support.h"
#include "tool_process.h"

namespace {

using kivhal::test::tool_process;

// Every kill() of this program goes through here: it is recorded, and only a
// positive pid is passed on, so no broken stop() can signal a process group
// or every process there is.
std::vector<pid_t> g_killed;
}  // namespace

extern "C" int kill(pid_t pid, int signal_number) {
    g_killed.push_back(pid);
    if (pid <= 0) {
        errno = EPERM;
        return -1;
    }
    return static_cast<int>(syscall(SYS_kill, pid, signal_number));
}

namespace {

TEST(SupportTest, FilesThatCannotBeWrittenOrReadThrow) {
    kivhal::test::scoped_root root;
    root.write_file("/dir/file", "x");
    EXPECT_EQ("x", root.read_file("/dir/file"));
    EXPECT_THROW(root.write_file("/dir", "x"), std::runtime_error);
    EXPECT_THROW(root.read_file("/missing"), std::runtime_error);
}

TEST(SupportTest, OneLineMeansExactlyOneEndedLine) {
    EXPECT_TRUE(kivhal::test::is_one_line("usage\n"));
    for (const char* text : {"", "usage", "\n\n", "a\nb\n"})
        EXPECT_FALSE(kivhal::test::is_one_line(text)) << text;
}

TEST(SupportTest, AStoppedProgramIsNeverSignalledAgain) {
    tool_process sleeper("/bin/sleep", {"30"});
    EXPECT_EQ(-1, sleeper.stop(SIGTERM).exit_code);
    const std::vector<pid_t> after_first = g_killed;
    EXPECT_EQ(-1, sleeper.stop(SIGTERM).exit_code);
    EXPECT_EQ(after_first, g_killed);
    for (pid_t pid : g_killed) EXPECT_GT(pid, 0);
}

TEST(SupportTest, AStatusThatCannotBeCollectedIsAnError) {
    // Ignoring SIGCHLD makes the kernel reap children at once: waitpid fails.
    signal(SIGCHLD, SIG_IGN);
    EXPECT_THROW(kivhal::test::run_program("/bin/false", {}), std::runtime_error);
    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(1, kivhal::test::run_program("/bin/false", {}).exit_code);
}

}  // namespace
