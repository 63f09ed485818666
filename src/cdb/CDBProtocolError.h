#pragma once

#include "plat/Exception.h"

namespace zelcdbsdk {

// Malformed CDB input (an unknown message type, fields beyond the declared length). The
// session ends on it; nothing is sent to the peer.
class CDBProtocolError : public plat::Exception {
public:
    explicit CDBProtocolError(const char* format, ...) __attribute__((format(printf, 2, 3)));
};

}  // namespace zelcdbsdk
