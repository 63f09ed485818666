/* Two endpoints talking SBP in one process, using nothing but the public header and
 * libzelcdbsdk.so.1 (loaded with dlopen, as an application that ships without a link-time
 * dependency would).
 *
 * The server endpoint offers "com.example.vehicle", an SBP service with five typed elements.
 * The client endpoint lists the server's services, starts that one, gets every element,
 * sets two of them, subscribes periodically and on change, cancels, sends Alive, and stops.
 * Every value travels encoded by the SBP serializer and is printed decoded by the
 * deserializer.
 *
 * Threads: each endpoint calls back on a thread of its own. The server answers from inside
 * its callbacks (the library queues those calls). The client's callbacks only copy what
 * arrives into a small queue, and main() walks through the exchange one step at a time. */
#define _POSIX_C_SOURCE 200809L /* clock_gettime, nanosleep, sockets */

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "zelcdbsdk.h"

static ZELCDBSDK sdk;

static void sleepMs(long ms) {
    struct timespec pause;
    pause.tv_sec = ms / 1000;
    pause.tv_nsec = (ms % 1000) * 1000000L;
    nanosleep(&pause, NULL);
}

/* ---- Names and UIDs ---------------------------------------------------------------- */

/* Every name the demo uses, elements and structure members alike. Peers agree on UIDs by
 * hashing the same names. */
enum {
    SPEED,       /* int, km/h */
    TEMPERATURE, /* double, degrees Celsius */
    DRIVER,      /* string */
    POSITION,    /* structure of the three below */
    LATITUDE,
    LONGITUDE,
    HEADING,
    TYRES, /* array of four floats, bar */
    NAME_COUNT
};
static const char *const names[NAME_COUNT] = {"vehicleSpeed", "outsideTemperature", "driverName",
                                              "position",     "latitude",           "longitude",
                                              "heading",      "tyrePressures"};
static uint32_t uids[NAME_COUNT];

static int nameOf(uint32_t uid) {
    int i;
    for (i = 0; i < NAME_COUNT; ++i) {
        if (uids[i] == uid) return i;
    }
    return -1;
}

/* ---- Decoding: the deserializer writes one readable line ------------------------- */

typedef struct {
    char text[512];
    size_t length;
    int first[8]; /* per nesting level: no separator needed yet */
    int depth;
    int inArray[8];
} Line;

static void append(Line *line, const char *format, ...) {
    va_list args;
    int n;
    if (line->length >= sizeof line->text) return;
    va_start(args, format);
    n = vsnprintf(line->text + line->length, sizeof line->text - line->length, format, args);
    va_end(args);
    if (n > 0) line->length += (size_t)n;
    if (line->length > sizeof line->text - 1) line->length = sizeof line->text - 1;
}

/* Writes the separator and, inside a structure or at top level, the value's name. */
static void label(Line *line, uint32_t uid) {
    int known = nameOf(uid);
    if (!line->first[line->depth]) append(line, ", ");
    line->first[line->depth] = 0;
    if (line->inArray[line->depth]) return;
    if (known >= 0) {
        append(line, line->depth == 0 ? "%s = " : "%s: ", names[known]);
    } else {
        append(line, line->depth == 0 ? "0x%08x = " : "0x%08x: ", (unsigned)uid);
    }
}

static void onInt(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid,
                  int32_t value) {
    (void)d, (void)context;
    label(userData, uid);
    append(userData, "%d", (int)value);
}

static void onShort(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid,
                    int16_t value) {
    (void)d, (void)context;
    label(userData, uid);
    append(userData, "%d", (int)value);
}

static void onFloat(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid,
                    float value) {
    (void)d, (void)context;
    label(userData, uid);
    append(userData, "%g", (double)value);
}

static void onDouble(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid,
                     double value) {
    (void)d, (void)context;
    label(userData, uid);
    append(userData, "%g", value);
}

