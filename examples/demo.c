/* Loads libzelcdbsdk.so.1 the way an application does, fills the function table and uses it. */
#include <dlfcn.h>
#include <stdio.h>

#include "zelcdbsdk.h"

/* Deserializer callbacks of the demo: one line per event, indented by nesting depth. */
static int depth;

static void indent(void) {
    int i;
    for (i = 0; i < depth; ++i) printf("  ");
}

static void onInt(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid,
                  int32_t value) {
    (void)d, (void)context, (void)userData;
    indent();
    printf("int    uid 0x%08x = %d\n", (unsigned)uid, (int)value);
}

static void onDouble(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid,
                     double value) {
    (void)d, (void)context, (void)userData;
    indent();
    printf("double uid 0x%08x = %g\n", (unsigned)uid, value);
}

static void onString(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid,
                     const char *utf8) {
    (void)d, (void)context, (void)userData;
    indent();
    printf("string uid 0x%08x = \"%s\"\n", (unsigned)uid, utf8);
}

static void onStructureBegin(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid,
                             uint32_t memberCount) {
    (void)d, (void)context, (void)userData;
    indent();
    printf("structure uid 0x%08x, %u members {\n", (unsigned)uid, (unsigned)memberCount);
    ++depth;
}

static void onEnd(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid) {
    (void)d, (void)context, (void)userData;
    --depth;
    indent();
    printf("} end of 0x%08x\n", (unsigned)uid);
}

/* Serializes a record { speed: int, label: string, ratio: double }, prints its bytes and
 * reads it back. */
static int codecDemo(const ZELCDBSDK *sdk) {
    ZELSBPSerializer *serializer = NULL;
    ZELSBPDeserializer *deserializer = NULL;
    ZELSBPDeserializerCallbacks callbacks = {0};
    const uint8_t *data = NULL;
    uint32_t length = 0, i;
    uint32_t record = sdk->hashName("record", ZELSBP_NUL_TERMINATED);
    uint32_t speed = sdk->hashName("speed", ZELSBP_NUL_TERMINATED);
    uint32_t label = sdk->hashName("label", ZELSBP_NUL_TERMINATED);
    uint32_t ratio = sdk->hashName("ratio", ZELSBP_NUL_TERMINATED);
    ZELCDBError error = sdk->serializerCreate(&serializer);

    if (!error) error = sdk->serializerBeginStructure(serializer, record);
    if (!error) error = sdk->serializerAddInt(serializer, speed, 88);
    if (!error) {
        error = sdk->serializerAddString(serializer, label, "front axle", ZELSBP_NUL_TERMINATED);
    }
    if (!error) error = sdk->serializerAddDouble(serializer, ratio, 3.25);
    if (!error) error = sdk->serializerEnd(serializer);
    if (!error) error = sdk->serializerGetData(serializer, &data, &length);
    if (error) {
        fprintf(stderr, "serializing failed: %s\n", sdk->getErrorName(error));
        sdk->serializerDestroy(serializer);
        return 1;
    }
    printf("serialized %u bytes:", (unsigned)length);
    for (i = 0; i < length; ++i) printf(" %02x", data[i]);
    printf("\n");

    callbacks.intCallback = onInt;
    callbacks.doubleCallback = onDouble;
    callbacks.stringCallback = onString;
    callbacks.structureBeginCallback = onStructureBegin;
    callbacks.endCallback = onEnd;
    error = sdk->deserializerCreate(&deserializer, NULL, &callbacks, (uint32_t)sizeof callbacks);
    if (!error) error = sdk->deserializerDeserialize(deserializer, NULL, data, length);
    if (error) fprintf(stderr, "deserializing failed: %s\n", sdk->getErrorName(error));
    sdk->deserializerDestroy(deserializer);
    sdk->serializerDestroy(serializer);
    return error ? 1 : 0;
}

int main(int argc, char **argv) {
    const char *path = argc > 1 ? argv[1] : "libzelcdbsdk.so.1";
    void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        fprintf(stderr, "cannot load %s: %s\n", path, dlerror());
        return 1;
    }
    ZELCDBSDKInitializeFn *initialize =
        (ZELCDBSDKInitializeFn *)dlsym(library, "ZELCDBSDKInitialize");
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
    error = codecDemo(&sdk);
    sdk.sdkUninitialize();
    dlclose(library);
    return error ? 1 : 0;
}
