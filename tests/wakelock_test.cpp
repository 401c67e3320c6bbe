#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <thread>

#include "connection_test_fixture.h"
#include "kiv_log.h"
#include "kivhal/host.h"
#include "sns_wakelock.h"
#include "test_support.h"

// The wake lock is a process-wide singleton that opens the kernel files on
// first use; CTest runs every case in its own process, so each case sees a
// fresh instance bound to its own root.
namespace {

using kivhal::test::log_lines_containing;

const std::string kName("KIVHAL_WAKEUP\0", 14);

class WakelockTest : public ::testing::Test {
  protected:
    void SetUp() override { kiv_log::set_level(kiv_log::VERBOSE); }

    void create_kernel_files() {
        root.write_file("/sys/power/wake_lock", "");
        root.write_file("/sys/power/wake_unlock", "");
    }
    std::string locks() const { return root.read_file("/sys/power/wake_lock"); }
    std::string unlocks() const { return root.read_file("/sys/power/wake_unlock"); }

    kivhal::test::scoped_root root;
};

TEST_F(WakelockTest, OneLockPerCountLeaving0AndRefusedUnderflowAndOverflow) {
    create_kernel_files();
    sns_wakelock* wl = sns_wakelock::get_instance();
    EXPECT_EQ(wl, sns_wakelock::get_instance());
    wl->put_n_locks(1);
    wl->get_n_locks(2);
    wl->get_n_locks(UINT32_MAX);
    wl->put_n_locks(3);
    wl->put_n_locks(1);
    EXPECT_EQ(locks(), kName);
    EXPECT_EQ(unlocks(), "");
    EXPECT_EQ(1u, wl->get_state().count);
    EXPECT_EQ(3u, log_lines_containing(", _in_count ", ANDROID_LOG_ERROR).size());
    wl->put_n_locks(1);
    EXPECT_EQ(unlocks(), kName);
    EXPECT_FALSE(wl->get_state().held);
    wl->get_n_locks(3);
    wl->put_all();
    EXPECT_EQ(0u, wl->get_state().count);
    EXPECT_EQ(locks(), kName + kName);
    EXPECT_EQ(unlocks(), kName + kName);
}

TEST_F(WakelockTest, MissingKernelFilesOnlyLogButStillCount) {
    sns_wakelock* wl = sns_wakelock::get_instance();
    for (const std::string path : {"/sys/power/wake_lock", "/sys/power/wake_unlock"}) {
        EXPECT_TRUE(kivhal::test::log_contains("fatal error opening \"" + path + "\": ",
                                               ANDROID_LOG_ERROR));
    }
    const auto refusals = [] {
        return log_lines_containing("Not able to open fd for wakeup:", ANDROID_LOG_ERROR).size();
    };
    wl->get_n_locks(1);
    wl->get_n_locks(1);
    EXPECT_EQ(2u, wl->get_state().count);
    EXPECT_EQ(1u, refusals());
    wl->put_all();  // not held: the count stays
    EXPECT_EQ(2u, wl->get_state().count);
    wl->put_n_locks(2);
    wl->get_n_locks(1);
    EXPECT_EQ(2u, refusals());
}

// A kernel file on descriptor 0 is closed with the lock like any other.
TEST_F(WakelockTest, KernelFilesOnDescriptorZeroAreClosed) {
    // 0 goes to the unlock file, then to the lock file.
    for (const char* file : {"/sys/power/wake_unlock", "/sys/power/wake_lock"}) {
        root.write_file(file, "");
        EXPECT_EXIT((close(0), delete sns_wakelock::get_instance(), _exit(fcntl(0, F_GETFD) != -1)),
                    ::testing::ExitedWithCode(0), "")
            << file;
    }
}

TEST_F(WakelockTest, WaitForHeldWakesWhenAnotherThreadTakesTheLock) {
    create_kernel_files();
    sns_wakelock* wl = sns_wakelock::get_instance();
    std::atomic<pid_t> waiter_tid{0};
    std::atomic<bool> woken{false};
    std::thread waiter([&] {
        waiter_tid = gettid();
        wl->wait_for_held();
        woken = true;
    });
    // The lock is taken only once the waiter sleeps ('S' in /proc), so only
    // the wake-up can end its wait.
    ASSERT_TRUE(kivhal::test::eventually([&] {
        std::string stat;
        android::base::ReadFileToString("/proc/self/task/" + std::to_string(waiter_tid) + "/stat",
                                        &stat);
        return waiter_tid != 0 && stat.find(") S ") != std::string::npos;
    }));
    wl->get_n_locks(1);
    EXPECT_TRUE(kivhal::test::eventually([&] { return woken.load(); }));
    waiter.detach();  // if not woken, asleep for good; the process ends with the case
}

TEST_F(WakelockTest, FailedUnlockKeepsTheLockHeldAndIsRetriedOnTheNextRelease) {
    root.write_file("/sys/power/wake_lock", "");
    ASSERT_EQ(symlink("/dev/full", root.host_path("/sys/power/wake_unlock").c_str()), 0);
    sns_wakelock* wl = sns_wakelock::get_instance();
    wl->get_n_locks(1);
    wl->put_n_locks(1);
    EXPECT_TRUE(wl->get_state().held);
    // Still held: no new lock write for the next reference, another unlock try after it.
    wl->get_n_locks(1);
    wl->put_n_locks(1);
    EXPECT_EQ(locks(), kName);
    EXPECT_EQ(2u, log_lines_containing("failed in write:KIVHAL_WAKEUP wake unlock, error = ",
                                       ANDROID_LOG_ERROR)
                      .size());
}

// With a hold-off the wake lock's timer thread races the threads' references.
class WakelockThreadsTest : public WakelockTest, public ::testing::WithParamInterface<int> {};

TEST_P(WakelockThreadsTest, ReferencesFromSeveralThreadsBalanceOutAndReleaseTheLock) {
    create_kernel_files();
    // Errors only: the log's own lock would order the threads and hide a race.
    kiv_log::set_level(kiv_log::ERROR);
    kivhal::host::set_property("persist.vendor.kiv.wakelock_holdoff_ms", std::to_string(GetParam()));
    sns_wakelock* wl = sns_wakelock::get_instance();
    constexpr int kThreads = 4, kRounds = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([wl] {
            for (int round = 0; round < kRounds; ++round) {
                wl->get_n_locks(1);
                wl->put_n_locks(1);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_TRUE(kivhal::test::eventually([wl] { return !wl->get_state().held; }));
    EXPECT_EQ(0u, wl->get_state().count);
    EXPECT_TRUE(kivhal::host::captured_log().empty());
    // Every kernel lock was matched by an unlock.
    EXPECT_FALSE(locks().empty());
    EXPECT_EQ(locks().size(), unlocks().size());
}
INSTANTIATE_TEST_SUITE_P(HoldoffMs, WakelockThreadsTest, ::testing::Values(0, 20));

}  // namespace
