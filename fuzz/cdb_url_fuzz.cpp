// Parses arbitrary text as an endpoint URL and checks what a successful parse promises;
// resolves what parsed. Resolution never looks up host names, so this does no DNS.
#include <netdb.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mirrorlink/CDBUrl.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    text = text.c_str();  // the URL arrives as a C string: it ends at the first NUL

    mirrorlink::CDBUrl url;
    if (!url.parse(text.c_str())) {
        require(url.url() == nullptr && url.scheme() == nullptr && url.authority() == nullptr &&
                url.host() == nullptr && url.port() == -1);
        return 0;
    }
    require(text == url.url());
    std::string scheme = url.scheme();
    std::string authority = url.authority();
    std::string host = url.host();
    require(!scheme.empty() && !host.empty());
    require(text.compare(0, scheme.size() + 3 + authority.size(), scheme + "://" + authority) == 0);
    require(authority.find('/') == std::string::npos);
    require(authority.find(host) != std::string::npos);
    require(url.port() >= -1 && url.port() <= 65535);

    // Parsing its own text again gives the same fields.
    mirrorlink::CDBUrl again;
    require(again.parse(url.url()));
    require(scheme == again.scheme() && authority == again.authority() && host == again.host() &&
            url.port() == again.port());

    // Without a port in the URL, odd-length texts go through the scheme as a service name
    // and even-length ones take a default port. Whatever port was used must be the one
    // resolved.
    int port = url.port() >= 0 ? url.port() : text.size() % 2 == 0 ? 4242 : -1;
    mirrorlink::SocketAddress address;
    int result = url.resolve(port < 0 ? -1 : 4242, &address);
    if (result == 0) {
        require(address.length > 0 && address.length <= sizeof address.storage);
        require(address.family() == AF_INET || address.family() == AF_INET6);
        const sockaddr* raw = address.get();
        int resolvedPort = ntohs(raw->sa_family == AF_INET
                                     ? reinterpret_cast<const sockaddr_in*>(raw)->sin_port
                                     : reinterpret_cast<const sockaddr_in6*>(raw)->sin6_port);
        require(port < 0 || resolvedPort == port);
    }
    return 0;
}
