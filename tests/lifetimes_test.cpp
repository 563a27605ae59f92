// Who outlives whom: certificates and objects, two objects on one module, forks, threads, exit.

#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "tests/support.h"

namespace mervane::test {
namespace {

class LifetimesTest : public FakeTest {
  protected:
    LifetimesTest() { objects() = {certObject(10, "alice", "a"), keyObject(20, "alice", {.id = "a"})}; }
    std::unique_ptr<Pkcs11> make() const {
        auto object = std::make_unique<Pkcs11>();
        object->put_SharedLibPath(XString(module.path()));
        return object;
    }
    bool quick(Pkcs11& object) const { return object.QuickSession(1, XString(world.slots[0].userPin)); }
};

TEST_F(LifetimesTest, CertificateOutlivesItsToken) {
    ClsCert cert;
    ASSERT_TRUE(quick(*p11) && p11->FindCert(XString("privateKey"), XString(), cert));
    EXPECT_EQ(cert.getCert()->pkcs11Link()->owner, p11.get());
    p11.reset();
    EXPECT_FALSE(cert.HasPrivateKey());
    XString subject, serial, thumbprint;
    cert.get_SubjectDN(subject);
    cert.get_SerialNumber(serial);
    cert.get_Sha1Thumbprint(thumbprint);
    EXPECT_THAT(std::string(subject.view()), HasSubstr("CN=Alice"));
    EXPECT_TRUE(serial.view() == "0A1B" && thumbprint.view().size() == 40);
}

TEST_F(LifetimesTest, LinkHoldsForItsSessionOnly) {
    ClsCert cert;
    ASSERT_TRUE(quick(*p11) && p11->FindCert(XString("privateKey"), XString(), cert));
    const auto loose = loadCert("alice");  // in no cache
    loose->linkToPkcs11Session(p11.get(), 1, 256, 20, p11->log());
    EXPECT_TRUE(loose->hasPrivateKey(true, p11->log()));
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

TEST_F(LifetimesTest, AnotherModuleTakesThePlaceOfTheFirst) {
    const FakeModule second("libsecond.so");
    second.world().slots[0].objects = {certObject(10, "bob", "b")};
    ASSERT_TRUE(quick(*p11) && p11->FindAllCerts());
    p11->put_SharedLibPath(XString(second.path()));
    EXPECT_TRUE(p11->Initialize());  // says that it is done: the path counts at the next load
    EXPECT_EQ(world.sessions.size(), 1U);
    ClsJsonObject report;
    EXPECT_TRUE(p11->Discover(true, report));
    EXPECT_EQ(world.count("C_Finalize"), 1U);
    EXPECT_FALSE(p11->hasOpenSession());
    EXPECT_EQ(p11->get_NumCerts(), 0);
    ClsCert cert;
    EXPECT_TRUE(p11->OpenSession(-1, false) && p11->FindCert(XString(), XString(), cert));
    EXPECT_EQ(cn(cert), "Bob");

    // A module that cannot be loaded leaves nothing to call, and the way back is open.
    p11->put_SharedLibPath(XString("/nowhere.so"));
    EXPECT_FALSE(p11->Discover(true, report));
    EXPECT_FALSE(p11->FindAllCerts());
    EXPECT_EQ(p11->log().lastError(), "PKCS11 functions not available");
    p11->put_SharedLibPath(XString(module.path()));
    EXPECT_TRUE(quick(*p11));
    p11.reset();
    EXPECT_THAT(second.world().violations, IsEmpty());
}

// Runs `work` in a forked child; its result is whether the child said yes within half a minute.
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
    ClsCert cert;
    ASSERT_TRUE(quick(*p11) && p11->FindCert(XString("privateKey"), XString(), cert));
    const std::size_t before = world.journal.size();
    EXPECT_TRUE(inChild([&] {
        const bool dropped = !p11->FindAllCerts() && world.journal.size() == before && !p11->hasOpenSession();
        const auto infos = p11->infos();
        const bool said = std::ranges::any_of(infos, [](auto& line) { return line.starts_with("The process has forked"); });
        world.initialized = false;  // a module that knows of forks
        world.sessions.clear();
        return dropped && said && !cert.HasPrivateKey() && p11->Initialize() && quick(*p11) && p11->FindAllCerts();
    }));
    // Whatever is called first answers, and calls nothing of the module.
    for (const auto& [context, call] : publicCalls()) {
        if (std::set<std::string>{"Initialize", "QuickSession", "Discover"}.contains(context)) continue;  // these begin anew
        const auto answers = [&, &call = call] {
            ::alarm(1);
            return !call(*p11) && world.journal.size() == before && !cert.HasPrivateKey() && p11->get_NumCerts() == 0 &&
                   !p11->linkCertToPkcs11Session(cert.getCert().get(), true, p11->log());
        };
        EXPECT_TRUE(inChild(answers) || inChild(answers) || inChild(answers)) << context;  // the machine may be held up
    }
    EXPECT_TRUE(inChild([&] {
        p11.reset();  // untouched in the child: calls nothing
        return world.journal.size() == before;
    }));
    EXPECT_TRUE(p11->FindAllCerts());  // the parent goes on
    EXPECT_TRUE(cert.HasPrivateKey());
}

TEST_F(LifetimesTest, LockHeldByAThreadOfTheParentIsFreeInTheChild) {
    ASSERT_TRUE(quick(*p11));
    std::atomic<bool> entered{false};
    std::atomic<bool> leave{false};
    std::thread holder([&] {
        const CritSecExitor lock(*p11);
        entered = true;
        while (!leave) std::this_thread::yield();
    });
    while (!entered) std::this_thread::yield();
    EXPECT_TRUE(inChild([&] { return p11->get_NumCerts() == 0 && !p11->FindAllCerts(); }));
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
    std::vector<std::thread> threads;
    std::atomic<int> numLinked{0};
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 40; ++i) {
                ClsCert cert;
                ClsJsonObject json;
                switch ((i + t) % 6) {
                    case 0: p11->FindAllCerts(); break;
                    case 1: p11->FindCert(XString("privateKey"), XString(), cert); break;
                    case 2: p11->GetCert(0, cert); break;
                    case 3: p11->FindAllKeys(XString(), json); break;
                    case 4: p11->OpenSession(-1, true); break;
                    default: p11->get_NumCerts(); break;
                }
                numLinked += cert.HasPrivateKey() ? 1 : 0;
            }
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
