/* Plain CDB between two endpoints of one process, over loopback.
 *
 * The server endpoint offers "com.example.echo", a plain CDB source service. The client
 * endpoint learns it from the server's service list, adds a sink on it, starts it, sends two
 * payloads that the server sends back in upper case, stops it, and both endpoints stop.
 * Every callback prints one line.
 *
 * Threads: each endpoint calls back on a thread of its own. The server answers from inside
 * its callbacks (the library queues those calls and performs them once the callback has
 * returned). The client's callbacks note what arrived and wake main(), which walks through
 * the exchange one step at a time.
 *
 *   zelcdbsdk_cdb_loopback [port]
 */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "zelcdbsdk.h"

static ZELCDBSDK sdk;

/* What the client has seen so far; written by its callbacks, read by main(). */
static struct {
    pthread_mutex_t mutex;
    pthread_cond_t changed;
    int connected, ended, echoServiceId, responses, echoes;
} seen = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 0, 0, 0, 0, 0};

#define NOTE(statement)                        \
    do {                                       \
        pthread_mutex_lock(&seen.mutex);       \
        statement;                             \
        pthread_cond_broadcast(&seen.changed); \
        pthread_mutex_unlock(&seen.mutex);     \
    } while (0)

/* Waits until *value reaches at least target, or *other reaches otherTarget; gives up after
 * ten seconds. Returns whether *value got there. */
static int waitForEither(const int *value, int target, const int *other, int otherTarget) {
    struct timespec deadline;
    int reached;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 10;
    pthread_mutex_lock(&seen.mutex);
    while (*value < target && *other < otherTarget &&
           pthread_cond_timedwait(&seen.changed, &seen.mutex, &deadline) != ETIMEDOUT) {
    }
    reached = *value >= target;
    pthread_mutex_unlock(&seen.mutex);
    return reached;
}

static int waitFor(const int *value, int target) {
    static const int never = 0;
    int reached = waitForEither(value, target, &never, 1);
    if (!reached) fprintf(stderr, "gave up waiting\n");
    return reached;
}

/* ---- Both endpoints ------------------------------------------------------------------ */

/* The context word of each endpoint is its name. */
static void onLog(ZELCDBEndpoint *endpoint, void *context, const char *category, int32_t level,
                  const char *text) {
    (void)endpoint;
    if (level <= ZELCDBLogInfo)
        printf("[%s] log %s/%d: %s\n", (char *)context, category, level, text);
}

static void onStatus(ZELCDBEndpoint *endpoint, void *context, int32_t status, ZELCDBError error) {
    const char *name = context;
    (void)endpoint;
    printf("[%s] status %d (%s)\n", name, status, sdk.getErrorName(error));
    if (strcmp(name, "client") != 0) return;
    if (status == ZELCDBStatusConnected) NOTE(++seen.connected);
    if (status == ZELCDBStatusStopping) NOTE(++seen.ended);
}

static void onPeerServices(ZELCDBEndpoint *endpoint, void *context, uint8_t versionMajor,
                           uint8_t versionMinor, const ZELCDBService *services,
                           uint32_t serviceSize, uint32_t serviceCount) {
    const char *name = context;
    uint32_t i;
    (void)endpoint, (void)serviceSize;
    printf("[%s] the peer (CDB %d.%d) offers %u service(s)\n", name, versionMajor, versionMinor,
           (unsigned)serviceCount);
    for (i = 0; i < serviceCount; ++i) {
        printf("[%s]   0x%04x \"%s\" version %d.%d\n", name, services[i].serviceId,
               services[i].name, services[i].versionMajor, services[i].versionMinor);
        if (strcmp(name, "client") == 0 && strcmp(services[i].name, "com.example.echo") == 0) {
            NOTE(seen.echoServiceId = services[i].serviceId);
        }
    }
}

/* ---- The server's echo service ------------------------------------------------------- */

static void onServiceStart(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                           void *serviceContext, uint8_t versionMajor, uint8_t versionMinor) {
    (void)context, (void)serviceContext;
    printf("[server] asked to start 0x%04x, version %d.%d: accepting\n", serviceId, versionMajor,
           versionMinor);
    sdk.endpointSendServiceResponse(endpoint, serviceId, ZELCDBServiceResponseStarted);
}

static void onServiceStop(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                          void *serviceContext) {
    (void)context, (void)serviceContext;
    printf("[server] asked to stop 0x%04x: done\n", serviceId);
    sdk.endpointSendServiceResponse(endpoint, serviceId, ZELCDBServiceResponseStarted);
}

