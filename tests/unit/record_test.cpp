#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include "test_support.h"

#include "common/events.h"
#include "session/record.h"
#include "session/record_store.h"
#include "session/registry.h"

using namespace Vexa;
namespace fs = std::filesystem;

namespace {

// The report tests' session as a daemon that took it back holds it: transports adopted without pidfds, files that
// do not exist, no profile disk to unmount. Its destructor touches nothing.
std::shared_ptr<Session> liveSession(uint32_t sid = 7) {
    std::shared_ptr<Session> s = TestSupport::makeSession(TestSupport::makeUser(), sid);
    s->xauthfile = "/nonexistent/run/vexa/xauth_12";
    s->user->runtimedir = "/nonexistent/run/user/1000";
    s->user->profileMounted = false;
    s->xauthInode = 4242;
    s->uizr = "uizr";
    s->serverId = "server";
    s->pid2 = 4321;
    s->pid2Start = 987654;
    s->disconnectedTimepoint = s->onlinedTimepoint + std::chrono::seconds(5);
    s->transports[1].adopt(5555, 1111, {}, "10.0.0.9");
    s->transports[3].adopt(5556, 2222, {}, "10.0.0.10");
    s->systemdSid = "12";
    s->systemdCgroup = "/user.slice/user-1000.slice/session-12.scope";
    s->secNla = true;
    s->loginMode = true;
    s->checkTimeouts = true;
    s->policiesChanged = true;
    return s;
}

std::string text(const std::shared_ptr<Session>& session) {
    return sessionRecordText(sessionRecordOf(*session));
}

} // namespace

TEST(SessionRecord, RestoredSessionWritesTheSameRecordAndReportsTheSameTransports) {
    const auto original = liveSession();
    original->kept = true; // nothing of the fixture may be signalled by the destructor
    const auto written = text(original);
    const auto parsed = parseSessionRecord(written);
    ASSERT_TRUE(parsed);
    const auto restored = restoreSession(*parsed, TestSupport::makeUser());
    restored->kept = true;
    EXPECT_EQ(text(restored), written);
    // The occupied slots come back in their order, from the first.
    EXPECT_EQ(restored->transports[0].pid, 5555);
    EXPECT_EQ(restored->transports[1].remoteaddr, "10.0.0.10");
    EXPECT_EQ(restored->transports[2].pid, 0);
    EXPECT_EQ(restored->systemdSessionNumber, 12u);
    // Taken back without pidfds: the transports count as ended until the caller proves them alive.
    EXPECT_TRUE(restored->transports[0].notAlive());
}

TEST(SessionRecord, HoldsNoSecretOfTheUser) {
    const auto session = liveSession();
    session->kept = true;
    const auto written = text(session);
    session->user->transportToken = "one-time-token";
    for (const char* secret : {"ann:AB12", "one-time-token", "ntlm", "password", "cookie"}) {
        EXPECT_EQ(written.find(secret), std::string::npos) << secret;
    }
}

TEST(SessionRecord, DamagedRecordsAreRefused) {
    const auto session = liveSession();
    session->kept = true;
    Json::Value good;
    ASSERT_TRUE(Json::Reader().parse(text(session), good));
    const std::vector<std::pair<const char*, std::function<void(Json::Value&)>>> cases = {
        {"missing key", [](Json::Value& v) { v.removeMember("display"); }},
        {"wrong type", [](Json::Value& v) { v["pid2"]["pid"] = "4321"; }},
        {"session id 0", [](Json::Value& v) { v["sid"] = 0; }},
        {"no session manager", [](Json::Value& v) { v["pid2"]["pid"] = 0; }},
        {"no user", [](Json::Value& v) { v["username"] = ""; }},
        {"unknown limit", [](Json::Value& v) { v["limits:session"]["cpu:everything"] = "1"; }},
        {"limit not text", [](Json::Value& v) { v["limits:user"]["tasks:max"] = 50; }},
        {"five transports",
         [](Json::Value& v) {
             for (int i = 0; i < 3; ++i) {
                 v["remote:connects"].append(v["remote:connects"][0]);
             }
         }},
        {"argument not text", [](Json::Value& v) { v["xsession:args"].append(1); }},
        {"not an object", [](Json::Value& v) { v = Json::Value(Json::arrayValue); }},
    };
    for (const auto& [name, damage] : cases) {
        auto value = good;
        damage(value);
        EXPECT_FALSE(parseSessionRecord(Json::FastWriter().write(value))) << name;
    }
    EXPECT_FALSE(parseSessionRecord("")) << "empty";
    EXPECT_FALSE(parseSessionRecord(text(session).substr(0, 100))) << "cut short";
    EXPECT_TRUE(parseSessionRecord(Json::FastWriter().write(good))) << "the record itself";
}

