#include "cdb/CDBService.h"

namespace zelcdbsdk {

CDBService::Handler::~Handler() = default;
void CDBService::Handler::startService(CDBVersion) {}
void CDBService::Handler::sessionEnded() {}
void CDBService::Handler::stopService() {}
void CDBService::Handler::serviceResponse(uint16_t) {}

CDBService::CDBService(uint16_t serviceId, CDBVersion serviceVersion, uint8_t attribute,
                       uint8_t access, const char* serviceName, Handler* serviceHandler)
    : id(serviceId),
      version(serviceVersion),
      serviceAttribute(attribute),
      accessControl(access),
      handler(serviceHandler),
      name_(serviceName ? serviceName : "") {}

}  // namespace zelcdbsdk
