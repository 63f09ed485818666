/* Two endpoints over loopback, driven from C99 through the shared library's table alone:
 * register, connect, add a sink, start the service, payloads and responses both ways,
 * stop and destroy. Exit status 0 is success; every failed check prints one line. */
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

/* What one side has seen; written on its endpoint thread, read by main. */
typedef struct {
    pthread_mutex_t mutex;
    pthread_cond_t changed;
    int connected;
    int ended;
    int peerServices;
    uint16_t firstPeerService;
    int started;
    uint8_t startedMajor, startedMinor;
    int responses;
    uint16_t lastResponse;
    int payloads;
    char lastPayload[64];
} Side;

static void sideInit(Side* side) {
    memset(side, 0, sizeof *side);
    pthread_mutex_init(&side->mutex, NULL);
    pthread_cond_init(&side->changed, NULL);
}

/* Waits until *a reaches aValue or *b reaches bValue, at most ten seconds; true when *a
 * got there. */
static int waitForEither(Side* side, const int* a, int aValue, const int* b, int bValue) {
    struct timespec deadline;
    int reached;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 10;
    pthread_mutex_lock(&side->mutex);
    while (*a < aValue && *b < bValue &&
           pthread_cond_timedwait(&side->changed, &side->mutex, &deadline) != ETIMEDOUT) {
    }
    reached = *a >= aValue;
    pthread_mutex_unlock(&side->mutex);
    return reached;
}

static int waitFor(Side* side, const int* counter, int value) {
    static const int never = 0;
    return waitForEither(side, counter, value, &never, 1);
}

#define UPDATE(side, statements)                  \
    do {                                          \
        pthread_mutex_lock(&(side)->mutex);       \
        statements;                               \
        pthread_cond_broadcast(&(side)->changed); \
        pthread_mutex_unlock(&(side)->mutex);     \
    } while (0)

static void onStatus(ZELCDBEndpoint* e, void* context, int32_t status, ZELCDBError error) {
    Side* side = context;
    (void)e, (void)error;
    UPDATE(side, if (status == ZELCDBStatusConnected)++ side->connected;
           if (status == ZELCDBStatusStopping)++ side->ended);
}

static void onAdded(ZELCDBEndpoint* e, void* context, uint8_t major, uint8_t minor,
                    const ZELCDBService* services, uint32_t size, uint32_t count) {
    Side* side = context;
    (void)e, (void)major, (void)minor;
    CHECK(size == sizeof(ZELCDBService));
    UPDATE(side, if (count > 0) side->firstPeerService = services[0].serviceId;
           side->peerServices += (int)count);
}

static void onStart(ZELCDBEndpoint* e, void* context, uint16_t id, void* serviceContext,
                    uint8_t major, uint8_t minor) {
    Side* side = serviceContext;
    (void)e, (void)context, (void)id;
    UPDATE(side, side->startedMajor = major; side->startedMinor = minor; ++side->started);
}

static void onPayload(ZELCDBEndpoint* e, void* context, uint16_t id, void* own, const uint8_t* data,
                      uint32_t length) {
    Side* side = own;
    (void)e, (void)context, (void)id;
    if (length >= sizeof side->lastPayload) length = sizeof side->lastPayload - 1;
    UPDATE(side, memcpy(side->lastPayload, data, length); side->lastPayload[length] = '\0';
           ++side->payloads);
}

