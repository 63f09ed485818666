#include "sdk/SdkTable.h"

#include <cstring>

#include "sbp/SBPCodecEntries.h"
#include "sdk/EndpointEntries.h"
#include "sdk/ErrorException.h"
#include "sdk/SBPEntries.h"

namespace zelcdbsdk {

namespace {

void sdkUninitialize() {
    processTearDown();
}

const char* getErrorName(ZELCDBError error) {
    return errorName(error);
}

uint32_t hashName(const char* name, uint32_t length) {
    uint32_t hash = 5381;
    if (name == nullptr) return hash;
    if (length == ZELSBP_NUL_TERMINATED) length = static_cast<uint32_t>(std::strlen(name));
    // Bytes are taken as signed so that names with bytes above 0x7F hash to the same UIDs
    // as on peers.
    for (uint32_t i = 0; i < length; ++i) {
        hash = hash * 65599u +
               static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(name[i])));
    }
    return hash;
}

ZELCDBSDK makeTable() {
    ZELCDBSDK table{};
    table.versionMajor = kSdkVersionMajor;
    table.versionMinor = kSdkVersionMinor;
    table.versionPatch = kSdkVersionPatch;
    table.versionBuild = kSdkVersionBuild;
    table.sdkUninitialize = &sdkUninitialize;
    table.getErrorName = &getErrorName;
    table.hashName = &hashName;
    fillEndpointEntries(table);
    fillSBPServiceEntries(table);
    fillSBPCodecEntries(table);
    return table;
}

}  // namespace

// Built on first use, so that a static constructor of a statically linked application that
// calls ZELCDBSDKInitialize never sees an unfilled table.
const ZELCDBSDK& sdkTable() {
    static const ZELCDBSDK table = makeTable();
    return table;
}

// Nothing in the library needs process-wide state yet: every component keeps its own.
void processSetUp() {}
void processTearDown() {}

}  // namespace zelcdbsdk
