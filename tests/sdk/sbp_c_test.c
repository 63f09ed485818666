/* SBP between two endpoints over loopback, driven from C99 through the shared library's
 * table alone: the server offers an SBP source with one integer element, the client's sink
 * gets it, sets it and subscribes to it, each value encoded by the serializer and read back
 * by the deserializer. Exit status 0 is success; every failed check prints one line. */
#define _POSIX_C_SOURCE 200809L

#include "CTestSupport.h"

static ZELCDBSDK sdk;
static uint32_t speedUid;

/* What both applications have seen; written on the endpoint threads under seenMutex. */
static struct {
    int connected, ended, peerServices, sinkStarted;
    int values, lastValue, setDone, subscribed, updates, errors;
    int speed; /* the source's element */
} seen;

/* ---- The codec: one integer value --------------------------------------------------- */

static void onInt(ZELSBPDeserializer* d, void* context, void* userData, uint32_t uid,
                  int32_t value) {
    (void)d, (void)context;
    if (uid == speedUid) *(int32_t*)userData = value;
}

/* The integer in data, or -1 when it is not one. */
static int32_t decodeSpeed(const uint8_t* data, int32_t size) {
    ZELSBPDeserializerCallbacks callbacks;
    ZELSBPDeserializer* deserializer = NULL;
    int32_t value = -1;
    memset(&callbacks, 0, sizeof callbacks);
    callbacks.intCallback = onInt;
    if (size <= 0 || sdk.deserializerCreate(&deserializer, NULL, &callbacks, sizeof callbacks) !=
                         ZELCDBErrorNone) {
        return -1;
    }
    if (sdk.deserializerDeserialize(deserializer, &value, data, (uint32_t)size) !=
        ZELCDBErrorNone) {
        value = -1;
    }
    sdk.deserializerDestroy(deserializer);
    return value;
}

/* Encodes the integer and sends it as a Get answer (endpoint set) or as a Set (sink); the
 * serializer owns the bytes until then. */
static ZELCDBError sendSpeed(int32_t value, ZELCDBEndpoint* source, ZELCDBEndpoint* sink,
                             uint16_t serviceId, uint32_t command) {
    ZELSBPSerializer* serializer = NULL;
    const uint8_t* data = NULL;
    uint32_t length = 0;
    ZELCDBError error = sdk.serializerCreate(&serializer);
    if (error != ZELCDBErrorNone) return error;
    error = sdk.serializerAddInt(serializer, speedUid, value);
    if (error == ZELCDBErrorNone) error = sdk.serializerGetData(serializer, &data, &length);
    if (error == ZELCDBErrorNone && source) {
        error =
            sdk.sourceSendGetResponse(source, serviceId, NULL, command, speedUid, 0, data, length);
    } else if (error == ZELCDBErrorNone) {
        error = sdk.sinkSendSet(sink, serviceId, NULL, speedUid, data, length);
    }
    sdk.serializerDestroy(serializer);
    return error;
}

/* ---- The source's application -------------------------------------------------------- */

static ZELCDBError onGet(ZELCDBEndpoint* e, uint16_t s, void* c, uint32_t command, uint32_t uid,
                         uint32_t* result) {
    (void)c;
    if (uid != speedUid) return ZELCDBErrorFailed; /* answered 0x10000002 */
    /* Answered through the table from inside the callback: sent once it returns. */
    *result = 0;
    return sendSpeed(current(&seen.speed), e, NULL, s, command) == ZELCDBErrorNone
               ? ZELCDBErrorNone
               : ZELCDBErrorFailed;
}

static ZELCDBError onSet(ZELCDBEndpoint* e, uint16_t s, void* c, uint32_t uid, const uint8_t* data,
                         int32_t size, uint32_t* result) {
    int32_t value = decodeSpeed(data, size);
    (void)e, (void)s, (void)c;
    if (uid != speedUid || value < 0) return ZELCDBErrorFailed;
    UPDATE(seen.speed = value);
    *result = 0;
    return ZELCDBErrorLocalSBPError; /* answered at once with *result */
}

static ZELCDBError onSubscribe(ZELCDBEndpoint* e, uint16_t s, void* c, uint32_t uid, uint32_t* type,
                               uint32_t* interval, uint32_t* result) {
    (void)e, (void)s, (void)c, (void)interval;
    if (uid != speedUid || *type != 0) return ZELCDBErrorFailed;
    *result = 0;
    return ZELCDBErrorLocalSBPError;
}

/* ---- The sink's application ---------------------------------------------------------- */

static void onAdded(ZELCDBEndpoint* e, void* context, uint8_t major, uint8_t minor,
                    const ZELCDBService* services, uint32_t size, uint32_t count) {
    (void)e, (void)context, (void)major, (void)minor, (void)services, (void)size;
    UPDATE(seen.peerServices += (int)count);
}

static void onStatus(ZELCDBEndpoint* e, void* context, int32_t status, ZELCDBError error) {
    (void)e, (void)context, (void)error;
    UPDATE(if (status == ZELCDBStatusConnected)++ seen.connected;
           if (status == ZELCDBStatusStopping)++ seen.ended);
}

