// The wake lock's hold-off: the kernel unlock waits out a window in which a
// new reference keeps the lock without any write. Unit cases run the wake
// lock's timer on a virtual clock.
#include <android-base/unique_fd.h>
#include <fcntl.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "connection_test_fixture.h"
#include "sns_wakelock.h"
#include "wakelock_timer.h"

namespace kivhal {
namespace test {
namespace {

constexpr char kHoldoffProperty[] = "persist.vendor.kiv.wakelock_holdoff_ms";
constexpr char kLockFile[] = "/sys/power/wake_lock";
constexpr char kUnlockFile[] = "/sys/power/wake_unlock";
constexpr int64_t kNsPerMs = 1000000;
const std::string kName("KIVHAL_WAKEUP\0", 14);

// Time moves only in advance_ms(), which returns once the timer thread has
// acted on it and blocks again.
class virtual_clock : public wakelock_clock {
  public:
    int64_t now_ns() override { return now; }
    bool wait_until(kivhal::unique_lock& lock, std::condition_variable& cond,
                    int64_t deadline_ns) override {
        const auto due = [&] { return deadline_ns != kNever && now >= deadline_ns; };
        if (due()) return true;
        mutex = lock.native().mutex();
        waiting = &cond;
        ++blocks;
        cond.wait(lock.native());
        return due();
    }
    void advance_ms(int64_t ms) {
        while (blocks == 0) std::this_thread::yield();
        int before;
        {
            std::lock_guard<std::mutex> hold(*mutex.load());
            now += ms * kNsPerMs;
            before = blocks;
            waiting.load()->notify_all();
        }
        while (blocks == before) std::this_thread::yield();
    }
    std::atomic<int64_t> now{0};
    std::atomic<int> blocks{0};
    std::atomic<std::mutex*> mutex{nullptr};
    std::atomic<std::condition_variable*> waiting{nullptr};
};

std::string dump_text(tav_interface& conn, const scoped_root& root) {
    android::base::unique_fd fd(
        open(root.host_path("/dump").c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600));
    conn.dump(fd.get());
    return root.read_file("/dump");
}

class WakelockHoldoffTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* file : {kLockFile, kUnlockFile}) root.write_file(file, "");
        host::set_property(kHoldoffProperty, "20");
        wakelock_clock::use_for_next_wakelock(&clock);
        wl = sns_wakelock::get_instance();
    }
    void TearDown() override { delete wl; }  // joins the timer before the clock goes
    size_t writes(const char* file) const { return root.read_file(file).size() / kName.size(); }
    void report() {
        wl->get_n_locks(1);
        wl->put_n_locks(1);
    }

    scoped_root root;
    virtual_clock clock;
    sns_wakelock* wl = nullptr;
};

TEST_F(WakelockHoldoffTest, BurstsCloserThanTheWindowShareOneLockAndOneUnlock) {
    // Three bursts of ten reports 1 ms apart; the window runs from the last
    // report of a burst, which is 1 ms before the gap starts.
    for (const auto& [gap_ms, pairs] :
         std::vector<std::pair<int, size_t>>{{18, 1}, {19, 3}, {60, 3}}) {
        const size_t locks = writes(kLockFile), unlocks = writes(kUnlockFile);
        for (int burst = 0; burst < 3; ++burst) {
            for (int i = 0; i < 10; ++i, clock.advance_ms(1)) report();
            const sns_wakelock::state state = wl->get_state();
            EXPECT_TRUE(state.held && state.release_pending && state.count == 0);
            clock.advance_ms(gap_ms);
        }
        clock.advance_ms(100);
        EXPECT_EQ(pairs, writes(kLockFile) - locks) << "gap " << gap_ms;
        EXPECT_EQ(pairs, writes(kUnlockFile) - unlocks) << "gap " << gap_ms;
    }
    report();  // a lone report is released too
    clock.advance_ms(50);
    EXPECT_FALSE(wl->get_state().held);
    // A reference taken within the window and held past its end keeps the lock.
    report();
    wl->get_n_locks(1);
    clock.advance_ms(50);
    EXPECT_TRUE(wl->get_state().held);
    wl->put_n_locks(1);
    clock.advance_ms(50);
    EXPECT_FALSE(wl->get_state().held);
}

// The kernel keeps a named lock past its process: exit(), the destructor and
// a flush write a pending release; after a flush releases are immediate.
TEST_F(WakelockHoldoffTest, APendingReleaseIsWrittenAtExitDestructionAndFlush) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fork has no timer thread to join
    kiv_log::set_stderr_logging(true);
    kiv_log::set_level(kiv_log::VERBOSE);
    // Its own root: the release line is the evidence.
    EXPECT_EXIT((report(), exit(0)), ::testing::ExitedWithCode(0), "sucess release KIVHAL_WAKEUP");
    report();
    delete wl;
    EXPECT_EQ(1u, writes(kUnlockFile));
    wl = sns_wakelock::get_instance();
    report();
    wl->flush_deferred_release();
    EXPECT_EQ(1u, wl->get_state().unlock_writes);
    report();
    EXPECT_EQ(2u, wl->get_state().unlock_writes);
}

TEST_F(WakelockHoldoffTest, ABadSettingIsLoggedAndLeavesTheHoldoffOff) {
    for (const char* value : {"20ms", "-5", "10001", "99999999999999999999"}) {
        delete wl;
        host::clear_captured_log();
        host::set_property(kHoldoffProperty, value);
        wl = sns_wakelock::get_instance();
        EXPECT_EQ(0u, wl->holdoff_ms()) << value;
        EXPECT_TRUE(
            log_contains(std::string(kHoldoffProperty) + " \"" + value + "\" is not a number",
                         ANDROID_LOG_ERROR));
    }
}

// The due time in milliseconds, one decimal: 19.949999 ms is 19.9.
TEST_F(connection_test, ReportsShareOneWindowAndTheDumpShowsIt) {
    host::set_property(kHoldoffProperty, "20");
    virtual_clock clock;
    wakelock_clock::use_for_next_wakelock(&clock);
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    for (int i = 0; i < 50; ++i) core->send_event(core_stub::make_event(kAccel, 1, "x"));
    ASSERT_TRUE(accel.wait_for(50));
    sns_wakelock* wl = sns_wakelock::get_instance();
    // The reader gives its reference back after the callback returns.
    ASSERT_TRUE(eventually([&] { return wl->get_state().release_pending; }));
    clock.now = 50001;
    EXPECT_THAT(dump_text(*conn, root),
                HasSubstr("    hold-off: 20 ms, release pending, due in 19.9 ms\n"));
    clock.advance_ms(20);
    EXPECT_THAT(dump_text(*conn, root), HasSubstr("    hold-off: 20 ms, no release pending\n"
                                                  "    kernel writes: 1 lock, 1 unlock\n"));
    conn.reset();
    delete wl;
}

}  // namespace
}  // namespace test
}  // namespace kivhal
