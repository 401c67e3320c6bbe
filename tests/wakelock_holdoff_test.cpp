// The wake lock's hold-off: the kernel unlock waits out a window in which a
// new reference keeps the lock without any write. Unit cases run on a virtual
// clock through a hand-fired timer host; the connection cases use the worker.
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/resource.h>

#include <cstdlib>
#include <vector>

#include "connection_test_fixture.h"
#include "sns_wakelock.h"

namespace kivhal {
namespace test {
namespace {

constexpr char kHoldoffProperty[] = "persist.vendor.kiv.wakelock_holdoff_ms";
constexpr char kLockFile[] = "/sys/power/wake_lock";
constexpr char kUnlockFile[] = "/sys/power/wake_unlock";
constexpr int64_t kNsPerMs = 1000000;
const std::string kName("KIVHAL_WAKEUP\0", 14);

// Fires when the test moves the clock past the armed deadline.
class virtual_timer_host : public wakelock_timer_host {
  public:
    int64_t now_ns() override { return now; }
    void arm(int64_t deadline_ns) override {
        armed = deadline_ns;
        ++arms;
    }
    void advance_ms(int64_t ms) {
        now += ms * kNsPerMs;
        if (armed < 0 || armed > now) return;
        armed = -1;
        sns_wakelock::get_instance()->on_holdoff_timer(this);
    }
    int64_t now = 0, armed = -1;
    int arms = 0;
};

std::string dump_text(tav_interface& conn, const scoped_root& root) {
    android::base::unique_fd fd(
        open(root.host_path("/dump").c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600));
    conn.dump(fd.get());
    return root.read_file("/dump");
}

// CPU time of every thread but the caller's, in milliseconds.
long others_cpu_ms() {
    rusage process, self;
    getrusage(RUSAGE_SELF, &process);
    getrusage(RUSAGE_THREAD, &self);
    const auto ms = [](const rusage& r) {
        return (r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1000L +
               (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1000;
    };
    return ms(process) - ms(self);
}

class WakelockHoldoffTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* file : {kLockFile, kUnlockFile}) root.write_file(file, "");
        host::set_property(kHoldoffProperty, "20");
        wl = sns_wakelock::get_instance();
        wl->add_timer_host(&timer);
    }
    size_t writes(const char* file) const { return root.read_file(file).size() / kName.size(); }
    void report() {
        wl->get_n_locks(1);
        wl->put_n_locks(1);
    }

