/* The smallest SBP application linked against the library, built from the installed header
 * and library alone, as an integrator's would be: a server endpoint offers an SBP source with one
 * element, "answer" (42), a client endpoint of the same process finds the service by name, starts
 * it, and gets that element and one the source does not have. Every protocol value comes from the
 * header by name; tests/consumer/run.sh refuses a hexadecimal literal here.
 *
 *   sbp_minimal EXPECTED-VERSION    exit 0 when both Gets ended as they should */
#define _POSIX_C_SOURCE 200809L

#include <netinet/in.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>
#include <zelcdbsdk.h>

static ZELCDBSDK sdk;
static uint32_t answerUid, questionUid;
static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static int value = -1, ended;
static ZELCDBError error = ZELCDBErrorNone;
static uint32_t sbpResult;

#define NOTE(statement)                   \
    do {                                  \
        pthread_mutex_lock(&mutex);       \
        statement;                        \
        pthread_cond_broadcast(&changed); \
        pthread_mutex_unlock(&mutex);     \
    } while (0)

/* ---- The server's source ------------------------------------------------------------ */

static int32_t sourceStart(ZELCDBEndpoint *e, void *ec, uint16_t s, void *c, uint8_t ma,
                           uint8_t mi) {
    (void)e, (void)ec, (void)s, (void)c, (void)ma, (void)mi;
    return 0;
}

static ZELCDBError sourceGet(ZELCDBEndpoint *e, uint16_t s, void *c, uint32_t command, uint32_t uid,
                             uint32_t *result) {
    ZELSBPSerializer *serializer;
    const uint8_t *data;
    uint32_t size;
    (void)c;
    if (uid != answerUid) return ZELCDBErrorFailed; /* answered ZELSBPResultFailed */
    sdk.serializerCreate(&serializer);
    sdk.serializerAddInt(serializer, uid, 42);
    sdk.serializerGetData(serializer, &data, &size);
    sdk.sourceSendGetResponse(e, s, NULL, command, uid, ZELSBPResultSuccess, data, size);
    sdk.serializerDestroy(serializer);
    (void)result; /* answered later: with data, so through the entry above */
    return ZELCDBErrorNone;
}

/* ---- The client's sink ---------------------------------------------------------------- */

static void readInt(ZELSBPDeserializer *d, void *c, void *u, uint32_t uid, int32_t v) {
    (void)d, (void)c, (void)u;
    if (uid == answerUid) NOTE(value = v);
}

static void sinkData(ZELCDBEndpoint *e, uint16_t s, void *c, void *r, uint32_t command,
                     uint32_t uid, const uint8_t *payload, int32_t size) {
    ZELSBPDeserializerCallbacks callbacks = {0};
    ZELSBPDeserializer *d;
    (void)e, (void)s, (void)c, (void)r, (void)uid;
    if (command != ZELSBPCommandGet) return;
    callbacks.intCallback = readInt;
    sdk.deserializerCreate(&d, NULL, &callbacks, sizeof callbacks);
    sdk.deserializerDeserialize(d, NULL, payload, (uint32_t)size);
    sdk.deserializerDestroy(d);
}

static void sinkError(ZELCDBEndpoint *e, uint16_t s, void *c, void *r, uint32_t command,
                      uint32_t uid, ZELCDBError err, uint32_t result) {
    (void)e, (void)s, (void)c, (void)r, (void)command;
    if (uid == questionUid) NOTE((error = err, sbpResult = result));
}

static void sinkStatus(ZELCDBEndpoint *e, void *ec, uint16_t s, void *c, uint16_t status) {
    (void)ec, (void)c;
    if (status != ZELCDBServiceResponseStarted) return;
    sdk.sinkSendGet(e, s, NULL, answerUid);
    sdk.sinkSendGet(e, s, NULL, questionUid);
}

static void servicesAdded(ZELCDBEndpoint *e, void *ec, uint8_t ma, uint8_t mi,
                          const ZELCDBService *services, uint32_t size, uint32_t count) {
    static ZELSBPSinkCallbacks sink;
    uint32_t i;
    (void)ec, (void)ma, (void)mi;
    sink.serviceStatusCallback = sinkStatus;
    sink.dataCallback = sinkData;
    sink.errorCallback = sinkError;
    for (i = 0; i < count; ++i) {
        const ZELCDBService *s = (const ZELCDBService *)((const char *)services + i * size);
        if (strcmp(s->name, "com.example.consumer") != 0) continue;
        sdk.sinkCreate(e, NULL, s->serviceId, &sink, sizeof sink);
        sdk.endpointSendStartService(e, s->serviceId);
    }
}