static void onString(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid,
                     const char *utf8) {
    (void)d, (void)context;
    label(userData, uid);
    append(userData, "\"%s\"", utf8);
}

static void openContainer(Line *line, uint32_t uid, int array) {
    label(line, uid);
    append(line, array ? "[" : "{");
    if (line->depth < 7) ++line->depth;
    line->first[line->depth] = 1;
    line->inArray[line->depth] = array;
}

static void onStructureBegin(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid,
                             uint32_t memberCount) {
    (void)d, (void)context, (void)memberCount;
    openContainer(userData, uid, 0);
}

static void onArrayBegin(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid,
                         uint8_t elementType) {
    (void)d, (void)context, (void)elementType;
    openContainer(userData, uid, 1);
}

static void onEnd(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid) {
    Line *line = userData;
    (void)d, (void)context, (void)uid;
    append(line, line->inArray[line->depth] ? "]" : "}");
    if (line->depth > 0) --line->depth;
}

/* The decoded form of an SBP value, or a note of what went wrong. Both endpoints' threads
 * decode, so each call takes a deserializer of its own. */
static const char *decode(Line *line, const uint8_t *data, uint32_t size) {
    static const ZELSBPDeserializerCallbacks callbacks = {
        .shortCallback = onShort,
        .intCallback = onInt,
        .floatCallback = onFloat,
        .doubleCallback = onDouble,
        .stringCallback = onString,
        .structureBeginCallback = onStructureBegin,
        .arrayBeginCallback = onArrayBegin,
        .endCallback = onEnd};
    ZELSBPDeserializer *deserializer = NULL;
    ZELCDBError error;
    memset(line, 0, sizeof *line);
    line->first[0] = 1;
    error = sdk.deserializerCreate(&deserializer, NULL, &callbacks, sizeof callbacks);
    if (!error) error = sdk.deserializerDeserialize(deserializer, line, data, size);
    if (error)
        snprintf(line->text, sizeof line->text, "(undecodable: %s)", sdk.getErrorName(error));
    sdk.deserializerDestroy(deserializer);
    return line->text;
}

/* ---- The server: a vehicle service ------------------------------------------------- */

static struct {
    int32_t speed;
    double temperature;
    char driver[64];
    double latitude, longitude;
    int16_t heading;
    float tyres[4];
} vehicle = {88, 21.5, "Alex", 48.137, 11.575, 270, {2.3f, 2.3f, 2.5f, 2.5f}};

/* Active subscriptions of the server; touched only on the server's thread. */
static struct {
    uint32_t uid;
    uint32_t type;
} subscriptions[8];
static int subscriptionCount;

/* Encodes the element with that UID; returns 0 when it is not one of ours. */
static ZELSBPSerializer *encode(uint32_t uid) {
    ZELSBPSerializer *s = NULL;
    ZELCDBError error;
    int i;
    if (sdk.serializerCreate(&s)) return NULL;
    switch (nameOf(uid)) {
        case SPEED:
            error = sdk.serializerAddInt(s, uid, vehicle.speed);
            break;
        case TEMPERATURE:
            error = sdk.serializerAddDouble(s, uid, vehicle.temperature);
            break;
        case DRIVER:
            error = sdk.serializerAddString(s, uid, vehicle.driver, ZELSBP_NUL_TERMINATED);
            break;
        case POSITION:
            error = sdk.serializerBeginStructure(s, uid);
            if (!error) error = sdk.serializerAddDouble(s, uids[LATITUDE], vehicle.latitude);
            if (!error) error = sdk.serializerAddDouble(s, uids[LONGITUDE], vehicle.longitude);
            if (!error) error = sdk.serializerAddShort(s, uids[HEADING], vehicle.heading);
            if (!error) error = sdk.serializerEnd(s);
            break;
        case TYRES:
            /* An array of floats; elements carry no UID of their own. */
            error = sdk.serializerBeginArray(s, uid, ZELSBPTypeFloat);
            for (i = 0; i < 4 && !error; ++i)
                error = sdk.serializerAddFloat(s, 0, vehicle.tyres[i]);
            if (!error) error = sdk.serializerEnd(s);
            break;
        default:
            error = ZELCDBErrorNotFound;
    }
    if (error) {
        sdk.serializerDestroy(s);
        return NULL;
    }
    return s;
}

