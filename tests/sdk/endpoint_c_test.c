/* Two endpoints over loopback, driven from C99 through the shared library's table alone:
 * register, connect, add a sink, start the service, payloads and responses both ways,
 * stop and destroy. Exit status 0 is success; every failed check prints one line. */
#define _POSIX_C_SOURCE 200809L

#include "CTestSupport.h"

/* What one side has seen; written on its endpoint thread under seenMutex, read by main. */
typedef struct {
    int connected, ended, peerServices, started, responses, payloads;
    uint16_t firstPeerService, lastResponse;
    uint8_t startedMajor, startedMinor;
    char lastPayload[64];
} Side;

static void onStatus(ZELCDBEndpoint* e, void* context, int32_t status, ZELCDBError error) {
    Side* side = context;
    (void)e, (void)error;
    UPDATE(if (status == ZELCDBStatusConnected)++ side->connected;
           if (status == ZELCDBStatusStopping)++ side->ended);
}

static void onAdded(ZELCDBEndpoint* e, void* context, uint8_t major, uint8_t minor,
                    const ZELCDBService* services, uint32_t size, uint32_t count) {
    Side* side = context;
    (void)e, (void)major, (void)minor;
    CHECK(size == sizeof(ZELCDBService));
    UPDATE(if (count > 0) side->firstPeerService = services[0].serviceId;
           side->peerServices += (int)count);
}

static void onStart(ZELCDBEndpoint* e, void* context, uint16_t id, void* serviceContext,
                    uint8_t major, uint8_t minor) {
    Side* side = serviceContext;
    (void)e, (void)context, (void)id;
    UPDATE(side->startedMajor = major; side->startedMinor = minor; ++side->started);
}

static void onPayload(ZELCDBEndpoint* e, void* context, uint16_t id, void* own, const uint8_t* data,
                      uint32_t length) {
    Side* side = own;
    (void)e, (void)context, (void)id;
    if (length >= sizeof side->lastPayload) length = sizeof side->lastPayload - 1;
    UPDATE(memcpy(side->lastPayload, data, length); side->lastPayload[length] = '\0';
           ++side->payloads);
}

static void onResponse(ZELCDBEndpoint* e, void* context, uint16_t id, void* sinkContext,
                       uint16_t response) {
    Side* side = sinkContext;
    (void)e, (void)context, (void)id;
    UPDATE(side->lastResponse = response; ++side->responses);
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
    int starts;

    CHECK(ZELCDBSDKInitialize(&sdk, sizeof sdk) == ZELCDBErrorNone);
    memset(&server, 0, sizeof server);
    memset(&client, 0, sizeof client);
    loopbackUrl(url, sizeof url);
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

    CHECK(sdk.endpointAddSourceService(serverEndpoint, &server, &echo, sizeof echo, &source,
                                       sizeof source) == ZELCDBErrorNone);
    CHECK(echo.serviceId == 0x4001);
    CHECK(sdk.endpointStart(serverEndpoint) == ZELCDBErrorNone);
    starts = startClient(&sdk, clientEndpoint, &client.connected, &client.ended);
    CHECK(waitFor(&client.peerServices, 1));
    CHECK(client.firstPeerService == 0x4001);

    CHECK(sdk.endpointAddSink(clientEndpoint, &client, 0x4001, &sink, sizeof sink) ==
          ZELCDBErrorNone);
    CHECK(sdk.endpointSendStartService(clientEndpoint, 0x4001) == ZELCDBErrorNone);
    CHECK(waitFor(&server.started, 1));
    CHECK(server.startedMajor == 2 && server.startedMinor == 3);
    CHECK(sdk.endpointSendServiceResponse(serverEndpoint, 0x4001, 0x0001) == ZELCDBErrorNone);
    CHECK(waitFor(&client.responses, 1));
    CHECK(client.lastResponse == 0x0001);

    CHECK(sdk.endpointSendServicePayload(clientEndpoint, 0x4001, (const uint8_t*)"ping", 4) ==
          ZELCDBErrorNone);
    CHECK(waitFor(&server.payloads, 1));
    CHECK(strcmp(server.lastPayload, "ping") == 0);
    CHECK(sdk.endpointSendServicePayload(serverEndpoint, 0x4001, (const uint8_t*)"pong", 4) ==
          ZELCDBErrorNone);
    CHECK(waitFor(&client.payloads, 1));
    CHECK(strcmp(client.lastPayload, "pong") == 0);

    CHECK(sdk.endpointStop(clientEndpoint) == ZELCDBErrorNone);
    CHECK(current(&client.ended) == starts);
    CHECK(waitFor(&server.ended, 1));
    CHECK(sdk.endpointDestroy(clientEndpoint) == ZELCDBErrorNone);
    CHECK(sdk.endpointDestroy(serverEndpoint) == ZELCDBErrorNone);
    return failures ? 1 : 0;
}
