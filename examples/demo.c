/* Loads libzelcdbsdk.so.1 the way an application does, fills the function table and uses it. */
#include <dlfcn.h>
#include <stdio.h>

#include "zelcdbsdk.h"

int main(int argc, char **argv) {
    const char *path = argc > 1 ? argv[1] : "libzelcdbsdk.so.1";
    void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        fprintf(stderr, "cannot load %s: %s\n", path, dlerror());
        return 1;
    }
    ZELCDBSDKInitializeFn *initialize = (ZELCDBSDKInitializeFn *)dlsym(library, "ZELCDBSDKInitialize");
    if (!initialize) {
        fprintf(stderr, "no ZELCDBSDKInitialize in %s\n", path);
        return 1;
    }
    ZELCDBSDK sdk;
    ZELCDBError error = initialize(&sdk, (uint32_t)sizeof sdk);
    if (error != ZELCDBErrorNone) {
        fprintf(stderr, "ZELCDBSDKInitialize failed: %d\n", (int)error);
        return 1;
    }
    printf("libzelcdbsdk %u.%u.%u.%u\n", (unsigned)sdk.versionMajor, (unsigned)sdk.versionMinor,
           (unsigned)sdk.versionPatch, (unsigned)sdk.versionBuild);
    printf("error 203 is %s\n", sdk.getErrorName(ZELCDBErrorSBPDeserializeInputMalformed));
    printf("UID of \"speed\" is 0x%08x\n", (unsigned)sdk.hashName("speed", ZELSBP_NUL_TERMINATED));
    sdk.sdkUninitialize();
    dlclose(library);
    return 0;
}