static void onSinkStatus(ZELCDBEndpoint* e, void* context, uint16_t s, void* c, uint16_t status) {
    (void)e, (void)context, (void)s, (void)c;
    if (status == 1) UPDATE(++seen.sinkStarted);
}

static void onData(ZELCDBEndpoint* e, uint16_t s, void* c, void* request, uint32_t command,
                   uint32_t uid, const uint8_t* payload, int32_t size) {
    int32_t value = decodeSpeed(payload, size);
    (void)e, (void)s, (void)c, (void)request;
    CHECK(uid == speedUid);
    if (command == 0xB1) UPDATE(seen.lastValue = value; ++seen.values);
    if (command == 0xB3) UPDATE(seen.lastValue = value; ++seen.updates);
}

static void onSetDone(ZELCDBEndpoint* e, uint16_t s, void* c, void* request, uint32_t uid) {
    (void)e, (void)s, (void)c, (void)request;
    CHECK(uid == speedUid);
    UPDATE(++seen.setDone);
}

static void onSubscribed(ZELCDBEndpoint* e, uint16_t s, void* c, void* request, uint32_t uid) {
    (void)e, (void)s, (void)c, (void)request, (void)uid;
    UPDATE(++seen.subscribed);
}

static void onError(ZELCDBEndpoint* e, uint16_t s, void* c, void* request, uint32_t command,
                    uint32_t uid, ZELCDBError error, uint32_t sbpResult) {
    (void)e, (void)s, (void)c, (void)request, (void)uid;
    fprintf(stderr, "error: command %x, error %d, result %x\n", (unsigned)command, (int)error,
            (unsigned)sbpResult);
    UPDATE(++seen.errors);
}

int main(void) {
    ZELCDBEndpoint *server = NULL, *client = NULL;
    ZELCDBEndpointCallbacks callbacks = {NULL, onStatus, onAdded, NULL, NULL};
    ZELSBPSourceCallbacks source;
    ZELSBPSinkCallbacks sink = {onSinkStatus, onData,  onSetDone, onSubscribed,
                                NULL,         onError, NULL,      NULL};
    ZELCDBEndpointParameters parameters;
    ZELCDBService vehicle = {0, "vehicle", 1, 0, 0, 0};
    char url[64];

    memset(&source, 0, sizeof source);
    source.getCallback = onGet;
    source.setCallback = onSet;
    source.subscribeCallback = onSubscribe;
    seen.speed = 88;

    CHECK(ZELCDBSDKInitialize(&sdk, sizeof sdk) == ZELCDBErrorNone);
    speedUid = sdk.hashName("speed", ZELSBP_NUL_TERMINATED);
    loopbackUrl(url, sizeof url);
    parameters.url = url;
    parameters.versionMajor = 1;
    parameters.versionMinor = 1;
    parameters.context = NULL;
    parameters.mode = ZELCDBEndpointModeServer;
    CHECK(sdk.endpointCreate(&server, &parameters, sizeof parameters, NULL, 0) == ZELCDBErrorNone);
    parameters.mode = ZELCDBEndpointModeClient;
    CHECK(sdk.endpointCreate(&client, &parameters, sizeof parameters, &callbacks,
                             sizeof callbacks) == ZELCDBErrorNone);
    if (failures) return 1;
    CHECK(sdk.sourceCreate(server, NULL, &vehicle, sizeof vehicle, &source, sizeof source) ==
          ZELCDBErrorNone);
    CHECK(vehicle.serviceId == 0x4001);

    CHECK(sdk.endpointStart(server) == ZELCDBErrorNone);
    startClient(&sdk, client, &seen.connected, &seen.ended);
    CHECK(waitFor(&seen.peerServices, 1));
    CHECK(sdk.sinkCreate(client, NULL, vehicle.serviceId, &sink, sizeof sink) == ZELCDBErrorNone);
    CHECK(sdk.endpointSendStartService(client, vehicle.serviceId) == ZELCDBErrorNone);
    CHECK(waitFor(&seen.sinkStarted, 1));

    CHECK(sdk.sinkSendGet(client, vehicle.serviceId, NULL, speedUid) == ZELCDBErrorNone);
    CHECK(waitFor(&seen.values, 1));
    CHECK(current(&seen.lastValue) == 88);

    CHECK(sendSpeed(95, NULL, client, vehicle.serviceId, 0xB2) == ZELCDBErrorNone);
    CHECK(waitFor(&seen.setDone, 1));
    CHECK(current(&seen.speed) == 95);

    CHECK(sdk.sinkSendSubscribe(client, vehicle.serviceId, NULL, speedUid, 0, 10) ==
          ZELCDBErrorNone);
    CHECK(waitFor(&seen.subscribed, 1));
    CHECK(waitFor(&seen.updates, 2));
    CHECK(current(&seen.lastValue) == 95);
    CHECK(current(&seen.errors) == 0);

    CHECK(sdk.endpointStop(client) == ZELCDBErrorNone);
    CHECK(sdk.endpointDestroy(client) == ZELCDBErrorNone);
    CHECK(sdk.endpointDestroy(server) == ZELCDBErrorNone);
    return failures ? 1 : 0;
}
