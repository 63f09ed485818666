#include "cdb/CDBProtocolError.h"

#include <cstdarg>

namespace zelcdbsdk {

CDBProtocolError::CDBProtocolError(const char* format, ...) {
    va_list args;
    va_start(args, format);
    setMessageV(format, args);
    va_end(args);
}

}  // namespace zelcdbsdk