/* Answers a Get (ZELSBPCommandGet) or a periodic tick (ZELSBPCommandSubscribe) with the element's
 * value. */
static ZELCDBError sendValue(ZELCDBEndpoint *e, uint16_t service, uint32_t command, uint32_t uid) {
    const uint8_t *data;
    uint32_t size;
    ZELSBPSerializer *s = encode(uid);
    if (!s) return ZELCDBErrorNotFound;
    sdk.serializerGetData(s, &data, &size);
    sdk.sourceSendGetResponse(e, service, NULL, command, uid, ZELSBPResultSuccess, data, size);
    sdk.serializerDestroy(s); /* the library copied the bytes */
    return ZELCDBErrorNone;
}

static int32_t serverStart(ZELCDBEndpoint *e, void *endpointContext, uint16_t service, void *c,
                           uint8_t major, uint8_t minor) {
    (void)e, (void)endpointContext, (void)c;
    printf("  server: service 0x%04x started by the client (version %d.%d)\n", service, major,
           minor);
    return 0; /* accept */
}

static ZELCDBError serverGet(ZELCDBEndpoint *e, uint16_t service, void *c, uint32_t command,
                             uint32_t uid, uint32_t *result) {
    (void)c;
    if (sendValue(e, service, command, uid) == ZELCDBErrorNone) {
        return ZELCDBErrorNone; /* answered through sourceSendGetResponse */
    }
    *result = ZELSBPResultFailed;
    return ZELCDBErrorLocalSBPError; /* the library answers at once with *result */
}

/* Set takes new values for the scalars; the deserializer hands them to these. */
static void setInt(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid,
                   int32_t value) {
    (void)d, (void)uid;
    if (userData == &vehicle.speed) {
        vehicle.speed = value;
        *(int *)context = 1;
    }
}

static void setString(ZELSBPDeserializer *d, void *context, void *userData, uint32_t uid,
                      const char *utf8) {
    (void)d, (void)uid;
    if (userData == vehicle.driver) {
        snprintf(vehicle.driver, sizeof vehicle.driver, "%s", utf8);
        *(int *)context = 1;
    }
}

static ZELCDBError serverSet(ZELCDBEndpoint *e, uint16_t service, void *c, uint32_t uid,
                             const uint8_t *data, int32_t size, uint32_t *result) {
    ZELSBPDeserializerCallbacks callbacks = {0};
    ZELSBPDeserializer *reader = NULL;
    void *target = NULL;
    int applied = 0, i;
    Line line;
    (void)c;
    switch (nameOf(uid)) {
        case SPEED:
            target = &vehicle.speed;
            break;
        case DRIVER:
            target = vehicle.driver;
            break;
        default:
            break;
    }
    /* A value of the wrong type reaches no callback and so is not applied. */
    callbacks.intCallback = setInt;
    callbacks.stringCallback = setString;
    if (target && sdk.deserializerCreate(&reader, &applied, &callbacks, sizeof callbacks) == 0) {
        if (sdk.deserializerDeserialize(reader, target, data, (uint32_t)size)) applied = 0;
        sdk.deserializerDestroy(reader);
    }
    if (!applied) {
        *result = ZELSBPResultFailed;
        return ZELCDBErrorLocalSBPError;
    }
    printf("  server: Set %s\n", decode(&line, data, (uint32_t)size));
    /* On-change subscribers hear of it right after the Set is answered. */
    for (i = 0; i < subscriptionCount; ++i) {
        if (subscriptions[i].uid == uid && subscriptions[i].type == ZELSBPSubscribeOnChange) {
            sendValue(e, service, ZELSBPCommandSubscribe, uid);
        }
    }
    *result = ZELSBPResultSuccess;
    return ZELCDBErrorLocalSBPError; /* immediate success, no data */
}

