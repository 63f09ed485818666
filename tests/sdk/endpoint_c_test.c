/* Two endpoints over loopback, driven from C99 through the shared library's table alone:
 * the server offers a plain echo service and an SBP source with one integer element; the
 * client starts the plain one and exchanges payloads and responses, then gets the element,
 * encoded by the serializer and read back by the deserializer. Exit status 0 is success; every
 * failed check prints one line. */
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
static pthread_mutex_t seenMutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t seenChanged = PTHREAD_COND_INITIALIZER;

/* What the applications have seen; written on the endpoint threads under seenMutex. */
static struct {
    int connected, ended, peerServices, started, responses, payloads, sinkStarted;
    int values, errors, lastValue;
    uint8_t startedMajor, startedMinor;
    char lastPayload[16];
} seen;

/* Runs statements under the lock and wakes the waiters. */
#define UPDATE(statements)                    \
    do {                                      \
        pthread_mutex_lock(&seenMutex);       \
        statements;                           \
        pthread_cond_broadcast(&seenChanged); \
        pthread_mutex_unlock(&seenMutex);     \
    } while (0)

/* Waits until *counter reaches value, at most ten seconds. */
static int waitFor(const int* counter, int value) {
    struct timespec deadline;
    int reached;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 10;
    pthread_mutex_lock(&seenMutex);
    while (*counter < value &&
           pthread_cond_timedwait(&seenChanged, &seenMutex, &deadline) != ETIMEDOUT) {
    }
    reached = *counter >= value;
    pthread_mutex_unlock(&seenMutex);
    return reached;
}

static int current(const int* field) {
    int value;
    pthread_mutex_lock(&seenMutex);
    value = *field;
    pthread_mutex_unlock(&seenMutex);
    return value;
}

/* ---- Plain CDB ------------------------------------------------------------------------ */

static void onStatus(ZELCDBEndpoint* e, void* context, int32_t status, ZELCDBError error) {
    (void)e, (void)context, (void)error;
    UPDATE(if (status == ZELCDBStatusConnected)++ seen.connected;
           if (status == ZELCDBStatusStopping)++ seen.ended);
}

static void onAdded(ZELCDBEndpoint* e, void* context, uint8_t major, uint8_t minor,
                    const ZELCDBService* services, uint32_t size, uint32_t count) {
    (void)e, (void)context, (void)major, (void)minor;
    CHECK(size == sizeof(ZELCDBService) && count == 2 && services[1].serviceId == 0x4002);
    UPDATE(seen.peerServices += (int)count);
}

static void onStart(ZELCDBEndpoint* e, void* context, uint16_t id, void* own, uint8_t major,
                    uint8_t minor) {
    (void)e, (void)context, (void)id, (void)own;
    UPDATE(seen.startedMajor = major; seen.startedMinor = minor; ++seen.started);
}

static void onPayload(ZELCDBEndpoint* e, void* context, uint16_t id, void* own, const uint8_t* data,
                      uint32_t length) {
    (void)e, (void)context, (void)id, (void)own;
    if (length >= sizeof seen.lastPayload) length = sizeof seen.lastPayload - 1;
    UPDATE(memcpy(seen.lastPayload, data, length); seen.lastPayload[length] = '\0';
           ++seen.payloads);
}

static void onResponse(ZELCDBEndpoint* e, void* context, uint16_t id, void* own,
                       uint16_t response) {
    (void)e, (void)context, (void)id, (void)own;
    if (response == 0x0001) UPDATE(++seen.responses);
}

/* ---- SBP: one integer value ------------------------------------------------------------ */

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
    if (sdk.deserializerDeserialize(deserializer, &value, data, (uint32_t)size) != ZELCDBErrorNone)
        value = -1;
    sdk.deserializerDestroy(deserializer);
    return value;
}

/* Answered from inside the callback through the table: sent once it returns. The
 * serializer owns the bytes until then. */
