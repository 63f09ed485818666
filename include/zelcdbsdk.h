/*
 * libzelcdbsdk: the Common Data Bus (CDB) and Service Binary Protocol (SBP) SDK.
 *
 * The library exports one function, ZELCDBSDKInitialize, which fills a ZELCDBSDK table of
 * version words and function pointers. Everything else is reached through that table.
 *
 * Conventions that hold for every entry below:
 *  - Errors. Functions that return ZELCDBError return ZELCDBErrorNone (0) on success and one
 *    of the ZELCDBError constants otherwise; no other value is ever returned and no C++
 *    exception ever leaves the library. ZELCDBGetErrorName gives each code's name.
 *  - Records and callback tables come with their size in bytes (sizeof of the caller's
 *    struct). A record smaller than the fields a function reads is InvalidParameter.
 *    Callback tables are copied up to min(size, sizeof(table)), in whole entries; callbacks
 *    beyond the given size, and NULL callbacks, are simply never called.
 *  - Contexts are opaque void * words: the library never dereferences them and hands them
 *    back unchanged.
 *  - Buffers passed in are borrowed for the duration of the call; the library copies what
 *    it keeps. Buffers handed to callbacks are valid only during the callback.
 *  - Threads. Every endpoint runs one thread of its own; all endpoint, sink and source
 *    callbacks are called on it (logCallback also on the thread of an entry that logs).
 *    Entries may be called from any thread, including from inside callbacks, in which case
 *    the work is queued and performed after the callback returns, in the order of the calls.
 *    From inside a callback of the same endpoint:
 *      ZELCDBEndpointStop starts the orderly stop and returns ZELCDBErrorNone at once; the
 *      endpoint thread ends after the callback returns (statusCallback 3 follows), and the
 *      next ZELCDBEndpointStart, ZELCDBEndpointStop or ZELCDBEndpointDestroy joins it.
 *      ZELCDBEndpointDestroy returns IllegalWhileRunning, logs one error line and destroys
 *      nothing: the endpoint cannot delete itself under its own thread.
 *      ZELCDBEndpointStart and ZELCDBEndpointAddSourceService return IllegalWhileRunning.
 *    ZELCDBEndpointStart returns once the new thread has initialised, so a running-only
 *    call made right after it is accepted; statusCallback 1 still comes from the thread.
 *    Called from another thread while the endpoint thread is ending by itself (status 3
 *    reported or being reported), it waits for that thread and starts a new one, so an
 *    application that reconnects on status 3 never has to retry. Start and Stop may be
 *    called from several threads at once: they take turns, and a Stop that finds the
 *    endpoint already stopped returns IllegalWhileNotRunning.
 *    Serializers and deserializers run on the calling thread and are not locked: use one
 *    from one thread at a time.
 *  - Ownership. The application destroys what it creates (endpoints, serializers,
 *    deserializers), all before ZELCDBSDKUninitialize. Sinks and sources belong to their
 *    endpoint.
 */
#ifndef ZELCDBSDK_H
#define ZELCDBSDK_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Error codes ------------------------------------------------------------------ */

/* The one table of error codes: X(name, value). The constants below, the name function
 * and the tests are all generated from it. */
#define ZELCDB_ERROR_MAP(X)                      \
    X(None, 0)                                   \
    X(Failed, 1)                                 \
    X(InvalidParameter, 2)                       \
    X(OutOfMemory, 3)                            \
    X(UnsupportedVersion, 4)                     \
    X(NetworkError, 5)                           \
    X(IllegalWhileRunning, 6)                    \
    X(IllegalWhileNotRunning, 7)                 \
    X(NotFound, 10)                              \
    X(InvalidProtocol, 11)                       \
    X(Timeout, 12)                               \
    X(LocalSBPError, 13)                         \
    X(RemoteSBPError, 14)                        \
    X(InvalidSBPPacket, 15)                      \
    X(SBPSerializeIncomplete, 100)               \
    X(SBPSerializeComplete, 101)                 \
    X(SBPSerializeUnexpectedEnd, 102)            \
    X(SBPSerializeUnexpectedUID, 103)            \
    X(SBPSerializeUnexpectedType, 104)           \
    X(SBPDeserializeCallbackNotImplemented, 200) \
    X(SBPDeserializeInputTruncated, 201)         \
    X(SBPDeserializeInputTooLong, 202)           \
    X(SBPDeserializeInputMalformed, 203)