static ZELCDBError serverSubscribe(ZELCDBEndpoint *e, uint16_t service, void *c, uint32_t uid,
                                   uint32_t *type, uint32_t *interval, uint32_t *result) {
    (void)e, (void)service, (void)c;
    if (nameOf(uid) < 0 || subscriptionCount == 8) {
        *result = ZELSBPResultFailed;
        return ZELCDBErrorLocalSBPError;
    }
    if (*type == ZELSBPSubscribeEither) *type = ZELSBPSubscribeOnChange;
    /* The library refuses an interval of 0 even where it means nothing. */
    if (*type == ZELSBPSubscribeOnChange && *interval == 0) *interval = 1000;
    subscriptions[subscriptionCount].uid = uid;
    subscriptions[subscriptionCount].type = *type;
    ++subscriptionCount;
    printf("  server: subscription to %s, %s\n", names[nameOf(uid)],
           *type == ZELSBPSubscribePeriodic ? "periodic" : "on change");
    *result = ZELSBPResultSuccess;
    return ZELCDBErrorLocalSBPError; /* accepted at once; periodic ticks call serverGet */
}

static void serverCancel(ZELCDBEndpoint *e, uint16_t service, void *c, uint32_t command,
                         uint32_t uid) {
    int i;
    (void)e, (void)service, (void)c;
    if (command != ZELSBPCommandSubscribe) return;
    for (i = 0; i < subscriptionCount; ++i) {
        if (subscriptions[i].uid == uid) {
            subscriptions[i] = subscriptions[--subscriptionCount];
            printf("  server: subscription to %s cancelled\n", names[nameOf(uid)]);
            return;
        }
    }
}

/* ---- The client's callbacks: copy into a queue for main() -------------------------- */

enum {
    EV_ENDED = 1, /* the client endpoint's thread ended */
    EV_SERVICES,
    EV_STATUS,
    EV_DATA,
    EV_SET_DONE,
    EV_SUBSCRIBED,
    EV_CANCELLED,
    EV_ERROR,
    EV_ALIVE
};

typedef struct {
    int kind;
    uint32_t a, b; /* command and uid; error and SBP result; service status; ... */
    uint8_t data[512];
    uint32_t size;
} Event;

static struct {
    pthread_mutex_t mutex;
    pthread_cond_t changed;
    Event events[32];
    int head, count;
    ZELCDBService services[8]; /* the server's services, names copied */
    char serviceNames[8][256];
    uint32_t serviceCount;
} inbox = {.mutex = PTHREAD_MUTEX_INITIALIZER, .changed = PTHREAD_COND_INITIALIZER};

static void post(int kind, uint32_t a, uint32_t b, const uint8_t *data, int32_t size) {
    Event *event;
    pthread_mutex_lock(&inbox.mutex);
    if (inbox.count < 32) {
        event = &inbox.events[(inbox.head + inbox.count++) % 32];
        memset(event, 0, sizeof *event);
        event->kind = kind;
        event->a = a;
        event->b = b;
        if (data && size > 0) {
            event->size = (uint32_t)size < sizeof event->data ? (uint32_t)size : sizeof event->data;
            memcpy(event->data, data, event->size);
        }
        pthread_cond_signal(&inbox.changed);
    }
    pthread_mutex_unlock(&inbox.mutex);
}

/* The next event, waiting up to two seconds; 0 when none came. */
static int next(Event *out) {
    struct timespec deadline;
    int got = 0;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 2;
    pthread_mutex_lock(&inbox.mutex);
    while (inbox.count == 0) {
        if (pthread_cond_timedwait(&inbox.changed, &inbox.mutex, &deadline) == ETIMEDOUT) break;
    }
    if (inbox.count > 0) {
        *out = inbox.events[inbox.head];
        inbox.head = (inbox.head + 1) % 32;
        --inbox.count;
        got = 1;
    }
    pthread_mutex_unlock(&inbox.mutex);
    return got;
}