TEST(SessionRecord, AdoptionNeedsTheSameProcessInASessionLogindStillHas) {
    SessionRecord record;
    record.manager = {4321, 987654};
    struct Case {
        const char* name;
        AdoptionFacts facts;
        Adoption expected;
    };
    const Case cases[] = {
        {"same process, logind knows it", {987654, true}, Adoption::Adopt},
        {"same process, logind forgot it", {987654, false}, Adoption::LogindForgot},
        {"pid taken by a later process", {987655, true}, Adoption::ManagerRecycled},
        {"pid taken by an earlier-started process", {12, false}, Adoption::ManagerRecycled},
        {"no process with that pid", {std::nullopt, true}, Adoption::ManagerEnded},
        {"no process, logind forgot it", {std::nullopt, false}, Adoption::ManagerEnded},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(adoptionDecision(record, c.facts), c.expected) << c.name;
    }
}

TEST(SessionRecord, OnlyARestartJobOfTheUnitKeepsTheSessions) {
    struct Case {
        const char* jobs;
        bool restart;
    };
    const Case cases[] = {
        {"1234 vexa.service restart running\n", true},
        {"  77 vexa.service try-restart running", true},
        {"1234 vexa.service stop running\n", false},
        {"1234 vexa-other.service restart running\n1235 vexa.service stop running\n", false},
        {"9 multi-user.target start waiting\n10 vexa.service restart running\n", true},
        {"", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(jobRestartsUnit(c.jobs, "vexa.service"), c.restart) << c.jobs;
    }
}

TEST(RecordStore, OnlySessionsLogindKnowsAreRecordedPrivatelyAndRacingSavesLeaveTheLastChange) {
    const TestSupport::TempDir dir;
    SessionRegistry registry;
    RecordStore store(registry);
    store.setDirectory(dir.path);
    const auto session = liveSession(9);
    const auto starting = liveSession(1);
    starting->systemdSid.clear();
    ASSERT_TRUE(registry.add(session) && registry.add(starting));

    constexpr uint32_t changes = 300;
    std::atomic<bool> done{false};
    std::vector<std::thread> sweepers;
    for (int i = 0; i < 3; ++i) {
        sweepers.emplace_back([&] {
            while (!done.load()) {
                store.saveAll();
            }
        });
    }
    for (uint32_t value = 1; value <= changes; ++value) {
        registry.locked([&](SessionRegistry::Map&) { session->durationLimit = value; });
        store.save(session);
    }
    done.store(true);
    for (auto& sweeper : sweepers) {
        sweeper.join();
    }
    // Whichever write came last, it was made from the last change.
    const auto onDisk = parseSessionRecord(TestSupport::readFile(sessionRecordPath(dir.path, 9)));
    ASSERT_TRUE(onDisk);
    EXPECT_EQ(onDisk->durationLimit, changes);
    struct stat st {};
    ASSERT_EQ(::stat(sessionRecordPath(dir.path, 9).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(store.files(), std::vector<fs::path>{sessionRecordPath(dir.path, 9)}) << "logind does not know 1 yet";
    registry.takeAll();
}