typedef int32_t ZELCDBError;

#define ZELCDB_ERROR_ENUM_ENTRY_(name, value) ZELCDBError##name = value,
enum { ZELCDB_ERROR_MAP(ZELCDB_ERROR_ENUM_ENTRY_) };
#undef ZELCDB_ERROR_ENUM_ENTRY_

/* ---- Handles, constants and records -------------------------------------------------- */

typedef struct ZELCDBEndpoint ZELCDBEndpoint;         /* opaque */
typedef struct ZELSBPSerializer ZELSBPSerializer;     /* opaque */
typedef struct ZELSBPDeserializer ZELSBPDeserializer; /* opaque */

enum { ZELCDBEndpointModeClient = 1, ZELCDBEndpointModeServer = 2 };
enum { ZELCDBStatusStarted = 1, ZELCDBStatusConnected = 2, ZELCDBStatusStopping = 3 };
enum { ZELCDBLogError = 0, ZELCDBLogWarning = 10, ZELCDBLogInfo = 30, ZELCDBLogDebug = 100 };

/* Length argument meaning "up to the terminating zero byte". */
#define ZELSBP_NUL_TERMINATED ((uint32_t)0xFFFFFFFFu)

/* Read by ZELCDBEndpointCreate; the size passed must cover versionMinor. */
typedef struct {
    const char *url;      /* "scheme://host[:port][/...]", host numeric (IPv4) */
    int32_t mode;         /* ZELCDBEndpointModeClient or ZELCDBEndpointModeServer */
    void *context;        /* handed back to every endpoint callback */
    uint8_t versionMajor; /* CDB version requested: only 1.1 is supported */
    uint8_t versionMinor;
} ZELCDBEndpointParameters;

/* A service: registered by the application (serviceId is written back), or reported by
 * the peer (valid only during the callback that reports it). */
typedef struct {
    uint16_t serviceId;
    const char *name; /* at most 255 bytes */
    uint8_t versionMajor;
    uint8_t versionMinor;
    uint32_t serviceAttribute; /* low 8 bits advertised, never interpreted */
    uint32_t accessControl;    /* low 8 bits carried by every payload of the service */
} ZELCDBService;

/* ---- Callback tables (every member may be NULL) ------------------------------------ */

typedef struct {
    /* Every log line of the endpoint; category names the component ("CDBEndpoint", ...). */
    void (*logCallback)(ZELCDBEndpoint *endpoint, void *context, const char *category,
                        int32_t level, const char *text);
    /* ZELCDBStatusStarted / Connected with error 0; ZELCDBStatusStopping with the error that
     * ended the endpoint thread (0 for an orderly stop). */
    void (*statusCallback)(ZELCDBEndpoint *endpoint, void *context, int32_t status,
                           ZELCDBError error);
    /* After every ServicesSupported: first the removed peer services, then the added ones,
     * both even when empty. services is NULL when serviceCount is 0. */
    void (*peerServicesAddedCallback)(ZELCDBEndpoint *endpoint, void *context, uint8_t versionMajor,
                                      uint8_t versionMinor, const ZELCDBService *services,
                                      uint32_t serviceSize, uint32_t serviceCount);
    void (*peerServicesRemovedCallback)(ZELCDBEndpoint *endpoint, void *context,
                                        uint8_t versionMajor, uint8_t versionMinor,
                                        const ZELCDBService *services, uint32_t serviceSize,
                                        uint32_t serviceCount);
    /* The peer did not answer our ServicesRequest within five seconds. */
    void (*servicesRequestTimeoutCallback)(ZELCDBEndpoint *endpoint, void *context);
} ZELCDBEndpointCallbacks;