static void clientStatus(ZELCDBEndpoint *e, void *ec, int32_t status, ZELCDBError err) {
    (void)e, (void)ec, (void)err;
    if (status == ZELCDBStatusStopping) NOTE(++ended);
}

/* ---- The exchange ----------------------------------------------------------------------- */

static int freePort(void) {
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    int fd = socket(AF_INET, SOCK_STREAM, 0), port;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, (struct sockaddr *)&address, sizeof address);
    getsockname(fd, (struct sockaddr *)&address, &length);
    port = ntohs(address.sin_port);
    close(fd);
    return port;
}

static ZELCDBEndpoint *endpoint(const char *url, int32_t mode, ZELCDBEndpointCallbacks *cb) {
    ZELCDBEndpointParameters parameters = {url, mode, NULL, 1, 1};
    ZELCDBEndpoint *e = NULL;
    sdk.endpointCreate(&e, &parameters, sizeof parameters, cb, sizeof *cb);
    return e;
}

int main(int argc, char **argv) {
    char version[64], url[64];
    ZELCDBEndpointCallbacks serverCallbacks = {0}, clientCallbacks = {0};
    ZELSBPSourceCallbacks source = {0};
    ZELCDBService service = {0, "com.example.consumer", 1, 0, 0, 0};
    ZELCDBEndpoint *server, *client;
    struct timespec deadline;
    int attempt, ok, late = 0;

    if (ZELCDBSDKInitialize(&sdk, sizeof sdk) != ZELCDBErrorNone) return 1;
    snprintf(version, sizeof version, "%u.%u.%u", (unsigned)sdk.versionMajor,
             (unsigned)sdk.versionMinor, (unsigned)sdk.versionPatch);
    if (argc < 2 || strcmp(argv[1], version) != 0) {
        printf("sbp_minimal: the library is %s, the package says %s\n", version,
               argc < 2 ? "nothing" : argv[1]);
        return 1;
    }
    answerUid = sdk.hashName("answer", ZELSBP_NUL_TERMINATED);
    questionUid = sdk.hashName("question", ZELSBP_NUL_TERMINATED);
    snprintf(url, sizeof url, "cdb://127.0.0.1:%d", freePort());

    server = endpoint(url, ZELCDBEndpointModeServer, &serverCallbacks);
    source.serviceStartCallback = sourceStart;
    source.getCallback = sourceGet;
    sdk.sourceCreate(server, NULL, &service, sizeof service, &source, sizeof source);
    sdk.endpointStart(server);

    clientCallbacks.statusCallback = clientStatus;
    clientCallbacks.peerServicesAddedCallback = servicesAdded;
    client = endpoint(url, ZELCDBEndpointModeClient, &clientCallbacks);
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 10;
    pthread_mutex_lock(&mutex);
    /* The server may not listen yet: a refused connect ends the client, which starts again. */
    for (attempt = 0; !late && (value < 0 || error == ZELCDBErrorNone); ++attempt) {
        int endedBefore = ended;
        pthread_mutex_unlock(&mutex);
        if (attempt > 0) nanosleep(&(struct timespec){0, 50000000L}, NULL);
        sdk.endpointStart(client);
        pthread_mutex_lock(&mutex);
        while ((value < 0 || error == ZELCDBErrorNone) && ended == endedBefore) {
            if ((late = pthread_cond_timedwait(&changed, &mutex, &deadline) != 0)) break;
        }
    }
    ok = value == 42 && error == ZELCDBErrorRemoteSBPError && sbpResult == ZELSBPResultFailed;
    pthread_mutex_unlock(&mutex);

    printf("sbp_minimal: library %s.%u, answer %d, question %s/%#x: %s\n", version,
           (unsigned)sdk.versionBuild, value, sdk.getErrorName(error), (unsigned)sbpResult,
           ok ? "ok" : "FAILED");
    sdk.endpointDestroy(client);
    sdk.endpointDestroy(server);
    sdk.sdkUninitialize();
    return ok ? 0 : 1;
}
