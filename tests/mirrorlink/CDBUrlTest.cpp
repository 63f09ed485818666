#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>

#include "mirrorlink/CDBUrl.h"

namespace {

using mirrorlink::CDBUrl;
using mirrorlink::SocketAddress;

std::string orNull(const char* s) {
    return s ? s : "(null)";
}

// Parses url over an earlier good parse, of which a failure must leave nothing behind.
std::string parsed(const char* url) {
    CDBUrl parser;
    EXPECT_TRUE(parser.parse("old://1.1.1.1:1"));
    bool ok = parser.parse(url);
    std::string fields = orNull(parser.url()) + " " + orNull(parser.scheme()) + " " +
                         orNull(parser.authority()) + " " + orNull(parser.host()) + " " +
                         std::to_string(parser.port());
    EXPECT_EQ(ok, fields != "(null) (null) (null) (null) -1") << fields;
    return fields;
}

TEST(CDBUrl, ParsesSchemeAuthorityHostAndPort) {
    const std::pair<const char*, const char*> cases[] = {
        {"cdb://192.168.1.10:12345/x", "cdb 192.168.1.10:12345 192.168.1.10 12345"},
        {"cdb://192.168.1.10", "cdb 192.168.1.10 192.168.1.10 -1"},
        {"cdb://[::1]:80", "cdb [::1]:80 ::1 80"},
        {"cdb://myhost:80", "cdb myhost:80 myhost 80"},
        {"x://h:0/a/b:9", "x h:0 h 0"},
        {"a://h: 80", "a h: 80 h 80"},      // strtol takes leading blanks
        {"a://h:+80", "a h:+80 h 80"},      // and a sign
        {"a://h?q=1", "a h?q=1 h?q=1 -1"},  // only "/" ends the authority
    };
    for (const auto& c : cases) EXPECT_EQ(parsed(c.first), c.first + std::string(" ") + c.second);
    for (const char* bad :
         {"://1.2.3.4:5", "1.2.3.4:5", "cdb:/1.2.3.4:5", "cdb://:5", "cdb://", "cdb:///x",
          "cdb://h:65536", "cdb://h:-1", "cdb://h:12a", "cdb://h:1:2",
          "cdb://h:99999999999999999999", "cdb://[::1", "cdb://[::1]x", "cdb://[]:5", ""}) {
        EXPECT_EQ(parsed(bad), "(null) (null) (null) (null) -1") << bad;
    }
    CDBUrl url;
    EXPECT_FALSE(url.parse(nullptr));
}

int portOf(const SocketAddress& address) {
    if (address.family() == AF_INET)
        return ntohs(reinterpret_cast<const sockaddr_in*>(address.get())->sin_port);
    return ntohs(reinterpret_cast<const sockaddr_in6*>(address.get())->sin6_port);
}

// Hosts must be numeric (never looked up); without a port the scheme names the service.
TEST(CDBUrl, ResolvesNumericHostsOnlyAndPicksThePort) {
    servent* http = getservbyname("http", "tcp");
    const struct {
        const char* text;
        int defaultPort;
        int family;  // 0: must fail
        int port;
    } cases[] = {
        {"cdb://127.0.0.1:12345", 99, AF_INET, 12345},  // the URL's port wins
        {"cdb://127.0.0.1", 7, AF_INET, 7},
        {"cdb://[::1]:80", -1, AF_INET6, 80},
        {"cdb://myhost:80", -1, 0, 0},
        {"no-such-service-name://127.0.0.1", -1, 0, 0},
        {"http://127.0.0.1/index", -1, http ? AF_INET : 0, http ? ntohs(http->s_port) : 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        CDBUrl url;
        ASSERT_TRUE(url.parse(c.text));
        SocketAddress address;
        int result = url.resolve(c.defaultPort, &address);
        std::pair<int, int> got(0, 0);  // family, port
        if (result == 0) got = {address.family(), portOf(address)};
        EXPECT_EQ(got, std::make_pair(c.family, c.port)) << gai_strerror(result);
    }
    SocketAddress address;
    EXPECT_NE(CDBUrl().resolve(80, &address), 0);
}

}  // namespace
