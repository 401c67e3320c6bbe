#include <android-base/file.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <future>
#include <map>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <unordered_map>

#include "fake_tav_interface.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "sensor_attributes.h"
#include "test_support.h"
#include "virtual_clock.h"

// Discovery against the in-process fake core, which records every request:
// whole startDiscovery runs, then the callbacks, the mandatory sensor list and
// the attribute store driven directly. Discovery's pauses run on virtual
// time; the fake answers each request as it is sent.

namespace {

using core_t = kivhal::test::fake_tav_interface;
using kivhal::test::fake_request;
using kivhal::test::kLookupSuid;
using kivhal::test::log_contains;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

constexpr const char* kListPath = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
constexpr const char* kConfigPath = "/vendor/etc/sensors/oem_config.xml";

template <typename T>
sns_std_attr_value values(std::initializer_list<T> items) {
    sns_std_attr_value value;
    for (const T& item : items) {
        auto* element = value.add_elementlist();
        if constexpr (std::is_same_v<T, float>) element->set_floatvalue(item);
        if constexpr (std::is_same_v<T, int64_t>) element->set_intvalue(item);
        if constexpr (std::is_same_v<T, bool>) element->set_boolvalue(item);
        if constexpr (std::is_same_v<T, const char*>) element->set_stringvalue(item);
    }
    return value;
}

sns_std_attr_value nested(std::initializer_list<sns_std_attr_value> items) {
    sns_std_attr_value value;
    for (const auto& item : items) *value.add_elementlist()->mutable_nestedvalue() = item;
    return value;
}

// Each getter reads its own kind and names what is wrong with any other.
TEST(SensorAttributesTest, GettersReadTheirKindAndNameWhatIsWrong) {
    sensor_attributes a;
    sns_std_attr_value mixed = values<float>({1.0f});
    mixed.add_elementlist()->set_stringvalue("x");
    const std::pair<int32_t, sns_std_attr_value> set[] = {
        {0, values<const char*>({"accel", "ignored"})},
        {1, values<float>({1.5f, -2.0f})},
        {3, values<int64_t>({7, -9})},
        {4, values<bool>({true, false})},
        {2, nested({values<float>({-4, 4}), values<float>({-8, 8})})},
        {5, sns_std_attr_value()},
        {10, mixed},
        {11, nested({values<float>({0, 1}), mixed})},
        {12, nested({values<float>({1})})}};
    for (const auto& [id, value] : set) a.set_attribute(id, value);
    EXPECT_EQ(a.get_string(0), "accel");
    EXPECT_EQ(a.get_floats(1), (std::vector<float>{1.5f, -2.0f}));
    EXPECT_EQ(a.get_ints(3), (std::vector<int64_t>{7, -9}));
    EXPECT_EQ(a.get_bools(4), (std::vector<bool>{true, false}));
    EXPECT_EQ(a.get_ranges(2), (std::vector<std::pair<float, float>>{{-4.0f, 4.0f}, {-8.0f, 8.0f}}));
    EXPECT_TRUE(a.get_floats(5).empty() && a.get_ranges(5).empty());

    const char* malformed = "malformed value for SNS_STD_SENSOR_ATTRID_RANGES";
    const std::pair<std::function<void()>, const char*> errors[] = {
        {[&] { a.get_floats(10); }, "attribute 10 element 1 is not a float"},
        {[&] { a.get_ints(1); }, "attribute 1 element 0 is not an int"},
        {[&] { a.get_bools(0); }, "attribute 0 element 0 is not a boolean"},
        {[&] { a.get_string(5); }, "attribute value is not a string"},
        {[&] { a.get_ranges(11); }, malformed},
        {[&] { a.get_ranges(12); }, malformed},
        {[&] { a.get_ranges(1); }, malformed}};
    for (const auto& [get, message] : errors)
        EXPECT_THAT(get, ThrowsMessage<std::runtime_error>(StrEq(message)));
    EXPECT_THROW(a.get_ranges(99), std::out_of_range);
    EXPECT_THROW(a.get_stream_type(), std::out_of_range);
    a.set_attribute(sensor_attributes::STREAM_TYPE_ATTRIBUTE_ID, sns_std_attr_value());
    EXPECT_THAT([&] { a.get_stream_type(); },
                ThrowsMessage<std::runtime_error>(StrEq("stream_type attribute not available")));
    a.set_attribute(sensor_attributes::STREAM_TYPE_ATTRIBUTE_ID, values<int64_t>({2, 5}));
    EXPECT_EQ(a.get_stream_type(), 2);
}

// The real clock: a sleep lasts its length, started over when a signal cuts
// it short; a timed wait ends at its time-out or at once on its signal.
TEST(DiscoveryClockTest, SleepsOutlastSignalsAndWaitsEndAtTheirSignal) {
    using namespace std::chrono_literals;
    const int64_t ms = kivhal::discovery::kNanosPerMilli;
    kivhal::discovery::discovery_clock& clock = kivhal::discovery::current_clock();
    struct sigaction ignore = {};
    ignore.sa_handler = [](int) {};
    sigaction(SIGUSR1, &ignore, nullptr);
    const pthread_t self = pthread_self();
    std::thread poke([&] {
        std::this_thread::sleep_for(20ms);
        pthread_kill(self, SIGUSR1);
    });
    int64_t start = clock.steady_now_ns();
    EXPECT_EQ(clock.sleep_ns(1000 * ms), 0);  // a whole second splits into seconds
    EXPECT_GE(clock.steady_now_ns() - start, 1000 * ms);
    poke.join();

    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&mutex);
    start = clock.steady_now_ns();
    EXPECT_EQ(clock.timed_wait_ns(&cond, &mutex, 30 * ms), ETIMEDOUT);
    EXPECT_GE(clock.steady_now_ns() - start, 30 * ms);
    std::thread signaller([&] {
        pthread_mutex_lock(&mutex);
        pthread_cond_signal(&cond);
        pthread_mutex_unlock(&mutex);
    });
    EXPECT_EQ(clock.timed_wait_ns(&cond, &mutex, 5000 * ms), 0);
    pthread_mutex_unlock(&mutex);
    signaller.join();
}