static void clientStatus(ZELCDBEndpoint *e, void *context, int32_t status, ZELCDBError error) {
    (void)e, (void)context;
    if (status == ZELCDBStatusStopping) post(EV_ENDED, (uint32_t)error, 0, NULL, 0);
}

static void clientServices(ZELCDBEndpoint *e, void *context, uint8_t major, uint8_t minor,
                           const ZELCDBService *services, uint32_t serviceSize,
                           uint32_t serviceCount) {
    uint32_t i;
    (void)e, (void)context, (void)major, (void)minor, (void)serviceSize;
    pthread_mutex_lock(&inbox.mutex);
    /* The records and names are valid only during this call. */
    for (i = 0; i < serviceCount && inbox.serviceCount < 8; ++i) {
        uint32_t n = inbox.serviceCount++;
        inbox.services[n] = services[i];
        snprintf(inbox.serviceNames[n], sizeof inbox.serviceNames[n], "%s", services[i].name);
        inbox.services[n].name = inbox.serviceNames[n];
    }
    pthread_mutex_unlock(&inbox.mutex);
    post(EV_SERVICES, serviceCount, 0, NULL, 0);
}

static void sinkStatus(ZELCDBEndpoint *e, void *context, uint16_t service, void *c,
                       uint16_t status) {
    (void)e, (void)context, (void)service, (void)c;
    post(EV_STATUS, status, 0, NULL, 0);
}

static void sinkData(ZELCDBEndpoint *e, uint16_t service, void *c, void *request, uint32_t command,
                     uint32_t uid, const uint8_t *payload, int32_t size) {
    (void)e, (void)service, (void)c, (void)request;
    post(EV_DATA, command, uid, payload, size);
}

static void sinkSetDone(ZELCDBEndpoint *e, uint16_t service, void *c, void *request, uint32_t uid) {
    (void)e, (void)service, (void)c, (void)request;
    post(EV_SET_DONE, 0, uid, NULL, 0);
}

static void sinkSubscribed(ZELCDBEndpoint *e, uint16_t service, void *c, void *request,
                           uint32_t uid) {
    (void)e, (void)service, (void)c, (void)request;
    post(EV_SUBSCRIBED, 0, uid, NULL, 0);
}

static void sinkCancelled(ZELCDBEndpoint *e, uint16_t service, void *c, void *request,
                          uint32_t command, uint32_t uid) {
    (void)e, (void)service, (void)c, (void)request;
    post(EV_CANCELLED, command, uid, NULL, 0);
}

static void sinkError(ZELCDBEndpoint *e, uint16_t service, void *c, void *request, uint32_t command,
                      uint32_t uid, ZELCDBError error, uint32_t result) {
    (void)e, (void)service, (void)c, (void)request, (void)command, (void)uid;
    post(EV_ERROR, (uint32_t)error, result, NULL, 0);
}

static void sinkAlive(ZELCDBEndpoint *e, uint16_t service, void *c, void *request) {
    (void)e, (void)service, (void)c, (void)request;
    post(EV_ALIVE, 0, 0, NULL, 0);
}

/* ---- The client's steps ------------------------------------------------------------- */

static const char *const eventNames[] = {"",      "endpoint ended", "services",   "status",
                                         "data",  "set done",       "subscribed", "cancelled",
                                         "error", "alive"};

/* Waits for an event of that kind. Subscription updates that are still on their way when
 * something else is awaited are passed over, and so is the "cancelled" answer that a
 * cancelled subscription receives before the Cancel itself is answered. */
