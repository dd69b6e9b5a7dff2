#include "Quillvane/TerminationSignals.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <gmock/gmock.h>

#include <csignal>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// Runs the event loop until as many signals came, at most ten seconds, or, for none, long enough
/// for one that is there to come.
class Receiver {
public:
    explicit Receiver(TerminationSignals& source) {
        QObject::connect(&source, &TerminationSignals::received, &loop_, [this](int number) {
            EXPECT_EQ(std::this_thread::get_id(), thread_);
            numbers_.push_back(number);
            if (numbers_.size() == expected_) loop_.quit();
        });
    }

    std::vector<int> wait(std::size_t expected) {
        expected_ = expected;
        if (expected == 0) {
            for (int round = 0; round < 10; ++round) QCoreApplication::processEvents();
        } else if (numbers_.size() < expected) {
            QTimer::singleShot(10'000, &loop_, &QEventLoop::quit);
            loop_.exec();
        }
        return numbers_;
    }

private:
    QEventLoop loop_;
    std::thread::id thread_ = std::this_thread::get_id();
    std::vector<int> numbers_;
    std::size_t expected_ = 0;
};

/// What a signal does, restored at the end.
class Handler {
public:
    Handler(int signal, void (*handler)(int)) : signal_(signal) {
        struct sigaction action = {};
        action.sa_handler = handler;
        sigemptyset(&action.sa_mask);
        sigaction(signal_, &action, &former_);
    }
    ~Handler() { sigaction(signal_, &former_, nullptr); }
    Handler(const Handler&) = delete;
    Handler& operator=(const Handler&) = delete;

    static void (*of(int signal))(int) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        return action.sa_handler;
    }

private:
    int signal_;
    struct sigaction former_ = {};
};

volatile std::sig_atomic_t formerCalls = 0;

void countCall(int) {
    formerCalls = formerCalls + 1;
}

} // namespace

TEST(TerminationSignals, EachSignalComesAsItsNumber) {
    TerminationSignals source;
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        Receiver receiver(source);
        raise(signal);
        EXPECT_THAT(receiver.wait(1), ElementsAre(signal));
    }
}

TEST(TerminationSignals, SeveralAtOnce) {
    TerminationSignals source;
    Receiver receiver(source);
    for (const int signal : {SIGINT, SIGTERM, SIGINT}) raise(signal);
    EXPECT_THAT(receiver.wait(3), ElementsAre(SIGINT, SIGTERM, SIGINT));
}

TEST(TerminationSignals, ComesOnTheMainThreadWhicheverTookIt) {
    TerminationSignals source;
    Receiver receiver(source);
    std::thread([] { raise(SIGTERM); }).join();
    EXPECT_THAT(receiver.wait(1), ElementsAre(SIGTERM));
}

TEST(TerminationSignals, WhatTheCallerIgnoredStaysIgnored) {
    const Handler ignored(SIGHUP, SIG_IGN);
    {
        TerminationSignals source;
        Receiver receiver(source);
        raise(SIGHUP);
        EXPECT_THAT(receiver.wait(0), IsEmpty());
        raise(SIGTERM);
        EXPECT_THAT(receiver.wait(1), ElementsAre(SIGTERM));
    }
    EXPECT_EQ(Handler::of(SIGHUP), SIG_IGN);
}

TEST(TerminationSignals, FormerHandlersComeBack) {
    const Handler former(SIGINT, countCall);
    formerCalls = 0;
    {
        TerminationSignals source;
        Receiver receiver(source);
        raise(SIGINT);
        receiver.wait(1);
        EXPECT_EQ(formerCalls, 0);
    }
    raise(SIGINT);
    EXPECT_EQ(formerCalls, 1);
    EXPECT_EQ(Handler::of(SIGTERM), SIG_DFL);
}

TEST(TerminationSignals, OneAtATime) {
    {
        const TerminationSignals first;
        EXPECT_THROW(TerminationSignals(), std::logic_error);
        EXPECT_NE(Handler::of(SIGTERM), SIG_DFL) << "the first is still in charge";
    }
    TerminationSignals next;
    Receiver receiver(next);
    raise(SIGTERM);
    EXPECT_THAT(receiver.wait(1), ElementsAre(SIGTERM));
}

TEST(TerminationSignals, WhatCameForAnEarlierObjectIsForgotten) {
    {
        const TerminationSignals first;
        raise(SIGTERM);
    }
    TerminationSignals next;
    Receiver receiver(next);
    EXPECT_THAT(receiver.wait(0), IsEmpty());
}

TEST(TerminationSignals, ReceiverMayEndTheObject) {
    auto source = std::make_unique<TerminationSignals>();
    QEventLoop loop;
    QObject::connect(source.get(), &TerminationSignals::received, &loop, [&] {
        source.reset();
        loop.quit();
    });
    QTimer::singleShot(10'000, &loop, &QEventLoop::quit);
    raise(SIGTERM);
    raise(SIGINT);
    loop.exec();
    EXPECT_FALSE(source);
    EXPECT_EQ(Handler::of(SIGTERM), SIG_DFL);
}

TEST(TerminationSignals, AFloodDoesNotBlock) {
    TerminationSignals source;
    Receiver receiver(source);
    for (int count = 0; count < 70'000; ++count) raise(SIGTERM); // a pipe holds 65,536
    EXPECT_THAT(receiver.wait(65'000), testing::Each(SIGTERM));
}