/* A plain CDB source service offered by this endpoint. */
typedef struct {
    void (*startCallback)(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                          void *serviceContext, uint8_t versionMajor, uint8_t versionMinor);
    void (*stopCallback)(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                         void *serviceContext);
    void (*payloadCallback)(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                            void *serviceContext, const uint8_t *data, uint32_t length);
} ZELCDBSourceServiceCallbacks;

/* A plain CDB sink on a service offered by the peer. */
typedef struct {
    void (*payloadCallback)(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                            void *sinkContext, const uint8_t *data, uint32_t length);
    void (*responseCallback)(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                             void *sinkContext, uint16_t response);
} ZELCDBSinkCallbacks;

/* An SBP sink. E = endpoint, S = peer service ID, C = sink context.
 * When the connection ends, an active sink gets serviceStatusCallback with status 2 (as if
 * the peer had stopped the service) and every request it had outstanding is dropped without
 * a further callback: nothing owed by the old link can arrive, and a request left pending
 * would refuse every later one for its element. The sink ends with the connection. */
typedef struct {
    void (*serviceStatusCallback)(ZELCDBEndpoint *E, void *endpointContext, uint16_t S, void *C,
                                  uint16_t status);
    void (*dataCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext,
                         uint32_t command, uint32_t uid, const uint8_t *payload, int32_t size);
    void (*setDoneCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext,
                            uint32_t uid);
    void (*subscribedCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext,
                               uint32_t uid);
    void (*cancelledCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext,
                              uint32_t cancelledCommand, uint32_t uid);
    void (*errorCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext,
                          uint32_t command, uint32_t uid, ZELCDBError error, uint32_t sbpResult);
    void (*authChallengeCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext,
                                  uint32_t command, uint32_t uid, const uint8_t *challenge,
                                  int32_t size);
    void (*aliveResponseCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext);
} ZELSBPSinkCallbacks;

/* An SBP source. E = endpoint, S = local service ID, C = source context.
 * When the connection ends, a started source gets serviceStopCallback (its result is
 * ignored; nothing is sent) and its outstanding requests and subscriptions are dropped, so
 * that the next peer starts the service afresh instead of finding its elements "already
 * pending". The source itself stays registered. */
typedef struct {
    int32_t (*serviceStartCallback)(ZELCDBEndpoint *E, void *endpointContext, uint16_t S, void *C,
                                    uint8_t versionMajor, uint8_t versionMinor);
    int32_t (*serviceStopCallback)(ZELCDBEndpoint *E, void *endpointContext, uint16_t S, void *C);
    void (*serviceTerminatedCallback)(ZELCDBEndpoint *E, uint16_t S, void *C);
    ZELCDBError (*getCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, uint32_t command,
                               uint32_t uid, uint32_t *result);
    ZELCDBError (*setCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, uint32_t uid,
                               const uint8_t *data, int32_t size, uint32_t *result);
    ZELCDBError (*subscribeCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, uint32_t uid,
                                     uint32_t *type, uint32_t *interval, uint32_t *result);
    void (*cancelCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, uint32_t cancelledCommand,
                           uint32_t uid);
    void (*authResponseCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext,
                                 uint32_t command, uint32_t uid, uint32_t sinkResult,
                                 const uint8_t *data, int32_t size);
    void (*reserved)(void);
} ZELSBPSourceCallbacks;

/* SBP data deserializer. D = deserializer, then its context, the deserialize call's user
 * data and the value's UID (0 for array elements). Pointers are valid during the call. */
typedef struct {
    void (*booleanCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                            int32_t value);
    void (*byteCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                         int8_t value);
    void (*shortCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                          int16_t value);
    void (*intCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                        int32_t value);
    void (*longCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                         int64_t value);
    void (*floatCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                          float value);
    void (*doubleCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                           double value);
    void (*bytesCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                          const uint8_t *data, uint32_t length);
    void (*stringCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                           const char *utf8);
    void (*structureBeginCallback)(ZELSBPDeserializer *D, void *context, void *userData,
                                   uint32_t uid, uint32_t memberCount);
    void (*arrayBeginCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                               uint8_t elementType);
    void (*endCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid);
} ZELSBPDeserializerCallbacks;

