/* SBP between two endpoints over loopback, driven from C99 through the shared library's
 * table alone: the server offers an SBP source with one integer element, the client's sink
 * gets it, sets it and subscribes to it, each value encoded by the serializer and read back
 * by the deserializer. Exit status 0 is success; every failed check prints one line. */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "zelcdbsdk.h"

static int failures = 0;

#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                              \
        }                                                                            \
    } while (0)

static ZELCDBSDK sdk;
static uint32_t speedUid;

/* What both applications have seen; written on the endpoint threads, read by main. */
static struct {
    pthread_mutex_t mutex;
    pthread_cond_t changed;
    int connected, ended, peerServices, sinkStarted;
    int values, lastValue, setDone, subscribed, updates, cancelled, errors;
    int speed; /* the source's element */
} seen;

#define UPDATE(statements)                     \
    do {                                       \
        pthread_mutex_lock(&seen.mutex);       \
        statements;                            \
        pthread_cond_broadcast(&seen.changed); \
        pthread_mutex_unlock(&seen.mutex);     \
    } while (0)

/* Waits until *counter reaches value, at most ten seconds. */
static int waitFor(const int* counter, int value) {
    struct timespec deadline;
    int reached;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 10;
    pthread_mutex_lock(&seen.mutex);
    while (*counter < value &&
           pthread_cond_timedwait(&seen.changed, &seen.mutex, &deadline) != ETIMEDOUT) {
    }
    reached = *counter >= value;
    pthread_mutex_unlock(&seen.mutex);
    return reached;
}

/* A field of seen, read while the endpoint threads may be writing it. */
static int current(const int* field) {
    int value;
    pthread_mutex_lock(&seen.mutex);
    value = *field;
    pthread_mutex_unlock(&seen.mutex);
    return value;
}

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

/* Encodes the integer and passes it to send; the serializer owns the bytes until then. */
static ZELCDBError withSpeed(int32_t value, ZELCDBError (*send)(const uint8_t*, uint32_t, void*),
                             void* argument) {
    ZELSBPSerializer* serializer = NULL;
    const uint8_t* data = NULL;
    uint32_t length = 0;
    ZELCDBError error = sdk.serializerCreate(&serializer);
    if (error != ZELCDBErrorNone) return error;
    error = sdk.serializerAddInt(serializer, speedUid, value);
    if (error == ZELCDBErrorNone) error = sdk.serializerGetData(serializer, &data, &length);
    if (error == ZELCDBErrorNone) error = send(data, length, argument);
    sdk.serializerDestroy(serializer);
    return error;
}

/* ---- The source's application -------------------------------------------------------- */

typedef struct {
    ZELCDBEndpoint* endpoint;
    uint16_t serviceId;
    uint32_t command;
} Answer;

static ZELCDBError sendAnswer(const uint8_t* data, uint32_t length, void* argument) {
    Answer* a = argument;
    return sdk.sourceSendGetResponse(a->endpoint, a->serviceId, NULL, a->command, speedUid, 0, data,
                                     length);
}

static ZELCDBError onGet(ZELCDBEndpoint* e, uint16_t s, void* c, uint32_t command, uint32_t uid,
                         uint32_t* result) {
    Answer answer;
    int speed;
    (void)c;
    if (uid != speedUid) return ZELCDBErrorFailed; /* answered 0x10000002 */
    answer.endpoint = e;
    answer.serviceId = s;
    answer.command = command;
    pthread_mutex_lock(&seen.mutex);
    speed = seen.speed;
    pthread_mutex_unlock(&seen.mutex);
    /* Answered through the table from inside the callback: sent once it returns. */
    *result = 0;
    return withSpeed(speed, sendAnswer, &answer) == ZELCDBErrorNone ? ZELCDBErrorNone
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

static void onCancelled(ZELCDBEndpoint* e, uint16_t s, void* c, void* request, uint32_t command,
                        uint32_t uid) {
    (void)e, (void)s, (void)c, (void)request, (void)uid;
    CHECK(command == 0xB3);
    UPDATE(++seen.cancelled);
}

static void onError(ZELCDBEndpoint* e, uint16_t s, void* c, void* request, uint32_t command,
                    uint32_t uid, ZELCDBError error, uint32_t sbpResult) {
    (void)e, (void)s, (void)c, (void)request, (void)uid;
    /* The only error expected: the subscription hears that it was cancelled. */
    if (command == 0xB3 && error == ZELCDBErrorRemoteSBPError && sbpResult == 0x1000000B) return;
    fprintf(stderr, "error: command %x, error %d, result %x\n", (unsigned)command, (int)error,
            (unsigned)sbpResult);
    UPDATE(++seen.errors);
}

static int freePort(void) {
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, (struct sockaddr*)&address, sizeof address);
    getsockname(fd, (struct sockaddr*)&address, &length);
    close(fd);
    return ntohs(address.sin_port);
}

