#include <gtest/gtest.h>

#include <cerrno>

#include "logcapture.h"
#include "net/internalexception.h"
#include "socketio/internalexception.h"

namespace {

TEST(InternalException, NetLogsAtWarnOncePerConstructionWhateverLogItSays) {
    corvane_test::LogCapture log;
    try {
        throw net::InternalException("transport protocol 'x' not recognized", false);
    } catch (const net::RuntimeException & e) {
        net::RuntimeException copy(e);  // a copy must not log again
        EXPECT_STREQ(copy.what(), "transport protocol 'x' not recognized");
    }
    EXPECT_EQ(log.count("corvane.net.InternalException", "WARN", "transport protocol 'x' not recognized"), 1u);
    EXPECT_EQ(log.events().size(), 1u);
}

TEST(InternalException, SocketioLogsOnlyWhenAsked) {
    corvane_test::LogCapture log;
    socketio::InternalException quiet("too many open sockets", false);
    EXPECT_EQ(log.events().size(), 0u);
    socketio::InternalException loud("too many open sockets", true);
    socketio::InternalException copy(loud);
    EXPECT_EQ(log.count("corvane.socketio.InternalException", "WARN", "too many open sockets"), 1u);
    EXPECT_STREQ(copy.what(), "too many open sockets");
}

TEST(Exception, TextsInUtf8AndWideWithTheSystemErrorOnRequest) {
    net::RuntimeException e("caf\xc3\xa9 \xe2\x82\xac \xff!", false);
    EXPECT_EQ(std::wstring(e.whatW()), L"caf\u00e9 \u20ac \ufffd!");
    net::Exception & root = e;
    EXPECT_STREQ(root.what(), "caf\xc3\xa9 \xe2\x82\xac \xff!");
    errno = ENOENT;
    EXPECT_STREQ(net::RuntimeException("open", true).what(), "open: No such file or directory");
    EXPECT_STREQ(net::RuntimeException(nullptr, false).what(), "");
}

}  // namespace