/* ---- Function types of the table's entries ------------------------------------------ */

/* Undoes the process-wide set-up; call after destroying every object. */
typedef void ZELCDBSDKUninitializeFn(void);
/* Name of an error code ("None", "Failed", ...); NULL for a value that is not a code. */
typedef const char *ZELCDBGetErrorNameFn(ZELCDBError error);
/* Creates an endpoint (not yet running). On failure *endpoint is NULL. Logs the version
 * banner as its first log line before returning. InvalidParameter: a NULL pointer, a
 * parametersSize that does not cover versionMinor, a mode other than client or server, a
 * URL that does not parse; UnsupportedVersion: a CDB version other than 1.1. */
typedef ZELCDBError ZELCDBEndpointCreateFn(ZELCDBEndpoint **endpoint,
                                           const ZELCDBEndpointParameters *parameters,
                                           uint32_t parametersSize,
                                           const ZELCDBEndpointCallbacks *callbacks,
                                           uint32_t callbacksSize);
/* Stops a running endpoint as ZELCDBEndpointStop does, then frees it. OutOfMemory when the
 * stop cannot be posted (the endpoint is kept). */
typedef ZELCDBError ZELCDBEndpointDestroyFn(ZELCDBEndpoint *endpoint);
/* Registers a plain CDB source service; not while running (IllegalWhileRunning). The
 * assigned ID is written to service->serviceId: IDs run from 1 on a client and from 0x4001
 * on a server, in registration order, and are never reused. A name longer than 255 bytes is
 * InvalidParameter. Failed, with one error line, beyond 16383 services or when one
 * ServicesSupported could no longer list them all (4 bytes, then 7 plus the name's length
 * per service, at most 65535). A refused registration consumes no ID. */
typedef ZELCDBError ZELCDBEndpointAddSourceServiceFn(ZELCDBEndpoint *endpoint, void *serviceContext,
                                                     ZELCDBService *service, uint32_t serviceSize,
                                                     const ZELCDBSourceServiceCallbacks *callbacks,
                                                     uint32_t callbacksSize);
/* Attaches a plain CDB sink to a peer service; only while running. Returns None also when
 * the peer does not offer the service: the log says so when the sink is attached. Sinks
 * last as long as the connection. */
typedef ZELCDBError ZELCDBEndpointAddSinkFn(ZELCDBEndpoint *endpoint, void *sinkContext,
                                            uint16_t serviceId,
                                            const ZELCDBSinkCallbacks *callbacks,
                                            uint32_t callbacksSize);
/* Starts the endpoint thread and returns once it has initialised; Failed, with one log
 * line, when it could not. IllegalWhileRunning while the endpoint runs (see Threads above
 * for a thread that is ending by itself). A server endpoint serves one peer at a time: it
 * stops listening when a peer connects, so others are refused or reset until that
 * connection ends and the endpoint is started again. */
typedef ZELCDBError ZELCDBEndpointStartFn(ZELCDBEndpoint *endpoint);
/* Ends the connection and waits for the endpoint thread to end. A connected peer gets a
 * ByeBye and up to five seconds to answer it. IllegalWhileNotRunning when not running. */
typedef ZELCDBError ZELCDBEndpointStopFn(ZELCDBEndpoint *endpoint);
/* Send a CDB StartService / StopService for a peer service; only while running. */
typedef ZELCDBError ZELCDBEndpointSendStartServiceFn(ZELCDBEndpoint *endpoint, uint16_t serviceId);
typedef ZELCDBError ZELCDBEndpointSendStopServiceFn(ZELCDBEndpoint *endpoint, uint16_t serviceId);
/* Sends a CDB ServicePayload of at most 8100 bytes (more is InvalidParameter, whatever
 * else is wrong); only while running. The bytes are copied before the call returns. */
