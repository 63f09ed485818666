#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>

#include "mirrorlink/CDBUrl.h"

namespace {

using mirrorlink::CDBUrl;
using mirrorlink::SocketAddress;

struct ParseCase {
    const char* text;
    const char* scheme;  // null: the text must not parse
    const char* authority;
    const char* host;
    int port;
};

std::string orNull(const char* s) {
    return s ? s : "(null)";
}

TEST(CDBUrl, ParseTable) {
    const ParseCase cases[] = {
        {"cdb://192.168.1.10:12345/x", "cdb", "192.168.1.10:12345", "192.168.1.10", 12345},
        {"cdb://192.168.1.10", "cdb", "192.168.1.10", "192.168.1.10", -1},
        {"cdb://[::1]:80", "cdb", "[::1]:80", "::1", 80},
        {"cdb://[::1]", "cdb", "[::1]", "::1", -1},
        {"cdb://myhost:80", "cdb", "myhost:80", "myhost", 80},
        {"x://h:0/a/b:9", "x", "h:0", "h", 0},
        {"tcp://h:65535", "tcp", "h:65535", "h", 65535},
        {"a://h: 80", "a", "h: 80", "h", 80},  // strtol takes leading blanks
        {"a://h:+80", "a", "h:+80", "h", 80},  // and a sign
        {"a://h:-0", "a", "h:-0", "h", 0},
        {"a://h?q=1", "a", "h?q=1", "h?q=1", -1},  // only "/" ends the authority
        {"a://h:1/", "a", "h:1", "h", 1},
        {"://1.2.3.4:5", nullptr, nullptr, nullptr, -1},
        {"1.2.3.4:5", nullptr, nullptr, nullptr, -1},
        {"cdb:/1.2.3.4:5", nullptr, nullptr, nullptr, -1},
        {"cdb://:5", nullptr, nullptr, nullptr, -1},
        {"cdb://", nullptr, nullptr, nullptr, -1},
        {"cdb:///x", nullptr, nullptr, nullptr, -1},
        {"cdb://h:70000", nullptr, nullptr, nullptr, -1},
        {"cdb://h:65536", nullptr, nullptr, nullptr, -1},
        {"cdb://h:-1", nullptr, nullptr, nullptr, -1},
        {"cdb://h:12a", nullptr, nullptr, nullptr, -1},
        {"cdb://h:", nullptr, nullptr, nullptr, -1},
        {"cdb://h:1:2", nullptr, nullptr, nullptr, -1},
        {"cdb://h:99999999999999999999", nullptr, nullptr, nullptr, -1},
        {"cdb://[::1", nullptr, nullptr, nullptr, -1},
        {"cdb://[::1]x", nullptr, nullptr, nullptr, -1},
        {"cdb://[::1]:", nullptr, nullptr, nullptr, -1},
        {"cdb://[]:5", nullptr, nullptr, nullptr, -1},
        {"", nullptr, nullptr, nullptr, -1},
    };
    for (const ParseCase& c : cases) {
        SCOPED_TRACE(c.text);
        CDBUrl url;
        // A failed parse must not leave anything of an earlier good one behind.
        ASSERT_TRUE(url.parse("old://1.1.1.1:1"));
        bool parsed = url.parse(c.text);
        EXPECT_EQ(parsed, c.scheme != nullptr);
        EXPECT_EQ(orNull(url.url()), parsed ? c.text : "(null)");
        EXPECT_EQ(orNull(url.scheme()), orNull(c.scheme));
        EXPECT_EQ(orNull(url.authority()), orNull(c.authority));
        EXPECT_EQ(orNull(url.host()), orNull(c.host));
        EXPECT_EQ(url.port(), c.port);
    }
    CDBUrl url;
    EXPECT_FALSE(url.parse(nullptr));
}

int portOf(const SocketAddress& address) {
    if (address.family() == AF_INET)
        return ntohs(reinterpret_cast<const sockaddr_in*>(address.get())->sin_port);
    return ntohs(reinterpret_cast<const sockaddr_in6*>(address.get())->sin6_port);
}

TEST(CDBUrl, ResolvesNumericHostsOnlyAndPicksThePort) {
    struct Case {
        const char* text;
        int defaultPort;
        int family;  // 0: must fail
        int port;
    };
    const Case cases[] = {
        {"cdb://127.0.0.1:12345/x", -1, AF_INET, 12345},
        {"cdb://127.0.0.1:12345", 99, AF_INET, 12345},  // the URL's port wins
        {"cdb://127.0.0.1", 7, AF_INET, 7},
        {"cdb://[::1]:80", -1, AF_INET6, 80},
        {"cdb://myhost:80", -1, 0, 0},  // never looked up
        {"cdb://localhost:80", -1, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        CDBUrl url;
        ASSERT_TRUE(url.parse(c.text));
        SocketAddress address;
        int result = url.resolve(c.defaultPort, &address);
        if (c.family == 0) {
            EXPECT_NE(result, 0);
            continue;
        }
        ASSERT_EQ(result, 0) << gai_strerror(result);
        EXPECT_EQ(address.family(), c.family);
        EXPECT_EQ(portOf(address), c.port);
    }
    CDBUrl unparsed;
    SocketAddress address;
    EXPECT_NE(unparsed.resolve(80, &address), 0);
}

// Without a port the scheme names the service.
TEST(CDBUrl, SchemeIsTheServiceNameWhenNoPortIsGiven) {
    servent* http = getservbyname("http", "tcp");
    if (http == nullptr) GTEST_SKIP() << "no services database";
    CDBUrl url;
    ASSERT_TRUE(url.parse("http://127.0.0.1/index"));
    SocketAddress address;
    ASSERT_EQ(url.resolve(-1, &address), 0);
    EXPECT_EQ(portOf(address), ntohs(static_cast<uint16_t>(http->s_port)));

    ASSERT_TRUE(url.parse("no-such-service-name://127.0.0.1"));
    EXPECT_NE(url.resolve(-1, &address), 0);
}

}  // namespace