static int expect(int kind, Event *event) {
    while (next(event)) {
        if (event->kind == kind) return 1;
        if (event->kind == EV_DATA && event->a == ZELSBPCommandSubscribe) continue;
        if (event->kind == EV_ERROR && event->b == ZELSBPResultCancelled) continue;
        if (event->kind == EV_ERROR) {
            printf("client: request failed: %s, SBP result 0x%08x\n",
                   sdk.getErrorName((ZELCDBError)event->a), (unsigned)event->b);
        } else {
            printf("client: expected %s, got %s\n", eventNames[kind], eventNames[event->kind]);
        }
        return 0;
    }
    printf("client: no %s within two seconds\n", eventNames[kind]);
    return 0;
}

static ZELCDBEndpoint *client;
static uint16_t vehicleService;

static int get(int element) {
    Event event;
    Line line;
    sdk.sinkSendGet(client, vehicleService, NULL, uids[element]);
    do {
        if (!expect(EV_DATA, &event)) return 0;
    } while (event.a != ZELSBPCommandGet);
    printf("client: Get       %s\n", decode(&line, event.data, event.size));
    return 1;
}

/* Sets an element to the value that the serializer holds. */
static int set(int element, ZELSBPSerializer *value) {
    Event event;
    Line line;
    const uint8_t *data;
    uint32_t size;
    int done;
    sdk.serializerGetData(value, &data, &size);
    printf("client: Set       %s\n", decode(&line, data, size));
    sdk.sinkSendSet(client, vehicleService, NULL, uids[element], data, size);
    sdk.serializerDestroy(value);
    done = expect(EV_SET_DONE, &event);
    if (done) printf("client: Set done\n");
    return done;
}

static int subscribe(int element, uint32_t type, uint32_t interval) {
    Event event;
    sdk.sinkSendSubscribe(client, vehicleService, NULL, uids[element], type, interval);
    if (!expect(EV_SUBSCRIBED, &event)) return 0;
    if (type == ZELSBPSubscribePeriodic) {
        printf("client: subscribed to %s every %u ms\n", names[element], (unsigned)interval);
    } else {
        printf("client: subscribed to %s on change\n", names[element]);
    }
    return 1;
}

static int update(void) {
    Event event;
    Line line;
    if (!expect(EV_DATA, &event)) return 0;
    printf("client: update    %s\n", decode(&line, event.data, event.size));
    return 1;
}

static int cancel(int element) {
    Event event;
    sdk.sinkSendCancel(client, vehicleService, NULL, uids[element], ZELSBPCommandSubscribe);
    if (!expect(EV_CANCELLED, &event)) return 0;
    printf("client: subscription to %s cancelled\n", names[element]);
    return 1;
}

/* Connects, retrying while the server is not yet listening, and finds the vehicle
 * service among those the server offers. */
static int connectClient(void) {
    Event event;
    uint32_t i;
    int attempt;
    event.kind = 0;
    for (attempt = 0; attempt < 40; ++attempt) {
        /* After a refused connection (status 3), a new start waits for the ended thread. */
        if (sdk.endpointStart(client)) return 0;
        if (!next(&event) || event.kind != EV_ENDED) break;
        sleepMs(50); /* refused: the server's thread has not bound its socket yet */
    }
    if (event.kind != EV_SERVICES) {
        printf("client: could not connect\n");
        return 0;
    }
    printf("client: connected; the server offers %u service(s):\n", (unsigned)event.a);
    pthread_mutex_lock(&inbox.mutex);
    for (i = 0; i < inbox.serviceCount; ++i) {
        const ZELCDBService *s = &inbox.services[i];
        printf("          0x%04x %s %d.%d, attribute 0x%02x, access control 0x%02x\n", s->serviceId,
               s->name, s->versionMajor, s->versionMinor, (unsigned)(s->serviceAttribute & 0xFF),
               (unsigned)(s->accessControl & 0xFF));
        if (strcmp(s->name, "com.example.vehicle") == 0) vehicleService = s->serviceId;
    }
    pthread_mutex_unlock(&inbox.mutex);
    return vehicleService != 0;
}