typedef ZELCDBError ZELCDBEndpointSendServicePayloadFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                                       const uint8_t *data, uint32_t length);
/* Sends a CDB ServiceResponse; only while running. */
typedef ZELCDBError ZELCDBEndpointSendServiceResponseFn(ZELCDBEndpoint *endpoint,
                                                        uint16_t serviceId, uint16_t response);
/* The context given at creation; NULL for a NULL handle. */
typedef void *ZELCDBEndpointGetContextFn(ZELCDBEndpoint *endpoint);
/* Creates an SBP source and registers it as a local service; not while running. */
typedef ZELCDBError ZELSBPSourceCreateFn(ZELCDBEndpoint *endpoint, void *sourceContext,
                                         ZELCDBService *service, uint32_t serviceSize,
                                         const ZELSBPSourceCallbacks *callbacks,
                                         uint32_t callbacksSize);
/* Creates an SBP sink on a peer service; only while running. */
typedef ZELCDBError ZELSBPSinkCreateFn(ZELCDBEndpoint *endpoint, void *sinkContext,
                                       uint16_t serviceId, const ZELSBPSinkCallbacks *callbacks,
                                       uint32_t callbacksSize);
/* UID of an element name; length ZELSBP_NUL_TERMINATED measures the name. */
typedef uint32_t ZELSBPHashNameFn(const char *name, uint32_t length);

/* Serializer: build one SBP data payload, then read it with GetData (valid until Destroy). */
typedef ZELCDBError ZELSBPSerializerCreateFn(ZELSBPSerializer **serializer);
typedef ZELCDBError ZELSBPSerializerDestroyFn(ZELSBPSerializer *serializer);
typedef ZELCDBError ZELSBPSerializerGetDataFn(ZELSBPSerializer *serializer, const uint8_t **data,
                                              uint32_t *length);
typedef ZELCDBError ZELSBPSerializerAddBooleanFn(ZELSBPSerializer *serializer, uint32_t uid,
                                                 int32_t value);
typedef ZELCDBError ZELSBPSerializerAddByteFn(ZELSBPSerializer *serializer, uint32_t uid,
                                              int8_t value);
typedef ZELCDBError ZELSBPSerializerAddShortFn(ZELSBPSerializer *serializer, uint32_t uid,
                                               int16_t value);
typedef ZELCDBError ZELSBPSerializerAddIntFn(ZELSBPSerializer *serializer, uint32_t uid,
                                             int32_t value);
typedef ZELCDBError ZELSBPSerializerAddLongFn(ZELSBPSerializer *serializer, uint32_t uid,
                                              int64_t value);
typedef ZELCDBError ZELSBPSerializerAddFloatFn(ZELSBPSerializer *serializer, uint32_t uid,
                                               float value);
typedef ZELCDBError ZELSBPSerializerAddDoubleFn(ZELSBPSerializer *serializer, uint32_t uid,
                                                double value);
typedef ZELCDBError ZELSBPSerializerAddBytesFn(ZELSBPSerializer *serializer, uint32_t uid,
                                               const uint8_t *data, uint32_t length);
/* length in UTF-8 bytes, or ZELSBP_NUL_TERMINATED. */
typedef ZELCDBError ZELSBPSerializerAddStringFn(ZELSBPSerializer *serializer, uint32_t uid,
                                                const char *utf8, uint32_t length);
typedef ZELCDBError ZELSBPSerializerBeginValueListFn(ZELSBPSerializer *serializer);
typedef ZELCDBError ZELSBPSerializerBeginStructureFn(ZELSBPSerializer *serializer, uint32_t uid);
typedef ZELCDBError ZELSBPSerializerBeginArrayFn(ZELSBPSerializer *serializer, uint32_t uid,
                                                 uint8_t elementType);
typedef ZELCDBError ZELSBPSerializerEndFn(ZELSBPSerializer *serializer);

/* Deserializer: walks SBP data and reports it through the callbacks, on the calling thread. */
typedef ZELCDBError ZELSBPDeserializerCreateFn(ZELSBPDeserializer **deserializer, void *context,
                                               const ZELSBPDeserializerCallbacks *callbacks,
                                               uint32_t callbacksSize);
