#include "cdb/CDBProtocolHandler.h"

namespace zelcdbsdk {

CDBProtocolHandler::~CDBProtocolHandler() = default;

}  // namespace zelcdbsdk
