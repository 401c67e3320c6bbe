// The power-state service client against an in-process fake service.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fake_power_state_service.h"
#include "kiv_log.h"
#include "kivhal/power_state_service_registry.h"
#include "sns_low_power_state_handler.h"
#include "test_support.h"

namespace {

using kivhal::test::fake_power_state_service;
using kivhal::test::log_contains;
using kivhal::test::log_lines_containing;

class PowerStateClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::VERBOSE);
        kivhal::host::clear_captured_log();
    }
    void TearDown() override { kivhal::host::clear_power_state_services(); }
};

TEST_F(PowerStateClientTest, RegistersOnceAndAcquiresOnlyOnce) {
    auto service = kivhal::test::register_fake_power_state_service();

    sns_low_power_state_handler* handler =
        sns_low_power_state_handler::get_sns_low_power_state_handler();
    ASSERT_NE(handler, nullptr);
    EXPECT_EQ(sns_low_power_state_handler::get_sns_low_power_state_handler(), handler);
    EXPECT_EQ(service->counts().registrations, 1);
    EXPECT_TRUE(log_contains("SNS_LOW_PWR_STATE_MSG: power_state_callback_impl entry"));

    // A release with nothing held sends nothing.
    sns_low_power_state_handler::release_wakelock();
    EXPECT_EQ(service->counts().releases, 0);

    EXPECT_TRUE(sns_low_power_state_handler::acquire_wakelock());
    EXPECT_TRUE(sns_low_power_state_handler::acquire_wakelock());
    EXPECT_EQ(service->counts().acquires, 1);
    EXPECT_EQ(log_lines_containing("SNS_LOW_PWR_STATE_MSG acquireLPMWakelock").size(), 1u);

    sns_low_power_state_handler::release_wakelock();
    sns_low_power_state_handler::release_wakelock();
    EXPECT_EQ(service->counts().releases, 1);

    const std::vector<std::string> expected(3, "MRSENSORS_KIV");
    EXPECT_EQ(service->client_names(), expected);
}

TEST_F(PowerStateClientTest, RefusedRegistrationIsRetried) {
    auto service = kivhal::test::register_fake_power_state_service();
    service->set_registration_result(false);
    EXPECT_EQ(sns_low_power_state_handler::get_sns_low_power_state_handler(), nullptr);
    EXPECT_TRUE(log_contains(
        "SNS_LOW_PWR_STATE_MSG IPowerStateService FAILED to registerDeepSleepClient"));

    service->set_registration_result(true);
    EXPECT_NE(sns_low_power_state_handler::get_sns_low_power_state_handler(), nullptr);
    EXPECT_EQ(service->counts().registrations, 2);

    // The service keeps the callback; it ignores every event.
    auto callback = service->registered_callback();
    ASSERT_NE(callback, nullptr);
    EXPECT_FALSE(callback->isRemote());
    EXPECT_TRUE(callback->notifyDeepSleepEvent(1).isOk());
    EXPECT_TRUE(callback->notifyHibernateEvent(0).isOk());
}

TEST_F(PowerStateClientTest, TransportFailureLeavesTheFlagAsItWas) {
    auto service = kivhal::test::register_fake_power_state_service();
    ASSERT_NE(sns_low_power_state_handler::get_sns_low_power_state_handler(), nullptr);

    service->set_wakelock_calls_fail(true);
    EXPECT_FALSE(sns_low_power_state_handler::acquire_wakelock());
    EXPECT_TRUE(log_contains(
        "SNS_LOW_PWR_STATE_MSG unable to acquireLPMWakelock. Exception : Status(-129): "
        "'service died'"));

    // Not held, so the next acquire sends again.
    service->set_wakelock_calls_fail(false);
    EXPECT_TRUE(sns_low_power_state_handler::acquire_wakelock());
    EXPECT_EQ(service->counts().acquires, 2);

    service->set_wakelock_calls_fail(true);
    sns_low_power_state_handler::release_wakelock();
    EXPECT_TRUE(log_contains("SNS_LOW_PWR_STATE_MSG unable to releaseLPMWakelock. Exception : "));
    // Still held: another release is sent.
    service->set_wakelock_calls_fail(false);
    sns_low_power_state_handler::release_wakelock();
    EXPECT_EQ(service->counts().releases, 2);
    sns_low_power_state_handler::release_wakelock();
    EXPECT_EQ(service->counts().releases, 2);
}

}  // namespace