typedef ZELCDBError ZELSBPDeserializerDestroyFn(ZELSBPDeserializer *deserializer);
typedef void *ZELSBPDeserializerGetContextFn(ZELSBPDeserializer *deserializer);
typedef ZELCDBError ZELSBPDeserializerDeserializeFn(ZELSBPDeserializer *deserializer,
                                                    void *userData, const uint8_t *data,
                                                    uint32_t length);
typedef ZELCDBError ZELSBPDeserializerDeserializeValueListFn(ZELSBPDeserializer *deserializer,
                                                             void *userData, const uint8_t *data,
                                                             uint32_t length);

/* SBP sink requests; answers arrive through the sink's callbacks. Only while running. Here
 * and in the source answers, data must fit one ServicePayload with its packet: at most 8084
 * bytes (more is InvalidParameter, and nothing is sent). */
typedef ZELCDBError ZELSBPSinkSendGetFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                        void *requestContext, uint32_t uid);
typedef ZELCDBError ZELSBPSinkSendSetFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                        void *requestContext, uint32_t uid, const uint8_t *data,
                                        uint32_t size);
/* interval below 0x1000000 ms. */
typedef ZELCDBError ZELSBPSinkSendSubscribeFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                              void *requestContext, uint32_t uid, uint32_t type,
                                              uint32_t interval);
typedef ZELCDBError ZELSBPSinkSendCancelFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                           void *requestContext, uint32_t uid, uint32_t command);
typedef ZELCDBError ZELSBPSinkSendServiceAuthResponseFn(ZELCDBEndpoint *endpoint,
                                                        uint16_t serviceId, void *requestContext,
                                                        uint32_t command, uint32_t uid,
                                                        uint32_t result, const uint8_t *data,
                                                        uint32_t size);

/* SBP source answers; only while running. result 0x10000000 is InvalidParameter. */
typedef ZELCDBError ZELSBPSourceSendGetResponseFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                                  void *requestContext, uint32_t command,
                                                  uint32_t uid, uint32_t result,
                                                  const uint8_t *data, uint32_t size);
typedef ZELCDBError ZELSBPSourceSendSetResponseFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                                  void *requestContext, uint32_t uid,
                                                  uint32_t result);
typedef ZELCDBError ZELSBPSourceSendSubscribeResponseFn(ZELCDBEndpoint *endpoint,
                                                        uint16_t serviceId, void *requestContext,
                                                        uint32_t uid, uint32_t result);
typedef ZELCDBError ZELSBPSourceSendServiceAuthChallengeFn(ZELCDBEndpoint *endpoint,
                                                           uint16_t serviceId, void *requestContext,
                                                           uint32_t command, uint32_t uid,
                                                           const uint8_t *data, uint32_t size);
typedef ZELCDBError ZELSBPSinkSendAliveFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                          void *requestContext, int32_t intervalSeconds);

/* ---- The SDK function table ------------------------------------------------------- */

/* Filled by ZELCDBSDKInitialize. Entries that this build of the library does not provide
 * are NULL; check an entry before calling it. */
