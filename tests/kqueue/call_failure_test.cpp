// Every system call of the library fails once: each of its kind, with each error that a user can
// meet, at each place.

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <vector>

#include "tests/kqueue/conversation.h"
#include "tests/kqueue/failing_calls.h"
#include "tests/kqueue/loop_fixture.h"

namespace {

using End = Conversation::End;

struct Case {
    const char* name;
    FailingCall FailingCalls::*call;
    std::vector<int> errors;
};

void PrintTo(const Case& each, std::ostream* out) {  // the name that GoogleTest looks for
    *out << each.name;
}

class FailedCall : public testing::TestWithParam<Case> {
protected:
    FailedCall() {
        failingCalls.sleepsAreShort = true;
        LogRecorder log(LogLevel::Error);
        Conversation conversation;  // makes what is made once per process
        EXPECT_TRUE(conversation.hold(place, log));
        EXPECT_TRUE(conversation.isAllDone());
    }
    ~FailedCall() override { failingCalls.sleepsAreShort = false; }

    // Holds a conversation with each failure in turn, and lets look see what has become of it.
    template <typename Look>
    void sweep(Look look) {
        size_t injected = 0;
        for (const int error : GetParam().errors) {
            FailingCall& call = failingCalls.*GetParam().call;
            for (uint64_t nth = 1;; ++nth) {
                SCOPED_TRACE(std::string(std::strerror(error)) + ", " + std::to_string(nth));
                LogRecorder log(LogLevel::Error);
                const size_t before = openDescriptors();
                bool happened = false;
                {
                    Conversation conversation(owners);
                    call.fail(error, nth);
                    ASSERT_TRUE(conversation.hold(place, log)) << "hangs";
                    happened = call == 0;
                    call = 0;
                    EXPECT_TRUE(conversation.isFaithful());
                    look(conversation, log);
                }
                EXPECT_EQ(openDescriptors(), before);
                if (!happened) break;
                ++injected;
            }
        }
        EXPECT_GT(injected, 0U);
        RecordProperty("injected", static_cast<int>(injected));
        std::printf("%zu failures injected\n", injected);
    }

    const Conversation::Place place;
    Conversation::Owners owners = Conversation::Owners::StopWhatEnds;
};

class FailedCallThatEndsNothing : public FailedCall {};

TEST_P(FailedCallThatEndsNothing, IsMadeAgainOrDoneWithout) {
    sweep([](const Conversation& conversation, const LogRecorder&) {
        EXPECT_TRUE(conversation.isAllDone());
    });
}

INSTANTIATE_TEST_SUITE_P(
    , FailedCallThatEndsNothing,
    testing::Values(Case{"Accept",
                         &FailingCalls::accept,
                         {EINTR, EAGAIN, ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM,
                          EPROTO}},
                    Case{"Chmod",
                         &FailingCalls::changeMode,
                         {EPERM, EACCES, EIO, ELOOP, ENOENT, ENOTDIR, EROFS}},
                    Case{"Close", &FailingCalls::close, {EINTR, EIO, ENOSPC}},
                    Case{"EpollCtl", &FailingCalls::watch, {ENOMEM, ENOSPC}},
                    Case{"EpollWait", &FailingCalls::wait, {EINTR, ENOSYS}},
                    Case{"Fstat", &FailingCalls::status, {ENOMEM}},
                    Case{"Getsockopt", &FailingCalls::getOption, {ENOPROTOOPT, ENOBUFS}},
                    Case{"Ioctl", &FailingCalls::control, {EINVAL, ENOTTY, EINTR}},
                    Case{"Poll", &FailingCalls::poll, {EINTR, ENOMEM, EINVAL}},
                    Case{"Recvmsg", &FailingCalls::peek, {ENOMEM, ENOBUFS, EINTR}},
                    Case{"Read", &FailingCalls::read, {EINTR}},
                    Case{"SetBlocking", &FailingCalls::setBlocking, {EPERM}},
                    Case{"Shutdown", &FailingCalls::shutDown, {ENOTCONN, ENOBUFS}},
                    Case{"Write", &FailingCalls::write, {EINTR, kShort}}),
    [](const auto& each) { return each.param.name; });

// The socket has the mode that the mask makes of it, and nothing is said.
TEST(FailedChmod, LeavesTheModeOfTheMask) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("socket");
    const LogRecorder log(LogLevel::Error);
    const auto loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
    const mode_t mask = umask(0027);
    failingCalls.changeMode = EPERM;
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    umask(mask);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(failingCalls.changeMode, 0);
    struct stat status = {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0750U);
    EXPECT_EQ(log.errors(), std::vector<std::string>());
}

class FailedCallThatEndsAStream : public FailedCall {};