typedef struct {
    ZELCDBEndpoint* endpoint;
    uint16_t serviceId;
} Target;

static ZELCDBError sendSet(const uint8_t* data, uint32_t length, void* argument) {
    Target* t = argument;
    return sdk.sinkSendSet(t->endpoint, t->serviceId, NULL, speedUid, data, length);
}

int main(void) {
    ZELCDBEndpoint *server = NULL, *client = NULL;
    ZELCDBEndpointCallbacks callbacks = {NULL, onStatus, onAdded, NULL, NULL};
    ZELSBPSourceCallbacks source;
    ZELSBPSinkCallbacks sink = {onSinkStatus, onData,  onSetDone, onSubscribed,
                                onCancelled,  onError, NULL,      NULL};
    ZELCDBEndpointParameters parameters;
    ZELCDBService vehicle = {0, "vehicle", 1, 0, 0, 0};
    Target target;
    char url[64];
    int attempt;

    memset(&source, 0, sizeof source);
    source.getCallback = onGet;
    source.setCallback = onSet;
    source.subscribeCallback = onSubscribe;
    pthread_mutex_init(&seen.mutex, NULL);
    pthread_cond_init(&seen.changed, NULL);
    seen.speed = 88;

    CHECK(ZELCDBSDKInitialize(&sdk, sizeof sdk) == ZELCDBErrorNone);
    speedUid = sdk.hashName("speed", ZELSBP_NUL_TERMINATED);
    snprintf(url, sizeof url, "cdb://127.0.0.1:%d", freePort());
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
    /* The server listens a moment after its Start returns: a client that comes too early is
     * refused, sees status 3, and starts again. */
    for (attempt = 0; attempt < 100; ++attempt) {
        CHECK(sdk.endpointStart(client) == ZELCDBErrorNone);
        if (waitFor(&seen.connected, 1)) break;
        CHECK(waitFor(&seen.ended, attempt + 1));
    }
    CHECK(waitFor(&seen.peerServices, 1));
    CHECK(sdk.sinkCreate(client, NULL, vehicle.serviceId, &sink, sizeof sink) == ZELCDBErrorNone);
    CHECK(sdk.endpointSendStartService(client, vehicle.serviceId) == ZELCDBErrorNone);
    CHECK(waitFor(&seen.sinkStarted, 1));

    CHECK(sdk.sinkSendGet(client, vehicle.serviceId, NULL, speedUid) == ZELCDBErrorNone);
    CHECK(waitFor(&seen.values, 1));
    CHECK(current(&seen.lastValue) == 88);

    target.endpoint = client;
    target.serviceId = vehicle.serviceId;
    CHECK(withSpeed(95, sendSet, &target) == ZELCDBErrorNone);
    CHECK(waitFor(&seen.setDone, 1));
    CHECK(current(&seen.speed) == 95);

    CHECK(sdk.sinkSendSubscribe(client, vehicle.serviceId, NULL, speedUid, 0, 10) ==
          ZELCDBErrorNone);
    CHECK(waitFor(&seen.subscribed, 1));
    CHECK(waitFor(&seen.updates, 2));
    CHECK(current(&seen.lastValue) == 95);
    CHECK(sdk.sinkSendCancel(client, vehicle.serviceId, NULL, speedUid, 0xB3) == ZELCDBErrorNone);
    CHECK(waitFor(&seen.cancelled, 1));
    CHECK(current(&seen.errors) == 0);

    CHECK(sdk.endpointStop(client) == ZELCDBErrorNone);
    CHECK(sdk.endpointDestroy(client) == ZELCDBErrorNone);
    CHECK(sdk.endpointDestroy(server) == ZELCDBErrorNone);
    return failures ? 1 : 0;
}