typedef struct {
    uint32_t versionMajor;
    uint32_t versionMinor;
    uint32_t versionPatch;
    uint32_t versionBuild;
    ZELCDBSDKUninitializeFn *sdkUninitialize;                                   /* slot 4 */
    ZELCDBGetErrorNameFn *getErrorName;                                         /* slot 5 */
    ZELCDBEndpointCreateFn *endpointCreate;                                     /* slot 6 */
    ZELCDBEndpointDestroyFn *endpointDestroy;                                   /* slot 7 */
    void *reserved8;                                                            /* never written */
    ZELCDBEndpointAddSourceServiceFn *endpointAddSourceService;                 /* slot 9 */
    ZELCDBEndpointAddSinkFn *endpointAddSink;                                   /* slot 10 */
    ZELCDBEndpointStartFn *endpointStart;                                       /* slot 11 */
    ZELCDBEndpointStopFn *endpointStop;                                         /* slot 12 */
    ZELCDBEndpointSendStartServiceFn *endpointSendStartService;                 /* slot 13 */
    ZELCDBEndpointSendStopServiceFn *endpointSendStopService;                   /* slot 14 */
    ZELCDBEndpointSendServicePayloadFn *endpointSendServicePayload;             /* slot 15 */
    ZELCDBEndpointSendServiceResponseFn *endpointSendServiceResponse;           /* slot 16 */
    ZELCDBEndpointGetContextFn *endpointGetContext;                             /* slot 17 */
    ZELSBPSourceCreateFn *sourceCreate;                                         /* slot 18 */
    ZELSBPSinkCreateFn *sinkCreate;                                             /* slot 19 */
    ZELSBPHashNameFn *hashName;                                                 /* slot 20 */
    ZELSBPSerializerCreateFn *serializerCreate;                                 /* slot 21 */
    ZELSBPSerializerDestroyFn *serializerDestroy;                               /* slot 22 */
    ZELSBPSerializerGetDataFn *serializerGetData;                               /* slot 23 */
    ZELSBPSerializerAddBooleanFn *serializerAddBoolean;                         /* slot 24 */
    ZELSBPSerializerAddByteFn *serializerAddByte;                               /* slot 25 */
    ZELSBPSerializerAddShortFn *serializerAddShort;                             /* slot 26 */
    ZELSBPSerializerAddIntFn *serializerAddInt;                                 /* slot 27 */
    ZELSBPSerializerAddLongFn *serializerAddLong;                               /* slot 28 */
    ZELSBPSerializerAddFloatFn *serializerAddFloat;                             /* slot 29 */
    ZELSBPSerializerAddDoubleFn *serializerAddDouble;                           /* slot 30 */
    ZELSBPSerializerAddBytesFn *serializerAddBytes;                             /* slot 31 */
    ZELSBPSerializerAddStringFn *serializerAddString;                           /* slot 32 */
    ZELSBPSerializerBeginValueListFn *serializerBeginValueList;                 /* slot 33 */
    ZELSBPSerializerBeginStructureFn *serializerBeginStructure;                 /* slot 34 */
    ZELSBPSerializerBeginArrayFn *serializerBeginArray;                         /* slot 35 */
    ZELSBPSerializerEndFn *serializerEnd;                                       /* slot 36 */
    ZELSBPDeserializerCreateFn *deserializerCreate;                             /* slot 37 */
    ZELSBPDeserializerDestroyFn *deserializerDestroy;                           /* slot 38 */
    ZELSBPDeserializerGetContextFn *deserializerGetContext;                     /* slot 39 */
    ZELSBPDeserializerDeserializeFn *deserializerDeserialize;                   /* slot 40 */
    ZELSBPDeserializerDeserializeValueListFn *deserializerDeserializeValueList; /* slot 41 */
    ZELSBPSinkSendGetFn *sinkSendGet;                                           /* slot 42 */
    ZELSBPSinkSendSetFn *sinkSendSet;                                           /* slot 43 */
    ZELSBPSinkSendSubscribeFn *sinkSendSubscribe;                               /* slot 44 */
    ZELSBPSinkSendCancelFn *sinkSendCancel;                                     /* slot 45 */
    ZELSBPSinkSendServiceAuthResponseFn *sinkSendServiceAuthResponse;           /* slot 46 */
    ZELSBPSourceSendGetResponseFn *sourceSendGetResponse;                       /* slot 47 */
    ZELSBPSourceSendSetResponseFn *sourceSendSetResponse;                       /* slot 48 */
    ZELSBPSourceSendSubscribeResponseFn *sourceSendSubscribeResponse;           /* slot 49 */
    ZELSBPSourceSendServiceAuthChallengeFn *sourceSendServiceAuthChallenge;     /* slot 50 */
    ZELSBPSinkSendAliveFn *sinkSendAlive;                                       /* slot 51 */
} ZELCDBSDK;

/* Fills sdk with the version words (2, 7, 0, 2565) and every entry that lies wholly inside
 * sdkSize bytes (zeroing the rest of them). sdkSize must be 16..sizeof(ZELCDBSDK); outside
 * that range it is InvalidParameter and nothing is written. May be called again at any
 * time. The only symbol the library exports. */
