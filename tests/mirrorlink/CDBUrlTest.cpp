#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>

#include "TestText.h"
#include "mirrorlink/CDBUrl.h"

namespace {

using mirrorlink::CDBUrl;

// Parses url over an earlier good parse, of which a failure must leave nothing behind, then
// resolves it: "url scheme authority host port -> family:port" ("-> none" when it fails).
std::string outcome(const char* url, int defaultPort) {
    CDBUrl parser;
    EXPECT_TRUE(parser.parse("old://1.1.1.1:1"));
    bool ok = parser.parse(url);
    auto orNull = [](const char* s) { return std::string(s ? s : "(null)") + " "; };
    std::string text = orNull(parser.url()) + orNull(parser.scheme()) + orNull(parser.authority()) +
                       orNull(parser.host()) + std::to_string(parser.port());
    EXPECT_EQ(ok, text != "(null) (null) (null) (null) -1") << text;
    mirrorlink::SocketAddress address;
    if (parser.resolve(defaultPort, &address) != 0) return text + " -> none";
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(address.get());
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address.get());
    bool isV4 = address.family() == AF_INET;
    return text + zeltest::format(" -> %s:%d", isV4 ? "v4" : "v6",
                                  ntohs(isV4 ? v4->sin_port : v6->sin6_port));
}

// Hosts must be numeric (never looked up); the URL's port wins over the default, and
// without either the scheme names the service.
TEST(CDBUrl, ParsesAndResolves) {
    servent* http = getservbyname("http", "tcp");
    const std::string httpPort = http ? zeltest::format("v4:%d", ntohs(http->s_port)) : "none";
    const struct {
        const char* url;
        int defaultPort;
        std::string result;
    } cases[] = {
        {"cdb://192.168.1.10:12345/x", 99, "cdb 192.168.1.10:12345 192.168.1.10 12345 -> v4:12345"},
        {"cdb://127.0.0.1", 7, "cdb 127.0.0.1 127.0.0.1 -1 -> v4:7"},
        {"cdb://[::1]:80", -1, "cdb [::1]:80 ::1 80 -> v6:80"},
        {"cdb://myhost:80", -1, "cdb myhost:80 myhost 80 -> none"},
        {"x://h:0/a/b:9", -1, "x h:0 h 0 -> none"},
        {"a://h: 80", -1, "a h: 80 h 80 -> none"},      // strtol takes leading blanks
        {"a://h:+80", -1, "a h:+80 h 80 -> none"},      // and a sign
        {"a://h?q=1", -1, "a h?q=1 h?q=1 -1 -> none"},  // only "/" ends the authority
        {"no-such-service-name://127.0.0.1", -1,
         "no-such-service-name 127.0.0.1 127.0.0.1 -1 -> none"},
        {"http://127.0.0.1/index", -1, "http 127.0.0.1 127.0.0.1 -1 -> " + httpPort},
    };
    for (const auto& c : cases) EXPECT_EQ(outcome(c.url, c.defaultPort), c.url + (" " + c.result));
    for (const char* bad :
         {"://1.2.3.4:5", "1.2.3.4:5", "cdb:/1.2.3.4:5", "cdb://:5", "cdb://", "cdb:///x",
          "cdb://h:65536", "cdb://h:-1", "cdb://h:12a", "cdb://h:1:2",
          "cdb://h:99999999999999999999", "cdb://[::1", "cdb://[::1]x", "cdb://[]:5", ""}) {
        EXPECT_EQ(outcome(bad, 80), "(null) (null) (null) (null) -1 -> none") << bad;
    }
    EXPECT_FALSE(CDBUrl().parse(nullptr));
}

}  // namespace
