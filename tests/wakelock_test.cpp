#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "connection_test_fixture.h"
#include "kivhal/host.h"
#include "kiv_log.h"
#include "sns_wakelock.h"
#include "test_support.h"

// The wake lock is a process-wide singleton that opens the kernel files on
// first use; CTest runs every case in its own process, so each case sees a
// fresh instance bound to its own root.
namespace {

using kivhal::test::log_contains;

const std::string kName("KIVHAL_WAKEUP\0", 14);

class WakelockTest : public ::testing::Test {
protected:
    void SetUp() override {
        kivhal::host::clear_captured_log();
        kiv_log::set_level(kiv_log::VERBOSE);
    }
    void TearDown() override { kiv_log::set_level(kiv_log::INFO); }

    void create_kernel_files() {
        root.write_file("/sys/power/wake_lock", "");
        root.write_file("/sys/power/wake_unlock", "");
    }
    std::string locks() const { return root.read_file("/sys/power/wake_lock"); }
    std::string unlocks() const { return root.read_file("/sys/power/wake_unlock"); }

    kivhal::test::scoped_root root;
};

TEST_F(WakelockTest, LockIsTakenOnFirstReferenceAndDroppedAfterTheLast) {
    create_kernel_files();
    sns_wakelock* wl = sns_wakelock::get_instance();
    EXPECT_EQ(wl, sns_wakelock::get_instance());

    wl->get_n_locks(1);
    EXPECT_EQ(locks(), kName);
    wl->get_n_locks(1);
    wl->put_n_locks(1);
    EXPECT_EQ(locks(), kName);
    EXPECT_EQ(unlocks(), "");
    wl->put_n_locks(1);
    EXPECT_EQ(unlocks(), kName);

    wl->get_n_locks(3);
    wl->put_n_locks(3);
    EXPECT_EQ(locks(), kName + kName);
    EXPECT_EQ(unlocks(), kName + kName);
    EXPECT_TRUE(log_contains("sucess wakelock acquire:KIVHAL_WAKEUP", ANDROID_LOG_VERBOSE));
    EXPECT_TRUE(log_contains("sucess release KIVHAL_WAKEUP wakelock", ANDROID_LOG_VERBOSE));
}

TEST_F(WakelockTest, UnderflowAndOverflowAreRefusedAndPutAllDropsTheRest) {
    create_kernel_files();
    sns_wakelock* wl = sns_wakelock::get_instance();

    wl->put_n_locks(1);
    EXPECT_TRUE(log_contains("_in_count 1 is larger than _accu_count 0", ANDROID_LOG_ERROR));
    wl->get_n_locks(2);
    wl->get_n_locks(0xffffffffu);
    EXPECT_TRUE(log_contains("_in_count -1 will overflow max of _accu_count 2", ANDROID_LOG_ERROR));
    wl->put_n_locks(3);
    EXPECT_TRUE(log_contains("_in_count 3 is larger than _accu_count 2", ANDROID_LOG_ERROR));
    EXPECT_EQ(unlocks(), "");

    wl->put_all();
    EXPECT_EQ(locks(), kName);
    EXPECT_EQ(unlocks(), kName);
    kivhal::host::clear_captured_log();
    wl->put_n_locks(1);
    EXPECT_TRUE(log_contains("_in_count 1 is larger than _accu_count 0", ANDROID_LOG_ERROR));
}

TEST_F(WakelockTest, MissingKernelFilesOnlyLogButStillCount) {
    sns_wakelock* wl = sns_wakelock::get_instance();
    EXPECT_TRUE(log_contains("fatal error opening \"/sys/power/wake_lock\": ", ANDROID_LOG_ERROR));
    EXPECT_TRUE(log_contains("fatal error opening \"/sys/power/wake_unlock\": ", ANDROID_LOG_ERROR));

    kivhal::host::clear_captured_log();
    wl->get_n_locks(1);
    wl->get_n_locks(1);
    EXPECT_EQ(kivhal::test::log_lines_containing("Not able to open fd for wakeup:KIVHAL_WAKEUP",
                                                 ANDROID_LOG_ERROR).size(), 1u);

    // Not held, so put_all keeps the count; two puts are still owed.
    wl->put_all();
    wl->put_n_locks(2);
    EXPECT_FALSE(log_contains("is larger than"));
    wl->get_n_locks(1);
    EXPECT_EQ(kivhal::test::log_lines_containing("Not able to open fd for wakeup:KIVHAL_WAKEUP",
                                                 ANDROID_LOG_ERROR).size(), 2u);
}

TEST_F(WakelockTest, WaitForHeldWakesWhenAnotherThreadTakesTheLock) {
    create_kernel_files();
    sns_wakelock* wl = sns_wakelock::get_instance();
    std::thread waiter([wl] { wl->wait_for_held(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    wl->get_n_locks(1);
    waiter.join();
    wl->put_n_locks(1);
    EXPECT_EQ(unlocks(), kName);
}

TEST_F(WakelockTest, FailedUnlockKeepsTheLockHeldAndIsRetriedOnTheNextRelease) {
    root.write_file("/sys/power/wake_lock", "");
    ASSERT_EQ(symlink("/dev/full", root.host_path("/sys/power/wake_unlock").c_str()), 0);
    sns_wakelock* wl = sns_wakelock::get_instance();

    wl->get_n_locks(1);
    wl->put_n_locks(1);
    EXPECT_EQ(kivhal::test::log_lines_containing("failed in write:KIVHAL_WAKEUP wake unlock, error = ",
                                                 ANDROID_LOG_ERROR).size(), 1u);
    // Still held: no new lock write for the next reference, another unlock try after it.
    wl->get_n_locks(1);
    EXPECT_EQ(locks(), kName);
    wl->put_n_locks(1);
    EXPECT_EQ(kivhal::test::log_lines_containing("failed in write:KIVHAL_WAKEUP wake unlock",
                                                 ANDROID_LOG_ERROR).size(), 2u);
}

// With a hold-off the connection's worker times the releases, racing the
// threads' references.
class WakelockThreadsTest : public WakelockTest, public ::testing::WithParamInterface<int> {};

TEST_P(WakelockThreadsTest, ReferencesFromSeveralThreadsBalanceOutAndReleaseTheLock) {
    create_kernel_files();
    // Errors only: the log's own lock would order the threads and hide a race.
    kiv_log::set_level(kiv_log::ERROR);
    kivhal::host::set_property("persist.vendor.kiv.wakelock_holdoff_ms",
                                  std::to_string(GetParam()));
    kivhal::test::core_stub core("threads");
    std::unique_ptr<tav_interface> conn(tav_interface::create(TAV_DUCTO_CONNECTION, {"threads"}));
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