static void onResponse(ZELCDBEndpoint* e, void* context, uint16_t id, void* sinkContext,
                       uint16_t response) {
    Side* side = sinkContext;
    (void)e, (void)context, (void)id;
    UPDATE(side, side->lastResponse = response; ++side->responses);
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

static const uint8_t* text(const char* s) {
    return (const uint8_t*)s;
}

int main(void) {
    ZELCDBSDK sdk;
    Side server, client;
    ZELCDBEndpoint *serverEndpoint = NULL, *clientEndpoint = NULL;
    ZELCDBEndpointCallbacks callbacks = {NULL, onStatus, onAdded, NULL, NULL};
    ZELCDBSourceServiceCallbacks source = {onStart, NULL, onPayload};
    ZELCDBSinkCallbacks sink = {onPayload, onResponse};
    ZELCDBEndpointParameters parameters;
    ZELCDBService echo = {0, "echo", 2, 3, 0, 0x11};
    char url[64];
    int attempt;

    CHECK(ZELCDBSDKInitialize(&sdk, sizeof sdk) == ZELCDBErrorNone);
    sideInit(&server);
    sideInit(&client);
    snprintf(url, sizeof url, "cdb://127.0.0.1:%d", freePort());
    parameters.url = url;
    parameters.versionMajor = 1;
    parameters.versionMinor = 1;

    parameters.mode = ZELCDBEndpointModeServer;
    parameters.context = &server;
    CHECK(sdk.endpointCreate(&serverEndpoint, &parameters, sizeof parameters, &callbacks,
                             sizeof callbacks) == ZELCDBErrorNone);
    parameters.mode = ZELCDBEndpointModeClient;
    parameters.context = &client;
    CHECK(sdk.endpointCreate(&clientEndpoint, &parameters, sizeof parameters, &callbacks,
                             sizeof callbacks) == ZELCDBErrorNone);
    if (failures) return 1;
    CHECK(sdk.endpointGetContext(clientEndpoint) == &client);
    CHECK(sdk.endpointGetContext(NULL) == NULL);
    CHECK(sdk.endpointSendServicePayload(NULL, 1, NULL, 8101) == ZELCDBErrorInvalidParameter);

    CHECK(sdk.endpointAddSourceService(serverEndpoint, &server, &echo, sizeof echo, &source,
                                       sizeof source) == ZELCDBErrorNone);
    CHECK(echo.serviceId == 0x4001);
    CHECK(sdk.endpointAddSink(clientEndpoint, &client, 0x4001, &sink, sizeof sink) ==
          ZELCDBErrorIllegalWhileNotRunning);

    CHECK(sdk.endpointStart(serverEndpoint) == ZELCDBErrorNone);
    /* The server listens a moment after its Start returns: a client that comes too early is
     * refused, sees status 3, and starts again. */
    for (attempt = 0; attempt < 100; ++attempt) {
        CHECK(sdk.endpointStart(clientEndpoint) == ZELCDBErrorNone);
        if (waitForEither(&client, &client.connected, 1, &client.ended, attempt + 1)) break;
    }
    CHECK(waitFor(&client, &client.peerServices, 1));
    CHECK(client.firstPeerService == 0x4001);

    CHECK(sdk.endpointAddSink(clientEndpoint, &client, 0x4001, &sink, sizeof sink) ==
          ZELCDBErrorNone);
    CHECK(sdk.endpointSendStartService(clientEndpoint, 0x4001) == ZELCDBErrorNone);
    CHECK(waitFor(&server, &server.started, 1));
    CHECK(server.startedMajor == 2 && server.startedMinor == 3);
    CHECK(sdk.endpointSendServiceResponse(serverEndpoint, 0x4001, 0x0001) == ZELCDBErrorNone);
    CHECK(waitFor(&client, &client.responses, 1));
    CHECK(client.lastResponse == 0x0001);

    CHECK(sdk.endpointSendServicePayload(clientEndpoint, 0x4001, text("ping"), 4) ==
          ZELCDBErrorNone);
    CHECK(waitFor(&server, &server.payloads, 1));
    CHECK(strcmp(server.lastPayload, "ping") == 0);
    CHECK(sdk.endpointSendServicePayload(serverEndpoint, 0x4001, text("pong"), 4) ==
          ZELCDBErrorNone);
    CHECK(waitFor(&client, &client.payloads, 1));
    CHECK(strcmp(client.lastPayload, "pong") == 0);

    CHECK(sdk.endpointStop(clientEndpoint) == ZELCDBErrorNone);
    CHECK(client.ended == attempt + 1);
    CHECK(waitFor(&server, &server.ended, 1));
    CHECK(sdk.endpointDestroy(clientEndpoint) == ZELCDBErrorNone);
    CHECK(sdk.endpointDestroy(serverEndpoint) == ZELCDBErrorNone);
    return failures ? 1 : 0;
}
