/* The public header compiled as strict C99, used the way a C application uses it. */
#include "zelcdbsdk.h"

#include <stdio.h>
#include <string.h>

int main(void) {
    ZELCDBSDK sdk;
    memset(&sdk, 0xAB, sizeof sdk);
    if (ZELCDBSDKInitialize(&sdk, (uint32_t)sizeof sdk) != ZELCDBErrorNone) return 1;
    if (sdk.versionMajor != 2 || sdk.versionMinor != 7 || sdk.versionPatch != 0 ||
        sdk.versionBuild != 2565)
        return 2;
    if (sdk.reserved8 != NULL || sdk.getErrorName == NULL) return 3;
    if (strcmp(sdk.getErrorName(ZELCDBErrorTimeout), "Timeout") != 0) return 4;
    puts("header_c_test: ok");
    return 0;
}
