// The connection's state dump over a live channel: what it shows follows what
// the client and the core did, and a reader that stops reading stalls nothing.
#include <fcntl.h>
#include <unistd.h>

#include <future>

#include "connection_test_fixture.h"
#include "kiv_dump.h"

namespace kivhal {
namespace test {
namespace {

using android::base::unique_fd;

constexpr uint32_t kEnable = 513;
constexpr uint32_t kDisable = 10;
constexpr uint8_t kSession = 3;

std::string suid(sensor_uid id) { return dump::suid_text(id); }

class connection_dump_test : public connection_test {
protected:
    void SetUp() override {
        connection_test::SetUp();
        host::set_property("persist.vendor.kiv.ds", "true");
        ASSERT_NO_FATAL_FAILURE(connect());
        ASSERT_EQ(0, register_sensor(kAccel, accel));
        ASSERT_EQ(0, register_sensor(kGyro, gyro));
    }
};

TEST_F(connection_dump_test, ShowsRegistrationsRequestsAwaitingAnswersAndSessions) {
    send(kAccel, kEnable, kSession);
    send(kGyro, kDisable);
    ASSERT_TRUE(core->wait_for_requests(2, kWait));
    ASSERT_TRUE(core->send_packet(core_stub::make_low_power_state(SNS_LOW_POWER_STATE_OFF, kSession)));
    // The indication is handled on the reader thread, some time after.
    std::string before;
    ASSERT_TRUE(eventually([&] {
        before = dump_of(*conn);
        return before.find("aggregate off") != std::string::npos;
    })) << before;
    for (const std::string& text : std::vector<std::string>{
             "Connection (tav_ducto 0x",
             "  channel: \"sensors\", fd ",
             "  channel errors: 0 in a row (limit 10)\n",
             "  registered sensors: 2 (client request ids 2 in use, 253 free)\n"
             "    client request id 1: " + suid(kAccel) + "\n"
             "    client request id 2: " + suid(kGyro) + "\n",
             "  pending responses, oldest first: 2\n    " + suid(kAccel) + "\n    " + suid(kGyro) + "\n",
             "  disable requests awaiting their response: 1\n    " + suid(kGyro) + "\n",
             "  low-power sessions: 2, aggregate off\n    session 0: on\n    session 3: off\n",
             "  wake lock: 0 references, not held\n"}) {
        EXPECT_THAT(before, HasSubstr(text));
    }

    // Both answered: nothing waits any more and the disabled sensor is gone.
    core->send_response({});
    core->send_response({});
    ASSERT_TRUE(eventually([&] { return ducto()->get_clientreq_id(kGyro) == 0; }));
    const std::string after = dump_of(*conn);
    for (const char* text : {"  registered sensors: 1 (client request ids 1 in use, 254 free)\n",
                             "  pending responses, oldest first: 0\n",
                             "  disable requests awaiting their response: 0\n"}) {
        EXPECT_THAT(after, HasSubstr(text));
    }
}

TEST_F(connection_dump_test, AReaderThatStopsReadingStallsNoDelivery) {
    unique_fd read_end, write_end;
    ASSERT_TRUE(android::base::Pipe(&read_end, &write_end));
    // A full pipe: the dump's first write blocks until someone reads.
    ASSERT_EQ(0, fcntl(write_end.get(), F_SETFL, O_NONBLOCK));
    const std::string filler(4096, 'x');
    while (write(write_end.get(), filler.data(), filler.size()) > 0) {
    }
    ASSERT_EQ(0, fcntl(write_end.get(), F_SETFL, 0));
    auto dumping = std::async(std::launch::async, [&] { conn->dump(write_end.get()); });

    // Sending, answers, reports and registering all go on meanwhile.
    auto client = std::async(std::launch::async, [&] {
        send(kAccel, kEnable);
        core->send_response({});
        core->send_event(core_stub::make_event(kAccel, 1, "x"));
        return accel.wait_for(1) && accel.wait_responses(1) && register_sensor(sensor_uid{0x3333, 0xc3}, gyro) == 0;
    });
    const bool went_on = client.wait_for(kWait) == std::future_status::ready;

    // Drained until the dump has returned and nothing is left in the pipe.
    ASSERT_EQ(0, fcntl(read_end.get(), F_SETFL, O_NONBLOCK));
    std::string drained;
    ASSERT_TRUE(eventually([&] {
        const bool done = dumping.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        char buffer[4096];
        const ssize_t n = read(read_end.get(), buffer, sizeof(buffer));
        if (n > 0) drained.append(buffer, static_cast<size_t>(n));
        return done && n <= 0;
    }));
    EXPECT_TRUE(went_on) << "the client waited for the dump's reader";
    EXPECT_TRUE(client.get());
    EXPECT_THAT(drained, HasSubstr("Connection (tav_ducto 0x"));
}

}  // namespace
}  // namespace test
}  // namespace kivhal