    scoped_root root;
    virtual_timer_host timer;
    sns_wakelock* wl = nullptr;
};

TEST_F(WakelockHoldoffTest, BurstsCloserThanTheWindowShareOneLockAndOneUnlock) {
    // Three bursts of ten reports 1 ms apart; the window runs from the last
    // report of a burst, which is 1 ms before the gap starts.
    for (const auto& [gap_ms, pairs] :
         std::vector<std::pair<int, size_t>>{{18, 1}, {19, 3}, {60, 3}}) {
        const size_t locks = writes(kLockFile), unlocks = writes(kUnlockFile), arms = timer.arms;
        for (int burst = 0; burst < 3; ++burst) {
            for (int i = 0; i < 10; ++i, timer.advance_ms(1)) report();
            const sns_wakelock::state state = wl->get_state();
            EXPECT_TRUE(state.held && state.release_pending && state.count == 0);
            timer.advance_ms(gap_ms);
        }
        timer.advance_ms(100);
        EXPECT_EQ(pairs, writes(kLockFile) - locks) << "gap " << gap_ms;
        EXPECT_EQ(pairs, writes(kUnlockFile) - unlocks) << "gap " << gap_ms;
        // Armed per window, not per report.
        EXPECT_LE(timer.arms - arms, 9) << "gap " << gap_ms;
        EXPECT_FALSE(wl->get_state().held);
    }
    // A reference taken within the window and held past its end keeps the lock.
    report();
    wl->get_n_locks(1);
    timer.advance_ms(50);
    EXPECT_TRUE(wl->get_state().held);
    wl->put_n_locks(1);
    timer.advance_ms(50);
    EXPECT_FALSE(wl->get_state().held);
}

TEST_F(WakelockHoldoffTest, APendingReleaseMovesToTheNextHostOrIsWrittenWhenNoneIsLeft) {
    virtual_timer_host second;
    wl->add_timer_host(&second);
    report();
    wl->remove_timer_host(&timer);
    EXPECT_EQ(20 * kNsPerMs, second.armed);
    timer.advance_ms(30);  // the removed host's expiry counts for nothing
    EXPECT_EQ(0u, writes(kUnlockFile));
    wl->remove_timer_host(&second);
    EXPECT_EQ(1u, writes(kUnlockFile));
    report();  // no host: released at once
    EXPECT_EQ(2u, writes(kUnlockFile));

    wl->add_timer_host(&timer);
    report();
    wl->flush_deferred_release();
    EXPECT_EQ(3u, writes(kUnlockFile));
    report();
    delete wl;
    EXPECT_EQ(4u, writes(kUnlockFile));
    EXPECT_EQ(4u, writes(kLockFile));
}

TEST_F(WakelockHoldoffTest, AProcessThatExitsWithAReleasePendingWritesItFirst) {
    EXPECT_EXIT(
        {
            report();
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(1u, writes(kUnlockFile));
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

TEST_F(connection_test, TheWorkerTimesTheReleaseAndTheDumpShowsIt) {
    host::set_property(kHoldoffProperty, "1000");
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    std::string dump;
    const auto dump_has = [&](const std::string& text) {
        dump = dump_text(*conn, root);
        return dump.find(text) != std::string::npos;
    };
    for (int i = 0; i < 50; ++i) core->send_event(core_stub::make_event(kAccel, 1, "x"));
    ASSERT_TRUE(accel.wait_for(50));
    // The reader gives its reference back after the callback returns.
    EXPECT_TRUE(eventually([&] {
        return dump_has("    hold-off: 1000 ms, release pending, due in ");
    })) << dump;
    EXPECT_EQ(kName, root.read_file(kLockFile));
    double due_ms = -1;
    sscanf(dump.c_str() + dump.find("due in "), "due in %lf ms\n", &due_ms);
    EXPECT_TRUE(due_ms > 500 && due_ms <= 1000) << dump;
    // The worker sleeps out the window: the other threads stay idle meanwhile.
    const long cpu_ms = others_cpu_ms();
    EXPECT_TRUE(eventually([&] {
        return dump_has(
            "    hold-off: 1000 ms, no release pending\n"
            "    kernel writes: 1 lock, 1 unlock\n");
    })) << dump;
    EXPECT_LT(others_cpu_ms() - cpu_ms, 200);
    EXPECT_EQ(kName, root.read_file(kUnlockFile));

    // Destroyed within the window: released at once, not a second later.
    core->send_event(core_stub::make_event(kAccel, 1, "x"));
    ASSERT_TRUE(accel.wait_for(51));
    conn.reset();
    EXPECT_EQ(kName + kName, root.read_file(kUnlockFile));
}

// The due time in milliseconds, one decimal: 19.949999 ms is 19.9.
TEST_F(connection_test, TheDumpShowsTheDueTimeInMillisecondsRoundedToOneDecimal) {
    host::set_property(kHoldoffProperty, "20");
    virtual_timer_host timer;  // first host: the one armed
    sns_wakelock* wl = sns_wakelock::get_instance();
    wl->add_timer_host(&timer);
    ASSERT_NO_FATAL_FAILURE(connect());
    wl->get_n_locks(1);
    wl->put_n_locks(1);
    timer.now = 50001;
    EXPECT_THAT(dump_text(*conn, root),
                HasSubstr("    hold-off: 20 ms, release pending, due in 19.9 ms\n"));
    wl->remove_timer_host(&timer);
}

}  // namespace
}  // namespace test
}  // namespace kivhal
