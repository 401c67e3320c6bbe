#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>

#include <thread>

#include "fake_tav_interface.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "test_support.h"

namespace {

using kivhal::test::fake_tav_interface;
using kivhal::test::log_contains;
using kivhal::test::log_lines_containing;

class SuidLookupTest : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::VERBOSE);
        kivhal::host::clear_captured_log();
        kivhal::test::reset_discovery_state();
        kiv_sensor_factory::tavInterface = &core;
    }

    static void feed(const std::string& message,
                     void (kiv_sensor_factory::*handler)(const uint8_t*, uint32_t, uint64_t),
                     kiv_sensor_factory& target) {
        (target.*handler)(reinterpret_cast<const uint8_t*>(message.data()),
                          static_cast<uint32_t>(message.size()), 0);
    }

    void answer(const std::string& name, const std::vector<sensor_uid>& suids) {
        feed(fake_tav_interface::make_lookup_event(name, suids),
             &kiv_sensor_factory::default_suids_lookup_callback, factory);
    }

    // Runs the registry handler on another thread while this one waits on
    // registryWait; true when the handler's signal ended the wait.
    bool registry_answer_signals(const std::string& message) {
        pthread_mutex_lock(&factory.registryMutex);
        std::thread reader([&] {
            feed(message, &kiv_sensor_factory::registry_lookup_callback, factory);
        });
        struct timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 10;
        int result = pthread_cond_timedwait(&factory.registryWait, &factory.registryMutex, &deadline);
        pthread_mutex_unlock(&factory.registryMutex);
        reader.join();
        return result == 0;
    }

    fake_tav_interface core;
    kiv_sensor_factory factory;
};

TEST_F(SuidLookupTest, LookupAndDisableRequestsCarryTheSameQuery) {
    factory.request_suid("health", false, true);
    factory.request_suid("registry", true, false);
    core.stop();

    std::vector<kivhal::test::fake_request> requests = core.requests();
    ASSERT_EQ(requests.size(), 2u);
    for (const auto& request : requests) {
        EXPECT_EQ(request.suid, fake_tav_interface::lookup_suid());
        EXPECT_TRUE(request.flag);
        EXPECT_EQ(request.session_id, 0);
        EXPECT_EQ(request.envelope.suid().uidlow(), 0xababababababababULL);
        EXPECT_EQ(request.envelope.suid().uidhigh(), 0xababababababababULL);
        EXPECT_TRUE(request.envelope.suspendconfig().has_processorkind());
        EXPECT_EQ(request.envelope.suspendconfig().processorkind(), 0u);
        EXPECT_EQ(request.envelope.suspendconfig().deliverymode(), 1u);
        EXPECT_TRUE(request.lookup.streamupdates());
    }
    EXPECT_EQ(requests[0].msg_id(), 512u);
    EXPECT_EQ(requests[0].lookup.datatypename(), "health");
    EXPECT_TRUE(requests[0].lookup.lookupoption());
    EXPECT_EQ(requests[1].msg_id(), 10u);
    EXPECT_EQ(requests[1].lookup.datatypename(), "registry");
    EXPECT_TRUE(requests[1].lookup.has_lookupoption());
    EXPECT_FALSE(requests[1].lookup.lookupoption());
    EXPECT_TRUE(log_contains("requesting suid for health"));
}