static int startService(void) {
    static const ZELSBPSinkCallbacks callbacks = {.serviceStatusCallback = sinkStatus,
                                                  .dataCallback = sinkData,
                                                  .setDoneCallback = sinkSetDone,
                                                  .subscribedCallback = sinkSubscribed,
                                                  .cancelledCallback = sinkCancelled,
                                                  .errorCallback = sinkError,
                                                  .aliveResponseCallback = sinkAlive};
    Event event;
    /* The sink must exist before the start is answered: its status callback reports it. */
    if (sdk.sinkCreate(client, NULL, vehicleService, &callbacks, sizeof callbacks)) return 0;
    sdk.endpointSendStartService(client, vehicleService);
    if (!expect(EV_STATUS, &event)) return 0;
    if (event.a != ZELCDBServiceResponseStarted) {
        printf("client: the server refused to start the service (response 0x%04x)\n",
               (unsigned)event.a);
        return 0;
    }
    printf("client: service 0x%04x started\n", vehicleService);
    return 1;
}

static int exchange(void) {
    ZELSBPSerializer *value;
    Event event;
    int i;
    if (!connectClient() || !startService()) return 0;
    if (!get(SPEED) || !get(TEMPERATURE) || !get(DRIVER) || !get(POSITION) || !get(TYRES)) {
        return 0;
    }

    if (sdk.serializerCreate(&value)) return 0;
    sdk.serializerAddInt(value, uids[SPEED], 95);
    if (!set(SPEED, value) || !get(SPEED)) return 0;

    if (!subscribe(SPEED, ZELSBPSubscribePeriodic, 100)) return 0;
    for (i = 0; i < 3; ++i) {
        if (!update()) return 0;
    }
    if (!cancel(SPEED)) return 0;

    if (!subscribe(DRIVER, ZELSBPSubscribeOnChange, 0)) return 0;
    if (sdk.serializerCreate(&value)) return 0;
    sdk.serializerAddString(value, uids[DRIVER], "Sam", ZELSBP_NUL_TERMINATED);
    if (!set(DRIVER, value) || !update() || !cancel(DRIVER)) return 0;

    sdk.sinkSendAlive(client, vehicleService, NULL, 0);
    if (!expect(EV_ALIVE, &event)) return 0;
    printf("client: Alive answered\n");
    return 1;
}

/* ---- Set-up and tear-down -------------------------------------------------------- */

/* A loopback port that nothing listens on right now. */
static int freePort(void) {
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    int port = 0, fd = socket(AF_INET, SOCK_STREAM, 0);
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && bind(fd, (struct sockaddr *)&address, sizeof address) == 0 &&
        getsockname(fd, (struct sockaddr *)&address, &length) == 0) {
        port = ntohs(address.sin_port);
    }
    if (fd >= 0) close(fd);
    return port;
}

static ZELCDBEndpoint *server;
static pthread_mutex_t serverMutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t serverEnded = PTHREAD_COND_INITIALIZER;
static int serverRunning;

static void serverStatus(ZELCDBEndpoint *e, void *context, int32_t status, ZELCDBError error) {
    (void)e, (void)context, (void)error;
    if (status != ZELCDBStatusStopping) return;
    pthread_mutex_lock(&serverMutex);
    serverRunning = 0;
    pthread_cond_signal(&serverEnded);
    pthread_mutex_unlock(&serverMutex);
}

