// Who outlives whom: certificates and objects, two objects on one module, forks, threads, exit.

#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "tests/support.h"

namespace mervane::test {
namespace {

class LifetimesTest : public FakeTest {
  protected:
    LifetimesTest() { objects() = objectsOf("cert:alice:a key:alice:a"); }
    std::unique_ptr<Pkcs11> make() const {
        auto object = std::make_unique<Pkcs11>();
        object->put_SharedLibPath(XString(module.path()));
        return object;
    }
    bool quick(Pkcs11& object) const { return object.QuickSession(1, XString(world.slots[0].userPin)); }
    // Opens a session and finds a certificate that is linked to its key.
    bool linkCert() { return quick(*p11) && p11->FindCert(XString("privateKey"), XString(), cert); }
    ClsCert cert;
};

TEST_F(LifetimesTest, CertificateOutlivesItsToken) {
    ASSERT_TRUE(linkCert());
    EXPECT_EQ(cert.getCert()->pkcs11Link()->owner, p11.get());
    p11.reset();
    EXPECT_FALSE(cert.HasPrivateKey());
    XString serial, thumbprint;
    cert.get_SerialNumber(serial);
    cert.get_Sha1Thumbprint(thumbprint);
    EXPECT_EQ(cn(cert), "Alice");
    EXPECT_EQ(serial.view(), "0A1B");
    EXPECT_EQ(thumbprint.view().size(), 40U);
}

TEST_F(LifetimesTest, LinkHoldsForItsSessionOnly) {
    ASSERT_TRUE(linkCert());
    const auto loose = loadCert("alice");  // in no cache
    loose->linkToPkcs11Session(p11.get(), 1, 256, 2, p11->log());
    EXPECT_TRUE(loose->hasPrivateKey(true, p11->log()) && p11->FindAllCerts() && cert.HasPrivateKey());  // after another reading
    ASSERT_TRUE(p11->OpenSession(-1, true));
    EXPECT_FALSE(loose->hasPrivateKey(true, p11->log()));
    EXPECT_FALSE(cert.HasPrivateKey());
}

TEST_F(LifetimesTest, TwoObjectsOnOneModuleInEveryOrder) {
    for (const bool firstGoesFirst : {true, false}) {
        world.journal.clear();
        auto a = make();
        auto b = make();
        ASSERT_TRUE(quick(*a) && quick(*b));
        EXPECT_EQ(world.count("C_Initialize"), 2U);
        (firstGoesFirst ? a : b).reset();
        auto& left = firstGoesFirst ? b : a;
        EXPECT_TRUE(world.count("C_Finalize") == 0 && left->FindAllCerts());
        left.reset();
        EXPECT_EQ(world.count("C_Finalize"), 1U);
        EXPECT_EQ(world.sessions.size(), 0U);
    }
}

// Runs `work` in a forked child: whether it returned true within half a minute.
bool inChild(const std::function<bool()>& work) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(30);
        ::_exit(work() ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(LifetimesTest, ForkedChildDropsTheSessionAndBeginsAnew) {
    ASSERT_TRUE(linkCert());
    const std::size_t before = world.journal.size();
    EXPECT_TRUE(inChild([&] {
        const bool dropped = !cert.HasPrivateKey() && !p11->FindAllCerts() && world.journal.size() == before && !p11->hasOpenSession();
        const bool said = p11->log().text().find("The process has forked") != std::string::npos;
        world.initialized = false;  // as a module does that notices forks
        world.sessions.clear();
        const bool isUsable = p11->Initialize() && quick(*p11) && p11->FindAllCerts() && linkCert() && cert.HasPrivateKey();
        p11.reset();
        return dropped && said && isUsable && world.count("C_Finalize") == 1;
    }));
    EXPECT_TRUE(inChild([&] {
        p11.reset();  // untouched in the child: calls nothing
        return world.journal.size() == before;
    }));
    EXPECT_TRUE(p11->FindAllCerts());  // the parent goes on
    EXPECT_TRUE(cert.HasPrivateKey());
}

TEST_F(LifetimesTest, WhateverAForkedChildCallsFirstAnswersWithoutTheModule) {
    ASSERT_TRUE(linkCert());
    const std::size_t before = world.journal.size();
    for (const auto& [name, call] : publicCalls()) {
        if (std::set<std::string>{"Initialize", "QuickSession", "Discover", "alreadyLoggedIn"}.contains(name)) continue;  // these start afresh or ask nothing
        const auto answers = [&, &name = name, &call = call] {
            ::alarm(1);
            return !call(*p11, {name, "1", "", "", ""}).starts_with("true") && world.journal.size() == before && !cert.HasPrivateKey() &&
                   p11->get_NumCerts() == 0 && !p11->linkCertToPkcs11Session(cert.getCert().get(), true, p11->log());
        };
        EXPECT_TRUE(inChild(answers) || inChild(answers) || inChild(answers)) << name;  // the machine may be busy
    }
}

TEST_F(LifetimesTest, LockHeldByAThreadOfTheParentIsFreeInTheChild) {
    if (isUnderValgrind()) GTEST_SKIP() << "in the child the parent's thread counts as lost memory";
    ASSERT_TRUE(linkCert());
    std::atomic<bool> entered{false};
    std::atomic<bool> leave{false};
    std::thread holder([&] {
        const CritSecExitor lock(*p11);
        entered = true;
        while (!leave) std::this_thread::yield();
    });
    while (!entered) std::this_thread::yield();
    const auto begunAnew = [&] {
        TokenInfo token;
        const bool isEmpty = p11->get_NumCerts() == 0 && !p11->FindAllCerts() && !p11->GetToken(token);
        const std::string log = p11->log().text();  // what was being written at the fork is abandoned too
        const bool isNew = log.find("QuickSession") == std::string::npos && log.find("FindAllCerts") != std::string::npos;
        world.initialized = false;  // as a module does that notices forks
        world.sessions.clear();
        world.journal.clear();
        XString path;
        p11->get_SharedLibPath(path);
        const bool isUsable = path.view() == module.path() && quick(*p11) && linkCert() && p11->GetToken(token) && world.count("C_Initialize") == 1;
        p11.reset();
        return isEmpty && isNew && isUsable && world.count("C_Finalize") == 1 && world.sessions.empty();
    };
    EXPECT_TRUE(inChild(begunAnew));
    leave = true;
    holder.join();
}

TEST_F(LifetimesTest, StaticObjectCallsNothingAtExit) {
    // In a process of its own, since exit handlers run once.
    static fake::World* const seen = &world;
    static std::size_t before = 0;
    const auto run = [this] {
        struct Last {
            ~Last() { std::fputs(seen->journal.size() == before ? "silent" : "called", stderr); }
        };
        static const Last last;  // destroyed after the object
        static Pkcs11 object;
        object.put_SharedLibPath(XString(module.path()));
        const bool ok = quick(object);
        before = seen->journal.size();
        std::exit(ok ? 0 : 1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "silent");
}

TEST_F(LifetimesTest, EightThreadsOnOneObjectNeverMeetInTheModule) {
    ASSERT_TRUE(quick(*p11));
    const Words calls[] = {{"FindAllCerts"}, {"FindCert", "privateKey", ""}, {"GetCert", "0"}, {"FindAllKeys", ""}, {"OpenSession", "-1", "rw"}, {"NumCerts"}};
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (std::size_t i = 0; i < 40; ++i) publicCalls().at(calls[(i + t) % 6][0])(*p11, calls[(i + t) % 6]);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(p11->FindAllCerts());
}

TEST_F(LifetimesTest, ObjectsComeAndGoInTwoThreads) {
    // The module sees calls of two objects at once, as the standard allows after CKF_OS_LOCKING_OK.
    std::vector<std::thread> threads;
    std::atomic<int> numDone{0};
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                const auto object = make();
                numDone += object->QuickSession(1, XString()) && object->FindAllCerts() ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(numDone, 200);
    std::erase_if(world.violations, [](const std::string& v) { return v.starts_with("two calls at once"); });
}

}  // namespace
}  // namespace mervane::test
