#include "mirrorlink/CDBUrl.h"

#include <netdb.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mirrorlink {

namespace {

// Base-10 port text as strtol reads it (leading blanks and a sign included); it must be
// consumed whole and name a port. Returns -1 when it does not.
int parsePort(const std::string& text) {
    const char* begin = text.c_str();
    char* stop = nullptr;
    long value = std::strtol(begin, &stop, 10);
    if (stop == begin || *stop != '\0' || value < 0 || value > 65535) return -1;
    return static_cast<int>(value);
}

}  // namespace

CDBUrl::CDBUrl() : valid_(false), port_(-1) {}

void CDBUrl::clear() {
    valid_ = false;
    url_.clear();
    scheme_.clear();
    authority_.clear();
    host_.clear();
    port_ = -1;
}

bool CDBUrl::parse(const char* text) {
    clear();
    if (text == nullptr) return false;
    std::string url(text);

    size_t schemeEnd = url.find("://");
    if (schemeEnd == std::string::npos || schemeEnd == 0) return false;
    size_t authorityBegin = schemeEnd + 3;
    size_t slash = url.find('/', authorityBegin);
    std::string authority = url.substr(
        authorityBegin, slash == std::string::npos ? std::string::npos : slash - authorityBegin);

    std::string host;
    std::string portText;
    bool hasPort = false;
    if (!authority.empty() && authority[0] == '[') {
        size_t close = authority.find(']');
        if (close == std::string::npos) return false;
        host = authority.substr(1, close - 1);
        if (close + 1 < authority.size()) {
            if (authority[close + 1] != ':') return false;
            portText = authority.substr(close + 2);
            hasPort = true;
        }
    } else {
        size_t colon = authority.find(':');
        if (colon == std::string::npos) {
            host = authority;
        } else {
            host = authority.substr(0, colon);
            portText = authority.substr(colon + 1);
            hasPort = true;
        }
    }
    if (host.empty()) return false;
    int port = -1;
    if (hasPort) {
        port = parsePort(portText);
        if (port < 0) return false;
    }

    url_.swap(url);
    scheme_ = url_.substr(0, schemeEnd);
    authority_.swap(authority);
    host_.swap(host);
    port_ = port;
    valid_ = true;
    return true;
}

int CDBUrl::resolve(int defaultPort, SocketAddress* address) const {
    if (!valid_) return EAI_NONAME;
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;

    char portText[16];
    const char* service = scheme_.c_str();
    int port = port_ >= 0 ? port_ : defaultPort;
    if (port >= 0) {
        std::snprintf(portText, sizeof portText, "%d", port);
        service = portText;
        hints.ai_flags |= AI_NUMERICSERV;
    }

    addrinfo* list = nullptr;
    int result = getaddrinfo(host_.c_str(), service, &hints, &list);
    if (result != 0) return result;
    if (list == nullptr || list->ai_addrlen > sizeof address->storage) {
        if (list) freeaddrinfo(list);
        return EAI_FAIL;
    }
    std::memcpy(&address->storage, list->ai_addr, list->ai_addrlen);
    address->length = list->ai_addrlen;
    freeaddrinfo(list);
    return 0;
}

}  // namespace mirrorlink