static int createEndpoints(const char *url) {
    static const ZELSBPSourceCallbacks source = {.serviceStartCallback = serverStart,
                                                 .getCallback = serverGet,
                                                 .setCallback = serverSet,
                                                 .subscribeCallback = serverSubscribe,
                                                 .cancelCallback = serverCancel};
    ZELCDBEndpointParameters parameters = {0};
    ZELCDBEndpointCallbacks callbacks = {0};
    ZELCDBService service = {0};

    parameters.url = url;
    parameters.versionMajor = 1; /* CDB 1.1 */
    parameters.versionMinor = 1;

    parameters.mode = ZELCDBEndpointModeServer;
    callbacks.statusCallback = serverStatus;
    if (sdk.endpointCreate(&server, &parameters, sizeof parameters, &callbacks, sizeof callbacks)) {
        return 0;
    }
    service.name = "com.example.vehicle";
    service.versionMajor = 1;
    service.versionMinor = 0;
    if (sdk.sourceCreate(server, NULL, &service, sizeof service, &source, sizeof source)) return 0;
    printf("server: offers %s %d.%d as service 0x%04x on %s\n", service.name, service.versionMajor,
           service.versionMinor, service.serviceId, url);

    parameters.mode = ZELCDBEndpointModeClient;
    callbacks.statusCallback = clientStatus;
    callbacks.peerServicesAddedCallback = clientServices;
    return sdk.endpointCreate(&client, &parameters, sizeof parameters, &callbacks,
                              sizeof callbacks) == ZELCDBErrorNone;
}

static int run(void) {
    char url[64];
    struct timespec deadline;
    int i, ok, port = freePort();

    for (i = 0; i < NAME_COUNT; ++i) uids[i] = sdk.hashName(names[i], ZELSBP_NUL_TERMINATED);
    if (!port) return 0;
    snprintf(url, sizeof url, "cdb://127.0.0.1:%d", port);
    serverRunning = 1;
    ok = createEndpoints(url) && sdk.endpointStart(server) == ZELCDBErrorNone && exchange();

    /* Stopping the client says ByeBye; the server's session ends when the client has gone.
     * The server is stopped only if it is still running after a second. */
    if (client && sdk.endpointStop(client) == ZELCDBErrorNone) printf("client: stopped\n");
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 1;
    pthread_mutex_lock(&serverMutex);
    while (serverRunning) {
        if (pthread_cond_timedwait(&serverEnded, &serverMutex, &deadline) == ETIMEDOUT) break;
    }
    pthread_mutex_unlock(&serverMutex);
    if (!serverRunning) printf("server: the client has left\n");
    if (client) sdk.endpointDestroy(client); /* also stops an endpoint still running */
    if (server) sdk.endpointDestroy(server);
    printf("server: stopped\n");
    return ok;
}

int main(int argc, char **argv) {
    const char *path = argc > 1 ? argv[1] : "libzelcdbsdk.so.1";
    ZELCDBSDKInitializeFn *initialize;
    void *library;
    int ok;

    setvbuf(stdout, NULL, _IOLBF, 0);
    library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        fprintf(stderr, "cannot load %s: %s\n", path, dlerror());
        return 1;
    }
    initialize = (ZELCDBSDKInitializeFn *)dlsym(library, "ZELCDBSDKInitialize");
    if (!initialize || initialize(&sdk, (uint32_t)sizeof sdk) != ZELCDBErrorNone) {
        fprintf(stderr, "%s: no usable ZELCDBSDKInitialize\n", path);
        return 1;
    }
    if (!sdk.endpointCreate || !sdk.sourceCreate || !sdk.sinkCreate || !sdk.sinkSendAlive) {
        fprintf(stderr, "%s does not provide endpoints and SBP services\n", path);
        return 1;
    }
    printf("libzelcdbsdk %u.%u.%u.%u\n", (unsigned)sdk.versionMajor, (unsigned)sdk.versionMinor,
           (unsigned)sdk.versionPatch, (unsigned)sdk.versionBuild);
    ok = run();
    sdk.sdkUninitialize();
    /* Not unloaded: the library carries its own C++ runtime, whose process-wide buffers are
     * meant to live until the process ends. */
    printf(ok ? "done\n" : "failed\n");
    return ok ? 0 : 1;
}