static void onServicePayload(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                             void *serviceContext, const uint8_t *data, uint32_t length) {
    uint8_t echo[64];
    uint32_t i;
    (void)context, (void)serviceContext;
    if (length > sizeof echo) length = sizeof echo;
    for (i = 0; i < length; ++i) echo[i] = (uint8_t)toupper(data[i]);
    printf("[server] payload \"%.*s\", echoing it\n", (int)length, (const char *)data);
    /* The buffer only has to live until the call returns: the library copies it. */
    sdk.endpointSendServicePayload(endpoint, serviceId, echo, length);
}

/* ---- The client's sink on it --------------------------------------------------------- */

static void onSinkPayload(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                          void *sinkContext, const uint8_t *data, uint32_t length) {
    (void)endpoint, (void)context, (void)sinkContext;
    printf("[client] payload from 0x%04x: \"%.*s\"\n", serviceId, (int)length, (const char *)data);
    NOTE(++seen.echoes);
}

static void onSinkResponse(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                           void *sinkContext, uint16_t response) {
    (void)endpoint, (void)context, (void)sinkContext;
    printf("[client] ServiceResponse 0x%04x from 0x%04x\n", response, serviceId);
    NOTE(++seen.responses);
}

/* ---- The exchange -------------------------------------------------------------------- */

static int freePort(void) {
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, (struct sockaddr *)&address, sizeof address);
    getsockname(fd, (struct sockaddr *)&address, &length);
    close(fd);
    return ntohs(address.sin_port);
}

static int sendText(ZELCDBEndpoint *client, uint16_t serviceId, const char *text) {
    return sdk.endpointSendServicePayload(client, serviceId, (const uint8_t *)text,
                                          (uint32_t)strlen(text));
}

int main(int argc, char **argv) {
    static const ZELCDBEndpointCallbacks callbacks = {onLog, onStatus, onPeerServices, NULL, NULL};
    static const ZELCDBSourceServiceCallbacks echoService = {onServiceStart, onServiceStop,
                                                             onServicePayload};
    static const ZELCDBSinkCallbacks sink = {onSinkPayload, onSinkResponse};
    ZELCDBEndpointParameters parameters = {NULL, ZELCDBEndpointModeServer, "server", 1, 1};
    ZELCDBService echo = {0, "com.example.echo", 1, 0, 0, 0x2A};
    ZELCDBEndpoint *server = NULL, *client = NULL;
    char url[64];
    int attempt, ok;
    uint16_t id;

    setvbuf(stdout, NULL, _IOLBF, 0);
    if (ZELCDBSDKInitialize(&sdk, (uint32_t)sizeof sdk) != ZELCDBErrorNone || !sdk.endpointCreate) {
        fprintf(stderr, "this libzelcdbsdk provides no endpoints\n");
        return 1;
    }
    snprintf(url, sizeof url, "cdb://127.0.0.1:%d", argc > 1 ? atoi(argv[1]) : freePort());
    parameters.url = url;
    if (sdk.endpointCreate(&server, &parameters, sizeof parameters, &callbacks, sizeof callbacks) !=
        ZELCDBErrorNone) {
        fprintf(stderr, "cannot create the server endpoint on %s\n", url);
        return 1;
    }
    parameters.mode = ZELCDBEndpointModeClient;
    parameters.context = "client";
    sdk.endpointCreate(&client, &parameters, sizeof parameters, &callbacks, sizeof callbacks);

    /* Services are registered before the endpoint starts; the ID comes back in the record. */
    sdk.endpointAddSourceService(server, NULL, &echo, sizeof echo, &echoService,
                                 sizeof echoService);
    sdk.endpointStart(server);

    /* The server listens a moment after its start returns, so the client's first connect
     * may be refused: it then reports status 3, and simply starts again. */
    for (attempt = 1, ok = 0; attempt <= 50 && !ok; ++attempt) {
        sdk.endpointStart(client);
        ok = waitForEither(&seen.connected, 1, &seen.ended, attempt);
    }
    ok = ok && waitFor(&seen.echoServiceId, 1);
    id = (uint16_t)seen.echoServiceId;

    if (ok) {
        printf("[main] client: add a sink on 0x%04x and start the service\n", id);
        sdk.endpointAddSink(client, NULL, id, &sink, sizeof sink);
        sdk.endpointSendStartService(client, id);
        ok = waitFor(&seen.responses, 1);
    }
    if (ok) {
        printf("[main] client: send two payloads\n");
        sendText(client, id, "hello");
        sendText(client, id, "world");
        ok = waitFor(&seen.echoes, 2);
    }
    if (ok) {
        printf("[main] client: stop the service\n");
        sdk.endpointSendStopService(client, id);
        ok = waitFor(&seen.responses, 2);
    }

    printf("[main] stop both endpoints\n");
    sdk.endpointStop(client);
    sdk.endpointDestroy(client);
    sdk.endpointDestroy(server);
    sdk.sdkUninitialize();
    printf("[main] %s\n", ok ? "done" : "failed");
    return ok ? 0 : 1;
}
