// Uses a token in the ways that real modules do not survive by themselves: from several threads at
// once, with threads that are cancelled, and with forks while another thread is inside the module.
//
// usage: race MODULE PIN threads|cancel|fork|mix NUMBER

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <iostream>
#include <random>
#include <thread>

#include "pkcs11/clspkcs11.h"

using namespace mervane;

namespace {

std::string modulePath, userPin;

bool useToken(ClsPkcs11& token) {
    token.put_SharedLibPath(XString(modulePath));
    return token.QuickSession(1, XString(userPin)) && token.FindAllCerts();
}

bool useToken() {
    ClsPkcs11 token;
    const bool ok = useToken(token);
    if (!ok) std::cerr << token.log().text();
    return ok;
}

// All begin at the same moment, each with an object of its own, and end as they like.
int runThreads(int number) {
    std::atomic<int> numFailed = 0;
    std::barrier start(number);
    std::vector<std::jthread> threads;
    for (int i = 0; i < number; ++i) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            numFailed += useToken() ? 0 : 1;
        });
    }
    threads.clear();
    return numFailed;
}

void* useUntilCancelled(void*) {
    while (useToken()) pthread_testcancel();
    return nullptr;
}

int runCancelled(int number) {
    std::minstd_rand random(1);
    for (int i = 0; i < number; ++i) {
        pthread_t thread{};
        pthread_create(&thread, nullptr, useUntilCancelled, nullptr);
        ::usleep(static_cast<useconds_t>(random() % 20000));
        pthread_cancel(thread);
        void* result = nullptr;
        pthread_join(thread, &result);
        if (result != PTHREAD_CANCELED) return 1;
    }
    return useToken() ? 0 : 1;
}

// Whether a forked child can go on with the object, and destroy it, while a thread of the parent was
// in the middle of a call.
bool childLives(ClsPkcs11*& token) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(20);
        ClsJsonObject json;
        XString path;
        token->get_SharedLibPath(path);
        const bool isDropped = !token->FindAllCerts() && !token->FindAllKeys(XString(), json) && path.view() == modulePath;
        delete token;
        ::_exit(isDropped ? 0 : 1);
    }
    int status = 0;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

int runForks(int number) {
    auto* token = new ClsPkcs11;
    if (!useToken(*token)) return 1;
    std::atomic<bool> isDone = false;
    std::jthread caller([&] {
        ClsJsonObject json;
        ClsCert cert;
        while (!isDone) {
            token->FindAllCerts();
            token->FindCert(XString("privateKey"), XString(), cert);
            token->FindAllKeys(XString(), json);
        }
    });
    int numDied = 0;
    for (int i = 0; i < number; ++i) numDied += childLives(token) ? 0 : 1;
    isDone = true;
    caller.join();
    delete token;
    if (numDied != 0) std::cerr << numDied << " children died\n";
    return numDied;
}

int runMix(int number) {
    ClsPkcs11 shared;
    if (!useToken(shared)) return 1;
    ClsCert cert;
    std::atomic<int> numSeen = 0;
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < number; ++i) {
                ClsJsonObject json;
                if (t == 0) useToken();
                if (t == 1) shared.FindCert(XString("privateKey"), XString(), cert);
                if (t == 2) shared.OpenSession(-1, true);
                if (t == 3) shared.Discover(true, json);
                numSeen += cert.HasPrivateKey() && !cert.systemCerts().getSystemCertsPtr()->all().empty() ? 1 : 0;
            }
        });
    }
    threads.clear();
    return useToken(shared) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    modulePath = argv[1];
    userPin = argv[2];
    const std::string what = argv[3];
    const int number = std::stoi(argv[4]);
    const int failed = what == "threads" ? runThreads(number) : what == "cancel" ? runCancelled(number) : what == "fork" ? runForks(number) : runMix(number);
    return failed == 0 ? 0 : 1;
}