TEST_P(FailedCallThatEndsAStream, IsTerminatedAndTheOthersGoOn) {
    sweep([](const Conversation& conversation, const LogRecorder&) {
        size_t ended = 0;
        for (const auto part : {Conversation::UnixClient, Conversation::TcpClient,
                                Conversation::Pipe, Conversation::Timer}) {
            EXPECT_TRUE(conversation.end(part) == End::Done ||
                        conversation.end(part) == End::Terminated);
            if (conversation.end(part) == End::Terminated) ++ended;
        }
        EXPECT_LE(ended, 1U);
    });
}

INSTANTIATE_TEST_SUITE_P(
    , FailedCallThatEndsAStream,
    testing::Values(Case{"Read",
                         &FailingCalls::read,
                         {EAGAIN, EIO, ECONNRESET, ETIMEDOUT, EHOSTUNREACH, ENOBUFS, ENOMEM}},
                    Case{"Write",
                         &FailingCalls::write,
                         {EAGAIN, EPIPE, ECONNRESET, EIO, ENOSPC, EDQUOT, EPERM, ENOBUFS, ENOMEM,
                          ETIMEDOUT}},
                    Case{"PeerCredentials", &FailingCalls::peerCredentials, {ENOTCONN, ENOBUFS}}),
    [](const auto& each) { return each.param.name; });

// An owner may take the end for what it is worth and go on: what the call did not do is done by the
// next record.
class FailedCallThatIsShruggedOff : public FailedCall {};

TEST_P(FailedCallThatIsShruggedOff, HasLostNoByteAndDoubledNone) {
    owners = Conversation::Owners::IgnoreEnds;
    sweep([](const Conversation& conversation, const LogRecorder&) {
        EXPECT_TRUE(conversation.isAllDone());
    });
}

INSTANTIATE_TEST_SUITE_P(
    , FailedCallThatIsShruggedOff,
    testing::Values(Case{"Read", &FailingCalls::read, {EAGAIN, ENOBUFS, ENOMEM}},
                    Case{"Write", &FailingCalls::write, {EAGAIN, ENOBUFS, ENOMEM, EPERM}}),
    [](const auto& each) { return each.param.name; });

// A call whose failure is no matter by itself is one that a later call depends on: without the
// unlink a file is in the way, and without the option another socket is.
class FailedCallOfAFactory : public FailedCall {};

TEST_P(FailedCallOfAFactory, LeavesNoSourceAndALineOnTheLog) {
    sweep([](const Conversation& conversation, const LogRecorder& log) {
        if (!conversation.hasLoop()) {
            EXPECT_EQ(log.errors().size(), 1U);
            return;
        }
        size_t missing = 0;
        for (const auto part : {Conversation::UnixClient, Conversation::TcpClient,
                                Conversation::Pipe, Conversation::Timer}) {
            EXPECT_TRUE(conversation.end(part) == End::Done ||
                        conversation.end(part) == End::NoSource);
            if (conversation.end(part) == End::NoSource) ++missing;
        }
        EXPECT_LE(missing, 1U);
        EXPECT_EQ(log.errors().size(), missing);
    });
}

INSTANTIATE_TEST_SUITE_P(
    , FailedCallOfAFactory,
    testing::Values(
        Case{"Bind",
             &FailingCalls::bind,
             {EACCES, EADDRINUSE, EADDRNOTAVAIL, ELOOP, ENOENT, ENOMEM, ENOTDIR, EROFS}},
        Case{"Connect",
             &FailingCalls::connect,
             {EACCES, EPERM, ECONNREFUSED, ETIMEDOUT, EHOSTUNREACH, ENETUNREACH, EADDRINUSE,
              EADDRNOTAVAIL, EAGAIN, EINTR, ENOENT, ECONNRESET}},
        Case{"CreateQueue", &FailingCalls::createQueue, {EMFILE, ENFILE, ENOMEM}},
        Case{"CreateThread", &FailingCalls::createThread, {EAGAIN, EPERM}},
        Case{"GetFlags", &FailingCalls::getFlags, {EBADF, ENOMEM}},
        Case{"SetFlags", &FailingCalls::setFlags, {EPERM, ENOMEM}},
        Case{"Listen", &FailingCalls::listen, {EADDRINUSE, EOPNOTSUPP, ENOMEM}},
        Case{"Setsockopt", &FailingCalls::setOption, {ENOPROTOOPT, EPERM, ENOMEM}},
        Case{
            "Unlink", &FailingCalls::unlink, {EACCES, EBUSY, ELOOP, ENOENT, ENOTDIR, EPERM, EROFS}},
        Case{"Socket",
             &FailingCalls::socket,
             {EACCES, EAFNOSUPPORT, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTONOSUPPORT}}),
    [](const auto& each) { return each.param.name; });

}  // namespace