typedef ZELCDBError ZELCDBSDKInitializeFn(ZELCDBSDK *sdk, uint32_t sdkSize);
ZELCDBError ZELCDBSDKInitialize(ZELCDBSDK *sdk, uint32_t sdkSize);

/* ---- Layout on 32-bit targets --------------------------------------------------------- */

#if UINTPTR_MAX == 0xFFFFFFFFu
#if defined(__cplusplus)
#define ZELCDB_STATIC_ASSERT_(cond, msg) static_assert(cond, msg)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define ZELCDB_STATIC_ASSERT_(cond, msg) _Static_assert(cond, msg)
#else /* C99: an array type of negative size stops the build */
#define ZELCDB_CONCAT2_(a, b) a##b
#define ZELCDB_CONCAT_(a, b) ZELCDB_CONCAT2_(a, b)
#define ZELCDB_STATIC_ASSERT_(cond, msg) \
    typedef char ZELCDB_CONCAT_(zelcdbLayoutCheck_, __LINE__)[(cond) ? 1 : -1]
#endif
ZELCDB_STATIC_ASSERT_(sizeof(ZELCDBSDK) == 208, "table is 208 bytes");
ZELCDB_STATIC_ASSERT_(offsetof(ZELCDBSDK, sdkUninitialize) == 16, "slot 4 at 16");
ZELCDB_STATIC_ASSERT_(offsetof(ZELCDBSDK, reserved8) == 32, "slot 8 at 32");
ZELCDB_STATIC_ASSERT_(offsetof(ZELCDBSDK, hashName) == 80, "slot 20 at 80");
ZELCDB_STATIC_ASSERT_(offsetof(ZELCDBSDK, sinkSendAlive) == 204, "slot 51 at 204");
ZELCDB_STATIC_ASSERT_(offsetof(ZELCDBEndpointParameters, versionMinor) +
                              sizeof(((ZELCDBEndpointParameters *)0)->versionMinor) ==
                          14,
                      "parameters read 14 bytes");
ZELCDB_STATIC_ASSERT_(offsetof(ZELCDBEndpointParameters, context) == 8, "context at 8");
ZELCDB_STATIC_ASSERT_(sizeof(ZELCDBService) == 20, "service record is 20 bytes");
ZELCDB_STATIC_ASSERT_(offsetof(ZELCDBService, name) == 4, "name at 4");
ZELCDB_STATIC_ASSERT_(offsetof(ZELCDBService, versionMajor) == 8, "major at 8");
ZELCDB_STATIC_ASSERT_(offsetof(ZELCDBService, versionMinor) == 9, "minor at 9");
ZELCDB_STATIC_ASSERT_(offsetof(ZELCDBService, serviceAttribute) == 12, "attribute at 12");
ZELCDB_STATIC_ASSERT_(offsetof(ZELCDBService, accessControl) == 16, "access control at 16");
ZELCDB_STATIC_ASSERT_(sizeof(ZELCDBEndpointCallbacks) == 20, "endpoint callbacks 20 bytes");
ZELCDB_STATIC_ASSERT_(sizeof(ZELCDBSourceServiceCallbacks) == 12, "source callbacks 12 bytes");
ZELCDB_STATIC_ASSERT_(sizeof(ZELCDBSinkCallbacks) == 8, "sink callbacks 8 bytes");
ZELCDB_STATIC_ASSERT_(sizeof(ZELSBPSinkCallbacks) == 32, "SBP sink callbacks 32 bytes");
ZELCDB_STATIC_ASSERT_(sizeof(ZELSBPSourceCallbacks) == 36, "SBP source callbacks 36 bytes");
ZELCDB_STATIC_ASSERT_(sizeof(ZELSBPDeserializerCallbacks) == 48, "deserializer callbacks 48 bytes");
#undef ZELCDB_STATIC_ASSERT_
#endif

#ifdef __cplusplus
}
#endif

#endif /* ZELCDBSDK_H */