static ZELCDBError onGet(ZELCDBEndpoint* e, uint16_t s, void* c, uint32_t command, uint32_t uid,
                         uint32_t* result) {
    ZELSBPSerializer* serializer = NULL;
    const uint8_t* data = NULL;
    uint32_t length = 0;
    ZELCDBError error = sdk.serializerCreate(&serializer);
    (void)c;
    if (error != ZELCDBErrorNone || uid != speedUid) return ZELCDBErrorFailed;
    *result = 0;
    error = sdk.serializerAddInt(serializer, speedUid, 88);
    if (error == ZELCDBErrorNone) error = sdk.serializerGetData(serializer, &data, &length);
    if (error == ZELCDBErrorNone)
        error = sdk.sourceSendGetResponse(e, s, NULL, command, speedUid, 0, data, length);
    sdk.serializerDestroy(serializer);
    return error;
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
    CHECK(command == 0xB1);
    UPDATE(seen.lastValue = value; ++seen.values);
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
    ZELCDBSourceServiceCallbacks echoSource = {onStart, NULL, onPayload};
    ZELCDBSinkCallbacks echoSink = {onPayload, onResponse};
    ZELSBPSourceCallbacks source;
    ZELSBPSinkCallbacks sink = {onSinkStatus, onData, NULL, NULL, NULL, onError, NULL, NULL};
    ZELCDBEndpointParameters parameters;
    ZELCDBService echo = {0, "echo", 2, 3, 0, 0x11}, vehicle = {0, "vehicle", 1, 0, 0, 0};
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    char url[64];
    const struct timespec millisecond = {0, 1000000};
    int attempt, wait, fd = socket(AF_INET, SOCK_STREAM, 0);

    /* A free loopback port. */
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, (struct sockaddr*)&address, sizeof address);
    getsockname(fd, (struct sockaddr*)&address, &length);
    close(fd);
    snprintf(url, sizeof url, "cdb://127.0.0.1:%d", ntohs(address.sin_port));

    memset(&source, 0, sizeof source);
    source.getCallback = onGet;
    CHECK(ZELCDBSDKInitialize(&sdk, sizeof sdk) == ZELCDBErrorNone);
    speedUid = sdk.hashName("speed", ZELSBP_NUL_TERMINATED);
    parameters.url = url;
    parameters.versionMajor = 1;
    parameters.versionMinor = 1;
    parameters.context = &seen;
    parameters.mode = ZELCDBEndpointModeServer;
    CHECK(sdk.endpointCreate(&server, &parameters, sizeof parameters, NULL, 0) == ZELCDBErrorNone);
    parameters.mode = ZELCDBEndpointModeClient;
    CHECK(sdk.endpointCreate(&client, &parameters, sizeof parameters, &callbacks,
                             sizeof callbacks) == ZELCDBErrorNone);
    if (failures) return 1;
    CHECK(sdk.endpointGetContext(client) == &seen);
    CHECK(sdk.endpointAddSourceService(server, NULL, &echo, sizeof echo, &echoSource,
                                       sizeof echoSource) == ZELCDBErrorNone);
    CHECK(sdk.sourceCreate(server, NULL, &vehicle, sizeof vehicle, &source, sizeof source) ==
          ZELCDBErrorNone);
    CHECK(echo.serviceId == 0x4001 && vehicle.serviceId == 0x4002);

    /* The server listens a moment after its Start returns: a client that comes too early is
     * refused, ends, and is started again. */
    CHECK(sdk.endpointStart(server) == ZELCDBErrorNone);
    for (attempt = 0; attempt < 100 && !current(&seen.connected); ++attempt) {
        CHECK(sdk.endpointStart(client) == ZELCDBErrorNone);
        for (wait = 0; wait < 10000 && !current(&seen.connected) && current(&seen.ended) <= attempt;
             ++wait) {
            nanosleep(&millisecond, NULL);
        }
    }
    CHECK(waitFor(&seen.peerServices, 2));

    CHECK(sdk.endpointAddSink(client, NULL, echo.serviceId, &echoSink, sizeof echoSink) ==
          ZELCDBErrorNone);
    CHECK(sdk.endpointSendStartService(client, echo.serviceId) == ZELCDBErrorNone);
    CHECK(waitFor(&seen.started, 1));
    CHECK(seen.startedMajor == 2 && seen.startedMinor == 3);
    CHECK(sdk.endpointSendServiceResponse(server, echo.serviceId, 0x0001) == ZELCDBErrorNone);
    CHECK(waitFor(&seen.responses, 1));
    CHECK(sdk.endpointSendServicePayload(client, echo.serviceId, (const uint8_t*)"ping", 4) ==
          ZELCDBErrorNone);
    CHECK(waitFor(&seen.payloads, 1));
    CHECK(strcmp(seen.lastPayload, "ping") == 0);
    CHECK(sdk.endpointSendServicePayload(server, echo.serviceId, (const uint8_t*)"pong", 4) ==
          ZELCDBErrorNone);
    CHECK(waitFor(&seen.payloads, 2));
    CHECK(strcmp(seen.lastPayload, "pong") == 0);

    CHECK(sdk.sinkCreate(client, NULL, vehicle.serviceId, &sink, sizeof sink) == ZELCDBErrorNone);
    CHECK(sdk.endpointSendStartService(client, vehicle.serviceId) == ZELCDBErrorNone);
    CHECK(waitFor(&seen.sinkStarted, 1));
    CHECK(sdk.sinkSendGet(client, vehicle.serviceId, NULL, speedUid) == ZELCDBErrorNone);
    CHECK(waitFor(&seen.values, 1));
    CHECK(current(&seen.lastValue) == 88);
    CHECK(current(&seen.errors) == 0);

    CHECK(sdk.endpointStop(client) == ZELCDBErrorNone);
    CHECK(sdk.endpointDestroy(client) == ZELCDBErrorNone);
    CHECK(sdk.endpointDestroy(server) == ZELCDBErrorNone);
    return failures ? 1 : 0;
}
