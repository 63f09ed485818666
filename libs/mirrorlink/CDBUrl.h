#pragma once

#include <string>

#include "mirrorlink/SocketAddress.h"

namespace mirrorlink {

// The endpoint URL, scheme://host[:port][/...], with a numeric host. Any scheme is accepted;
// it only serves as the service name when the URL names no port. Anything from the first "/"
// after the authority on is ignored.
class CDBUrl {
public:
    CDBUrl();

    // Fills the fields from text. On failure every field is cleared (strings null, port -1)
    // and false is returned. Throws std::bad_alloc only.
    bool parse(const char* text);

    // Resolves host and port for a TCP stream socket without any name lookup (the host must
    // be a numeric address). The service is the URL's port, else defaultPort when it is not
    // negative, else the scheme looked up as a service name. Only the first address is kept.
    // Returns 0 or a getaddrinfo error (EAI_*); an unparsed URL gives EAI_NONAME.
    int resolve(int defaultPort, SocketAddress* address) const;

    // Each null when the URL did not parse.
    const char* url() const { return valid_ ? url_.c_str() : nullptr; }
    const char* scheme() const { return valid_ ? scheme_.c_str() : nullptr; }
    const char* authority() const { return valid_ ? authority_.c_str() : nullptr; }
    const char* host() const { return valid_ ? host_.c_str() : nullptr; }
    // 0..65535, or -1 when the URL names no port.
    int port() const { return port_; }

private:
    void clear();

    bool valid_;
    std::string url_;
    std::string scheme_;
    std::string authority_;
    std::string host_;
    int port_;
};

}  // namespace mirrorlink