constexpr uint32_t kLookup = 512, kAttribute = 1;
constexpr const char* kConfig = R"(<configuration type="KIV_oem_datatype"><datatypes>
    <datatype sensor_type="heart_rate" type="heart_rate" data_type_value="0x1"/></datatypes></configuration>)";
const sensor_uid kHealth{0x200, 0x2}, kHeartRate{0x300, 0x3}, kQuiet{0x400, 0x4};

// `head`, `pattern` `times` times, then `tail`.
std::vector<int64_t> schedule(std::vector<int64_t> head, std::vector<int64_t> pattern = {},
                              int times = 0, std::vector<int64_t> tail = {}) {
    for (int i = 0; i < times; i++) head.insert(head.end(), pattern.begin(), pattern.end());
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

class DiscoveryDriverTest : public ::testing::Test {
  public:
    void SetUp() override {
        kiv_log::set_level(kiv_log::VERBOSE);
        kivhal::test::reset_discovery_state();
        root.write_file(kConfigPath, kConfig);
        root.write_file("/mnt/vendor/persist/sensors/.keep", "");
        core.add_sensor_type("registry", {{0x100, 0x1}});
        kiv_sensor_factory::tavInterface = &core;
    }
    using handler = void (kiv_sensor_factory::*)(const uint8_t*, uint32_t, uint64_t);
    void feed(const std::string& message,
              handler h = &kiv_sensor_factory::default_suids_lookup_callback) {
        (factory.*h)(reinterpret_cast<const uint8_t*>(message.data()),
                     static_cast<uint32_t>(message.size()), 0);
    }
    // Every pause so far, in milliseconds.
    std::vector<int64_t> pauses_ms() {
        std::vector<int64_t> ms;
        for (int64_t ns : clock.pauses()) ms.push_back(ns / 1000000);
        return ms;
    }

    kivhal::test::scoped_root root;
    core_t core;
    kivhal::test::virtual_clock clock;
    kiv_sensor_factory factory;
};

using DiscoveryCallbacksTest = DiscoveryDriverTest;

// One whole startDiscovery on virtual time, seen through its pauses, what it
// sent, what it leaves on the persist partition and, for one, the dump.
struct discovery_run {
    const char* name;
    void (*prepare)(DiscoveryDriverTest&);
    std::vector<int64_t> pauses_ms;
    const char* sent;            // how many requests of each kind
    const char* list;            // the list file afterwards, "(none)" when there is none
    const char* log;             // a line it writes
    const char* also = nullptr;  // another line it writes
    const char* dump = nullptr;
};

class DiscoveryRunTest : public DiscoveryDriverTest,
                         public ::testing::WithParamInterface<discovery_run> {};

// Answers come while discovery waits.
void both_listed(DiscoveryDriverTest& t) {
    t.root.write_file(kListPath, "health\nheart_rate\n");
    t.core.add_sensor_type("health", {kHealth}, true);
    t.core.add_sensor_type("heart_rate", {kHeartRate}, true);
    t.core.hold_answers = true;
    t.clock.meanwhile = [&t] { t.core.deliver_held(); };
}
// heart_rate is known to the core only once its first lookup went unanswered.
void late_heart_rate(DiscoveryDriverTest& t) {
    t.core.hold_answers = true;
    t.clock.meanwhile = [&t] {
        if (t.clock.pauses().size() == 2) t.core.add_sensor_type("heart_rate", {kHeartRate}, true);
        t.core.deliver_held();
    };
}
// Of health's two sensors, one answers its attribute request.
void no_list_folder(DiscoveryDriverTest& t) {
    std::filesystem::remove_all(t.root.host_path("/mnt/vendor/persist/sensors"));
    t.core.add_sensor_type("health", {kHealth, kQuiet});
    t.core.add_sensor_type("unused", {kHealth}, true);
}
void gone_listed(DiscoveryDriverTest& t) {
    t.root.write_file(kListPath, "gone\n");
    t.core.add_sensor_type("health", {kHealth}, true);
}

// What was sent, as "kind count" in the kinds' order: lookups by their name,
// disables of the lookup service, attribute requests and their releases.
std::string sent(const std::vector<fake_request>& requests) {
    std::map<std::string, int> kinds;
    for (const fake_request& r : requests) {
        const bool lookup_service = r.suid == kLookupSuid;
        const bool asks = r.msg_id() == (lookup_service ? kLookup : kAttribute);
        kinds[lookup_service ? (asks ? r.lookup.datatypename() : "disable")
                             : (asks ? "attr" : "release")]++;
    }
    std::string text;
    for (const auto& [kind, count] : kinds)
        text += (text.empty() ? "" : ", ") + kind + " " + std::to_string(count);
    return text;
}

const char* const kLaterBootDump =
    "Sensor factory (kiv_sensor_factory)\n"
    "  boot: later (persisted sensor list read)\n"
    "  discovery: took 1.230 s, SUID wait 1000 ms\n"
    "  last SUID answer: 0.100 s after the start\n"
    "  registry: up\n"
    "  mandatory sensors: 2 listed, 2 found this boot, all found: yes\n"
    "  sensor types: 3, 2 found\n"
    "    health: 0000000000000002:0000000000000200, attributes received\n"
    "    health_async_announce: not found\n"
    "    heart_rate: 0000000000000003:0000000000000300, attributes received\n"
    "  attributes: 2 sensors answered, 0 pending\n"
    "  catalogue: 1 data types (0 with goals, 0 goals), 0 exercises\n";

const discovery_run kRuns[] = {
    // Eighty lookups, each followed by a 1 s wait and a 250 ms pause, then the
    // disable request and 100 ms; neither the list nor the configuration is read.
    {"SilentRegistry", [](DiscoveryDriverTest& t) { t.core.add_sensor_type("registry", {}); },
     schedule({}, {1000, 250}, 80, {100}), "disable 1, registry 80", "(none)",
     "registry_sensor unavailable even after '100.000000secs' of serviceup(no of repeats:'80')"},
    // A broken configuration ends discovery with the list still open (empty).
    {"ParseFailure", [](DiscoveryDriverTest& t) { t.root.write_file(kConfigPath, "<x"); },
     schedule({1000, 100}), "disable 1, registry 1", "", "Error in Parsing of XML Config File"},
    // The initial round plus eight 2 s passes re-sending all three names.
    {"FirstBootWithoutAnswers", [](DiscoveryDriverTest&) {},
     schedule({1000, 100, 7000}, {2000}, 8, {50}),
     "disable 2, health 9, health_async_announce 9, heart_rate 9, registry 1", "",
     "sensors list is 0 after first boot "},
    // The first re-sending pass finds heart_rate and ends the rediscovery.
    {"FirstBootRediscoveryFindsOne", late_heart_rate, schedule({0, 100, 7000, 2000, 50, 30, 50}),
     "attr 1, disable 2, health 2, health_async_announce 2, heart_rate 2, registry 1, release 1",
     "heart_rate\n", "sensors found after re discover 7"},
    // Without its folder the list cannot be created: the answer still counts,
    // so no rediscovery follows; the attribute wait runs out for one sensor.
    {"FirstBootWithoutTheListFolder", no_list_folder,
     schedule({1000, 100, 7000, 50}, {30}, 100, {50}),
     "attr 2, disable 2, health 1, health_async_announce 1, heart_rate 1, registry 1, release 2",
     "(none)", "timeout while waiting for attributes, pending = 1, err = 0"},
    // An unlisted answer grows the list but never counts, so the wait runs
    // out and reports both names as missing, the listed one by name; every
    // pass re-sends only the two names that never answered.
    {"LaterBootWithAnUnansweredName", gone_listed, schedule({1000, 100, 1000}, {1000}, 8, {50, 50}),
     "attr 1, disable 2, health 1, health_async_announce 9, heart_rate 9, registry 1, release 1",
     "gone\nhealth\n", ", 2 missing sensor(s)", ",     gone"},
    // The registry's answer ends its wait; settle, the later boot's 1 s, the
    // final 50 ms, one attribute step, 50 ms after the releases.
    {"LaterBootAllListedAnswer", both_listed, schedule({0, 100, 1000, 50, 30, 50}),
     "attr 2, disable 2, health 1, health_async_announce 1, heart_rate 1, registry 1, release 2",
     "health\nheart_rate\n", "(no of repeats:'0') ", nullptr, kLaterBootDump},
};

TEST_P(DiscoveryRunTest, FollowsItsSchedule) {
    const discovery_run& run = GetParam();
    run.prepare(*this);
    factory.startDiscovery(&core);
    EXPECT_EQ(pauses_ms(), run.pauses_ms);
    EXPECT_EQ(sent(core.requests()), run.sent);
    // Every request is framed alike, lookups ask for updates and every
    // sensor's attributes are released after they were requested.
    std::unordered_map<sensor_uid, int, sensor_uid_hash> requested;
    for (const fake_request& r : core.requests()) {
        const auto& config = r.envelope.suspendconfig();
        EXPECT_TRUE(r.flag && r.session_id == 0 && r.envelope.suid().uidlow() == r.suid.low &&
                    r.envelope.suid().uidhigh() == r.suid.high && config.has_processorkind() &&
                    config.processorkind() == 0 && config.deliverymode() == 1);
        if (r.suid == kLookupSuid) {
            EXPECT_TRUE(r.lookup.streamupdates() && r.lookup.has_lookupoption());
            EXPECT_EQ(r.lookup.lookupoption(), r.lookup.datatypename() != "registry");
        } else {
            EXPECT_TRUE(r.attr.has_streamupdates() && !r.attr.streamupdates());
            EXPECT_GE(requested[r.suid] += r.msg_id() == kAttribute ? 1 : -1, 0);
        }
    }
    for (const auto& entry : requested) EXPECT_EQ(entry.second, 0) << entry.first.low;
    EXPECT_EQ(root.exists(kListPath) ? root.read_file(kListPath) : "(none)", run.list);
    EXPECT_EQ(factory.listWriter.is_open(), run.name == std::string("ParseFailure"));
    // Its line comes once, after the last re-sent lookup.
    const std::vector<kivhal::host::log_line> log = kivhal::host::captured_log();
    auto from_end = [&](const char* text) {
        return std::find_if(log.rbegin(), log.rend(),
                            [&](const auto& l) { return l.text.find(text) != std::string::npos; }) -
               log.rbegin();
    };
    EXPECT_EQ(kivhal::test::log_lines_containing(run.log).size(), 1u);
    EXPECT_LT(from_end(run.log), from_end("re-sending request for"));
    EXPECT_TRUE(run.also == nullptr || log_contains(run.also, ANDROID_LOG_ERROR)) << run.also;
    if (run.dump == nullptr) return;
    TemporaryFile dump;
    factory.dump(dump.fd);
    std::string text;
    ASSERT_TRUE(android::base::ReadFileToString(dump.path, &text));
    EXPECT_EQ(text, run.dump);
}

INSTANTIATE_TEST_SUITE_P(Runs, DiscoveryRunTest, ::testing::ValuesIn(kRuns),
                         [](const auto& info) { return std::string(info.param.name); });

// A message the connection could not have delivered whole is dropped with an error line.
TEST_F(DiscoveryCallbacksTest, MessagesWithoutTheirBytesAreDropped) {
    for (const uint32_t length : {5u, 0u}) {  // an empty message needs no bytes
        factory.registry_lookup_callback(nullptr, length, 0);
        factory.default_suids_lookup_callback(nullptr, length, 0);
        factory.default_attributes_lookup_callback(nullptr, length, 0);
    }
    EXPECT_EQ(kivhal::test::log_lines_containing(" of length 5", ANDROID_LOG_ERROR).size(), 3u);
    EXPECT_EQ(kivhal::test::log_lines_containing(" of length 0", ANDROID_LOG_ERROR).size(), 0u);
    EXPECT_TRUE(factory.suidMap.empty() && factory.attributesMap.empty());
}

TEST_F(DiscoveryCallbacksTest, FirstBootRecordsEachAnsweredNameOnce) {
    factory.init_mandatory_list_db();
    ASSERT_FALSE(factory.laterBoot);
    feed(core_t::make_lookup_event("accel", {}));
    EXPECT_TRUE(factory.suidMap.empty());
    sns_suid_event wrong_id;  // a lookup answer under another message id
    wrong_id.set_datatypename("junk");
    wrong_id.add_suids()->set_uidlow(9);
    // Serialized messages concatenate into one holding both events.
    feed(core_t::make_event_msg(kLookupSuid, {{769, wrong_id.SerializeAsString()}}) +
         core_t::make_lookup_event("accel", {{1, 1}, {2, 2}}));
    feed(core_t::make_lookup_event("gyro", {{4, 4}}));
    feed(core_t::make_lookup_event("accel", {{3, 3}}));
    factory.listReader.open(root.host_path(kListPath));
    factory.deinit_mandatory_list_db();  // a first boot closes only its writer
    EXPECT_TRUE(factory.listReader.is_open());
    EXPECT_TRUE(factory.get_suids("accel") == (sensor_uid{3, 3}) &&
                factory.get_suids("none") == (sensor_uid{0, 0}));
    EXPECT_EQ(num_mandatory_sns, 2u);
    EXPECT_EQ(root.read_file(kListPath), "accel\ngyro\n");
}

// A line no lookup could have come from is dropped, not kept in memory.
TEST_F(DiscoveryCallbacksTest, LaterBootCountsListedNamesOnceAndAppendsNewOnes) {
    const std::string name_1000(1000, 'n');
    const std::string listed = "a\nb\na\n\n" + std::string(2000, 'x') + "\n" + name_1000 + "\nc";
    root.write_file(kListPath, listed);
    factory.init_mandatory_list_db();
    ASSERT_TRUE(factory.laterBoot);
    EXPECT_EQ(mandatorySensors, (std::vector<std::string>{"a", "b", "", name_1000, "c"}));
    EXPECT_TRUE(log_contains(
        "sensors_list line 5 is 2000 bytes, longer than any sensor type name; dropped"));
    mandatoryFound = {{"a", false}, {"b", false}, {"c", false}};
    for (const char* name : {"a", "a", "new", "new", "b"})
        factory.handle_suids_lookup_callback(name, {{1, 1}});
    EXPECT_EQ(num_mandatory_sns, 2u);
    EXPECT_FALSE(allMandatoryFound.load());
    EXPECT_EQ(mandatorySensors, (std::vector<std::string>{"a", "b", "", name_1000, "c", "new"}));
    factory.deinit_mandatory_list_db();
    EXPECT_EQ(root.read_file(kListPath), listed + "new\n");
}

// What cannot be the list is no list this boot, and opening it never blocks.
TEST_F(DiscoveryCallbacksTest, AListThatIsNoRegularFileIsRefusedAtOnce) {
    const std::string path = root.host_path(kListPath);
    const std::pair<std::function<int()>, const char*> cases[] = {
        {[&] { return mkfifo(path.c_str(), 0600); }, "Invalid argument "},
        {[&] { return mkdir(path.c_str(), 0700); }, "Is a directory "}};
    for (const auto& [make, error] : cases) {
        unlink(path.c_str());
        ASSERT_EQ(make(), 0);
        kiv_sensor_factory fresh;
        auto done = std::async(std::launch::async, [&] { fresh.init_mandatory_list_db(); });
        if (done.wait_for(std::chrono::seconds(2)) != std::future_status::ready) {
            ADD_FAILURE() << "still blocked after 2 s: " << error;
            close(open(path.c_str(), O_WRONLY | O_NONBLOCK));  // lets the blocked open return
        }
        done.wait();
        EXPECT_TRUE(mandatorySensors.empty() && !fresh.listWriter.is_open()) << error;
        EXPECT_TRUE(log_contains(
            std::string("open read fail for sensors_list reading with errno ") + error))
            << error;
    }
}

// Attribute answers that arrive only after discovery gave up waiting are
// stored on the reader's thread while the service already asks its capability
// queries on another. Under ThreadSanitizer this is the check that the
// attribute map is locked on both sides. Other events are skipped, a repeated
// id's last value is kept, and an answer beyond the requests leaves the count
// at zero.
TEST_F(DiscoveryCallbacksTest, LateAttributesStoredWhileQueriesRunAreSeenWhole) {
    root.write_file(kListPath, "heart_rate\n");  // later boot: the short wait
    std::vector<sensor_uid> suids;  // enough that storing them rehashes the map several times
    for (uint64_t i = 1; i <= 64; i++) suids.push_back({0x300 + i, 0x3});
    core.add_sensor_type("heart_rate", suids);  // no attribute answers
    factory.startDiscovery(&core);
    sensor_attributes found;
    ASSERT_FALSE(factory.find_attributes(suids.front(), &found));
    // No logging from here on: the log's own lock would order the two threads
    // and hide an unlocked map from ThreadSanitizer.
    kiv_log::set_level(kiv_log::ERROR);
    std::atomic<bool> done{false};
    std::atomic<size_t> queries{0};
    std::thread service([&] {
        for (; !done; queries++) {
            factory.getSupportedMetricsTypes();
            factory.getAutoStopList();
        }
    });
    sns_std_attr_event late;
    for (const char* name : {"old", "new"}) {
        sns_std_attr* attr = late.add_attributelist();
        attr->set_attributeid(0);
        *attr->mutable_value() = values<const char*>({name});
    }
    while (queries == 0) std::this_thread::yield();
    const handler attributes = &kiv_sensor_factory::default_attributes_lookup_callback;
    for (const sensor_uid& suid : suids)
        feed(core_t::make_event_msg(suid, {{129, "x"}, {128, late.SerializeAsString()}}),
             attributes);
    done = true;
    service.join();
    for (const sensor_uid& suid : suids)
        EXPECT_TRUE(factory.find_attributes(suid, &found) && found.get_string(0) == "new")
            << suid.low;
    EXPECT_EQ(factory.pendingAttributes, 0u);
    feed(core_t::make_event_msg(suids[0], {{128, ""}}), attributes);
    EXPECT_EQ(factory.pendingAttributes, 0u);
    EXPECT_EQ(
        factory.getSupportedMetricsTypes(),
        std::vector<kiv_sensor_factory::DataType>{static_cast<kiv_sensor_factory::DataType>(0x1)});
}

}  // namespace