TEST_F(SuidLookupTest, RegistryCountsOnlyWithSuidsButEveryMessageSignals) {
    EXPECT_TRUE(registry_answer_signals(fake_tav_interface::make_lookup_event("registry", {})));
    EXPECT_FALSE(factory.registryUp);
    EXPECT_TRUE(log_contains("suid_event for registry, num_suids=0"));

    EXPECT_TRUE(registry_answer_signals(fake_tav_interface::make_lookup_event("registr", {{1, 2}})));
    EXPECT_TRUE(registry_answer_signals(fake_tav_interface::make_lookup_event("registry2", {{1, 2}})));
    EXPECT_FALSE(factory.registryUp);

    EXPECT_TRUE(registry_answer_signals(fake_tav_interface::make_event_msg(
        fake_tav_interface::lookup_suid(), {{769, "x"}})));
    EXPECT_TRUE(log_contains("invalid event msg_id=769"));
    EXPECT_TRUE(registry_answer_signals(""));
    EXPECT_FALSE(factory.registryUp);

    EXPECT_TRUE(registry_answer_signals(
        fake_tav_interface::make_lookup_event("registry", {{1, 2}, {3, 4}})));
    EXPECT_TRUE(factory.registryUp);
    EXPECT_TRUE(factory.suidMap.empty());
}

TEST_F(SuidLookupTest, UnknownEventIsLoggedAndTheAnswerAfterItRecorded) {
    sns_suid_event lookup;
    lookup.set_datatypename("accel");
    sns_std_suid* suid = lookup.add_suids();
    suid->set_uidlow(0x11);
    suid->set_uidhigh(0x22);
    feed(fake_tav_interface::make_event_msg(fake_tav_interface::lookup_suid(),
                                            {{769, "junk"}, {768, lookup.SerializeAsString()}}),
         &kiv_sensor_factory::default_suids_lookup_callback, factory);

    EXPECT_EQ(log_lines_containing("invalid event msg_id=769").size(), 1u);
    ASSERT_EQ(factory.suidMap.count("accel"), 1u);
    EXPECT_EQ(factory.suidMap["accel"], (std::vector<sensor_uid>{{0x11, 0x22}}));
    EXPECT_EQ(factory.get_suids("accel"), (sensor_uid{0x11, 0x22}));
    EXPECT_EQ(factory.get_suids("gyro"), (sensor_uid{0, 0}));
    EXPECT_NE(factory.lastSuidTime, 0);
    EXPECT_TRUE(log_contains("received suid for dt=accel"));
}

TEST_F(SuidLookupTest, AnswerWithoutSuidsCountsForNothing) {
    factory.laterBoot = false;
    answer("accel", {});
    EXPECT_TRUE(factory.suidMap.empty());
    EXPECT_EQ(factory.lastSuidTime, 0);
    EXPECT_EQ(num_mandatory_sns, 0u);
    EXPECT_TRUE(mandatorySensors.empty());
    EXPECT_TRUE(log_contains("suid_event for accel, num_suids=0"));
    EXPECT_FALSE(log_contains("received suid"));
}

TEST_F(SuidLookupTest, LaterAnswerReplacesTheSuids) {
    factory.laterBoot = false;
    answer("accel", {{1, 1}, {2, 2}});
    answer("accel", {{3, 3}});
    EXPECT_EQ(factory.suidMap["accel"], (std::vector<sensor_uid>{{3, 3}}));
    EXPECT_EQ(factory.get_suids("accel"), (sensor_uid{3, 3}));
    // The first boot records a name once however often it answers.
    EXPECT_EQ(num_mandatory_sns, 1u);
    EXPECT_EQ(mandatorySensors, (std::vector<std::string>{"accel"}));
    EXPECT_EQ(log_lines_containing("first boot datatype accel num_mandatory_sns 1").size(), 1u);
}

TEST_F(SuidLookupTest, LaterBootCountsListedNamesOnce) {
    mandatorySensors = {"a", "b"};
    mandatoryFound = {{"a", false}, {"b", false}};
    answer("a", {{1, 1}});
    answer("a", {{1, 2}});
    EXPECT_EQ(num_mandatory_sns, 1u);
    EXPECT_FALSE(allMandatoryFound.load());
    answer("b", {{2, 1}});
    EXPECT_EQ(num_mandatory_sns, 2u);
    EXPECT_TRUE(allMandatoryFound.load());
    EXPECT_EQ(mandatorySensors.size(), 2u);
}

}  // namespace
