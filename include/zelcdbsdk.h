/**
 * @file zelcdbsdk.h
 * @brief libzelcdbsdk: the Common Data Bus (CDB) and Service Binary Protocol (SBP) SDK.
 *
 * The library exports one function, ZELCDBSDKInitialize(), which fills a ::ZELCDBSDK table of
 * version words and function pointers. Everything else is reached through that table. This
 * header is the whole interface: every value an application passes to the library or
 * receives from it has a name below.
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
 *    A callback should return promptly: while it runs, its endpoint reads, answers and
 *    times nothing. From inside a callback of the same endpoint:
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
 *  - Peers. One endpoint is one connection to one peer. A client endpoint connects to the
 *    URL; a server endpoint listens on it and serves one peer at a time: a second peer is
 *    not accepted while the first is connected, and once that peer has gone (status 3) the
 *    next ZELCDBEndpointStart listens for the next one. Talk to several peers with several
 *    endpoints.
 */
#ifndef ZELCDBSDK_H
#define ZELCDBSDK_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Error codes ------------------------------------------------------------------ */

/**
 * The one table of error codes: X(name, value). The ZELCDBError constants (ZELCDBErrorNone,
 * ZELCDBErrorFailed, ...), the name function and the tests are all generated from it.
 *
 *  - 0 ZELCDBErrorNone: success.
 *  - 1 ZELCDBErrorFailed: the operation failed; the log says why.
 *  - 2 ZELCDBErrorInvalidParameter: a NULL pointer, a size too small, a value out of range.
 *  - 3 ZELCDBErrorOutOfMemory: an allocation failed; nothing was created or queued.
 *  - 4 ZELCDBErrorUnsupportedVersion: a CDB version other than 1.1 was asked for.
 *  - 5 ZELCDBErrorNetworkError: connect, accept, send or receive failed, or the peer closed.
 *  - 6 ZELCDBErrorIllegalWhileRunning: the entry needs a stopped endpoint.
 *  - 7 ZELCDBErrorIllegalWhileNotRunning: the entry needs a running endpoint.
 *  - 10 ZELCDBErrorNotFound: not returned by this version of the library.
 *  - 11 ZELCDBErrorInvalidProtocol: the peer sent bytes that are not CDB.
 *  - 12 ZELCDBErrorTimeout: an SBP request got no answer within 5 s.
 *  - 13 ZELCDBErrorLocalSBPError: this side refused or could not send an SBP request (with its
 * ZELSBPResult); as a source callback's return: "answer now with *result".
 *  - 14 ZELCDBErrorRemoteSBPError: the peer's source answered with an error ZELSBPResult.
 *  - 15 ZELCDBErrorInvalidSBPPacket: a malformed SBP packet.
 *  - 100 ZELCDBErrorSBPSerializeIncomplete: GetData before the last End.
 *  - 101 ZELCDBErrorSBPSerializeComplete: an add after the serializer was complete.
 *  - 102 ZELCDBErrorSBPSerializeUnexpectedEnd: End with nothing open.
 *  - 103 ZELCDBErrorSBPSerializeUnexpectedUID: a non-zero UID inside an array.
 *  - 104 ZELCDBErrorSBPSerializeUnexpectedType: a value of the wrong type for its array, or
 * BeginValueList inside a container.
 *  - 200 ZELCDBErrorSBPDeserializeCallbackNotImplemented: the data holds a value whose callback is
 * NULL.
 *  - 201 ZELCDBErrorSBPDeserializeInputTruncated: the data ends inside a value.
 *  - 202 ZELCDBErrorSBPDeserializeInputTooLong: bytes after the single value (use the value-list
 * form?).
 *  - 203 ZELCDBErrorSBPDeserializeInputMalformed: a bad type or end byte.
 */
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

/** An error code: one of the ZELCDBError constants of ZELCDB_ERROR_MAP. */
typedef int32_t ZELCDBError;

/** @cond */
#define ZELCDB_ERROR_ENUM_ENTRY_(name, value) ZELCDBError##name = value,
enum { ZELCDB_ERROR_MAP(ZELCDB_ERROR_ENUM_ENTRY_) };
#undef ZELCDB_ERROR_ENUM_ENTRY_
/** @endcond */

/* ---- Handles, constants and records -------------------------------------------------- */

/** An endpoint: one CDB connection, client or server, with its own thread (opaque). */
typedef struct ZELCDBEndpoint ZELCDBEndpoint;
/** Builds one SBP data payload (opaque). */
typedef struct ZELSBPSerializer ZELSBPSerializer;
/** Walks SBP data and reports each value (opaque). */
typedef struct ZELSBPDeserializer ZELSBPDeserializer;

/** ZELCDBEndpointParameters::mode. */
enum {
    ZELCDBEndpointModeClient = 1, /**< connects to the URL; its services get IDs 1..0x3FFF */
    ZELCDBEndpointModeServer = 2  /**< listens on the URL; its services get IDs 0x4001..0x7FFF */
};
/** The status argument of ZELCDBEndpointCallbacks::statusCallback. */
enum {
    ZELCDBStatusStarted = 1,   /**< the endpoint thread runs (first callback of the thread) */
    ZELCDBStatusConnected = 2, /**< the TCP connection to the peer is made */
    ZELCDBStatusStopping = 3   /**< the endpoint thread ends (its last callback) */
};
/** The level argument of ZELCDBEndpointCallbacks::logCallback. */
enum {
    ZELCDBLogError = 0,    /**< something failed */
    ZELCDBLogWarning = 10, /**< the peer did something unexpected; the endpoint goes on */
    ZELCDBLogInfo = 30,    /**< connections, services added, started and stopped */
    ZELCDBLogDebug = 100   /**< one line per message sent or received */
};

/** Length argument meaning "up to the terminating zero byte". */
#define ZELSBP_NUL_TERMINATED ((uint32_t)0xFFFFFFFFu)

/**
 * CDB ServiceResponse codes: the response argument of ZELCDBEndpointSendServiceResponse and
 * ZELCDBSinkCallbacks::responseCallback, and the status of
 * ZELSBPSinkCallbacks::serviceStatusCallback. Codes not named here (0x0204, 0x0207) are
 * accepted from a peer without a reaction; any other value ends the connection.
 */
enum {
    /** The service is started (answer to StartService). */
    ZELCDBServiceResponseStarted = 0x0001,
    /** The service is stopped (answer to StopService; also reported to an SBP sink when the
     * connection ends). */
    ZELCDBServiceResponseStopped = 0x0002,
    /** The service is still working on a StartService. The library sends it every 4 s on
     * behalf of a plain source that has not answered yet; received, it gives the request
     * another 5 s. Never delivered to a callback. */
    ZELCDBServiceResponsePending = 0x0010,
    /** StartService for a service that is already started (SBP source). */
    ZELCDBServiceResponseAlreadyStarted = 0x0101,
    /** A payload or StopService for a service that is not started, or a payload for a peer
     * service without a sink. An SBP sink becomes inactive on it. */
    ZELCDBServiceResponseNoSinkForService = 0x0102,
    /** The start was refused (an SBP source's serviceStartCallback returned non-zero) or not
     * answered within 120 s; after a time-out the library sends StopService itself. */
    ZELCDBServiceResponseStartFailed = 0x0201,
    /** The stop was refused, or StopService got no answer within 5 s. Received from a peer,
     * it ends the whole connection. */
    ZELCDBServiceResponseTerminationFailed = 0x0202,
    /** An SBP source ended the service after a malformed packet. */
    ZELCDBServiceResponseTerminated = 0x0203,
    /** The service ID names no service of the receiver. */
    ZELCDBServiceResponseUnknownService = 0x0205,
    /** A payload carried the wrong access control byte; the receiver of this code stops the
     * service. */
    ZELCDBServiceResponseWrongAccessControl = 0x0206,
    /** A Ping answer carried the wrong sequence number (service 0); ends the connection. */
    ZELCDBServiceResponseWrongSequenceNumber = 0x0208,
    /** The peer's CDB version is not 1.1 (service 0); ends the connection. */
    ZELCDBServiceResponseWrongCDBVersionNumber = 0x0209,
    /** StartService asked for a newer version than the service has. */
    ZELCDBServiceResponseServiceVersionMismatch = 0x020A,
    /** The payload format is not supported; received for a peer service, it ends the
     * connection. */
    ZELCDBServiceResponseUnsupportedPayloadFormat = 0x020B
};

/**
 * SBP commands: the command arguments of the SBP callbacks and entries (a Get answer or a
 * periodic tick, the request to cancel, the request an error or a challenge is about).
 */
enum {
    ZELSBPCommandGet = 0xB1,                  /**< read an element */
    ZELSBPCommandSet = 0xB2,                  /**< write an element */
    ZELSBPCommandSubscribe = 0xB3,            /**< subscribe; also marks subscription updates */
    ZELSBPCommandCancel = 0xB4,               /**< cancel an outstanding request */
    ZELSBPCommandAliveRequest = 0xB5,         /**< is the service alive? (ZELSBPSinkSendAlive) */
    ZELSBPCommandAliveResponse = 0xB6,        /**< yes (sent by the library) */
    ZELSBPCommandServiceAuthChallenge = 0xB7, /**< a source challenges a request */
    ZELSBPCommandServiceAuthResponse = 0xB8,  /**< a sink answers a challenge */
    ZELSBPCommandResponse = 0xB9              /**< a source answers a request */
};

/** Subscription types: the type argument of ZELSBPSinkSendSubscribe and
 * ZELSBPSourceCallbacks::subscribeCallback. */
enum {
    ZELSBPSubscribePeriodic = 0, /**< an update every interval milliseconds */
    ZELSBPSubscribeOnChange = 1, /**< an update whenever the source's application sends one */
    ZELSBPSubscribeEither = 2    /**< the source chooses periodic or on change */
};
/** The largest subscription interval in milliseconds (24 bits); the smallest is 1. */
#define ZELSBP_SUBSCRIBE_INTERVAL_MAX ((uint32_t)0xFFFFFFu)

/**
 * SBP result values: what a source answers a request with (the result arguments of the
 * ZELSBPSource entries and callbacks), and the sbpResult of
 * ZELSBPSinkCallbacks::errorCallback. They are not ZELCDBError codes.
 */
enum {
    /** Success. */
    ZELSBPResultSuccess = 0x00000000,
    /** The source is still working on the request: sent by the library every 4 s while the
     * application owes an answer; the sink then waits 5 s more. Never reported to a sink's
     * application, and refused (InvalidParameter) by the ZELSBPSource entries. */
    ZELSBPResultInProgress = 0x10000000,
    /** Generic failure or not supported: the preset answer of a source callback, and what a
     * sink without authChallengeCallback answers a challenge with. */
    ZELSBPResultFailed = 0x10000002,
    /** The subscription interval is 0 or too large. */
    ZELSBPResultInvalidInterval = 0x10000003,
    /** The subscription type is unknown, or the source left ZELSBPSubscribeEither unchosen. */
    ZELSBPResultInvalidSubscriptionType = 0x10000004,
    /** The source could not produce a periodic update. */
    ZELSBPResultPeriodicUpdateFailed = 0x10000006,
    /** The sink did not answer a challenge within 5 s. */
    ZELSBPResultAuthTimedOut = 0x10000007,
    /** A request with the same command and UID is already outstanding (reported by the sink
     * without sending, or answered by the source). */
    ZELSBPResultAlreadyPending = 0x10000008,
    /** Nothing to cancel, or no challenged request to answer. */
    ZELSBPResultNothingToCancel = 0x10000009,
    /** The sink has 65535 requests outstanding; nothing was sent. */
    ZELSBPResultNoFreePacketId = 0x1000000A,
    /** The request was cancelled: the source's answer to the request a Cancel ended. */
    ZELSBPResultCancelled = 0x1000000B,
    /** The command is not supported, or an answer came for a request that takes none. */
    ZELSBPResultUnexpectedCommand = 0x1000000D,
    /** With ZELCDBErrorFailed: a challenge answer whose request ended meanwhile. The value
     * is 0x01000000, not the in-progress 0x10000000; applications have always seen this. */
    ZELSBPResultRequestGone = 0x01000000
};

/**
 * Type codes of SBP data: the elementType of ZELSBPSerializerBeginArray and of
 * ZELSBPDeserializerCallbacks::arrayBeginCallback.
 */
enum {
    ZELSBPTypeBoolean = 0x82,  /**< boolean; also an array element type */
    ZELSBPTypeByte = 0x83,     /**< 8-bit integer; not an array element type */
    ZELSBPTypeShort = 0x84,    /**< 16-bit integer; also an array element type */
    ZELSBPTypeInt = 0x85,      /**< 32-bit integer; also an array element type */
    ZELSBPTypeLong = 0x86,     /**< 64-bit integer; also an array element type */
    ZELSBPTypeFloat = 0x87,    /**< float; also an array element type */
    ZELSBPTypeDouble = 0x88,   /**< double; also an array element type */
    ZELSBPTypeBytes = 0x90,    /**< byte array; not an array element type */
    ZELSBPTypeString = 0x91,   /**< string; not an array element type */
    ZELSBPTypeStructure = 0xA1 /**< structure: as an array element type, an array of structures */
};

/** Read by ZELCDBEndpointCreate; the size passed must cover versionMinor. */
typedef struct {
    /** "scheme://host[:port][/...]", host numeric (IPv4). Without a port the scheme is
     * looked up as a service name. */
    const char *url;
    int32_t mode;         /**< ZELCDBEndpointModeClient or ZELCDBEndpointModeServer */
    void *context;        /**< handed back to every endpoint callback */
    uint8_t versionMajor; /**< CDB version requested: only 1.1 is supported */
    uint8_t versionMinor; /**< see versionMajor */
} ZELCDBEndpointParameters;

/** A service: registered by the application (serviceId is written back), or reported by
 * the peer (valid only during the callback that reports it). */
typedef struct {
    uint16_t serviceId;        /**< assigned by the endpoint that offers the service */
    const char *name;          /**< at most 255 bytes, zero-terminated */
    uint8_t versionMajor;      /**< service version; a StartService for a newer one is refused */
    uint8_t versionMinor;      /**< see versionMajor */
    uint32_t serviceAttribute; /**< low 8 bits advertised, never interpreted */
    uint32_t accessControl;    /**< low 8 bits carried by every payload of the service */
} ZELCDBService;

/* ---- Callback tables (every member may be NULL) ------------------------------------ */

/** The endpoint's own callbacks, given to ZELCDBEndpointCreate. */
typedef struct {
    /** Every log line of the endpoint; category names the component ("CDBEndpoint", ...),
     * level is a ZELCDBLog constant. Called on the endpoint thread, and on the thread of an
     * entry that logs (ZELCDBEndpointCreate logs the version banner before it returns). */
    void (*logCallback)(ZELCDBEndpoint *endpoint, void *context, const char *category,
                        int32_t level, const char *text);
    /** ZELCDBStatusStarted, then ZELCDBStatusConnected, with error 0; ZELCDBStatusStopping,
     * the thread's last callback, with the error that ended the endpoint thread (0 for an
     * orderly stop, NetworkError when the connection failed or the peer went away,
     * InvalidProtocol for a peer that sent no CDB). After status 3 the endpoint no longer
     * runs: its sinks are gone, its sources stay registered, and ZELCDBEndpointStart (from
     * another thread) connects or listens again. */
    void (*statusCallback)(ZELCDBEndpoint *endpoint, void *context, int32_t status,
                           ZELCDBError error);
    /** After every ServicesSupported from the peer (the first comes shortly after
     * ZELCDBStatusConnected): the services that are new. Called after
     * peerServicesRemovedCallback, both even when empty. services is NULL when serviceCount
     * is 0; record i starts serviceSize * i bytes after services (serviceSize is the
     * library's sizeof(ZELCDBService), so step by it rather than by your own). Records and
     * names are valid during the call. This is where a sink is attached to a service found by
     * name (ZELSBPSinkCreate or ZELCDBEndpointAddSink, then ZELCDBEndpointSendStartService). */
    void (*peerServicesAddedCallback)(ZELCDBEndpoint *endpoint, void *context, uint8_t versionMajor,
                                      uint8_t versionMinor, const ZELCDBService *services,
                                      uint32_t serviceSize, uint32_t serviceCount);
    /** After every ServicesSupported: the services the peer no longer offers, or offers under
     * a changed name or major version (those come back as added). Sinks attached to them are
     * gone. Same records as peerServicesAddedCallback. */
    void (*peerServicesRemovedCallback)(ZELCDBEndpoint *endpoint, void *context,
                                        uint8_t versionMajor, uint8_t versionMinor,
                                        const ZELCDBService *services, uint32_t serviceSize,
                                        uint32_t serviceCount);
    /** The peer did not answer our ServicesRequest within five seconds. The connection goes
     * on, but a late answer is ignored: no peer service is known on this connection. */
    void (*servicesRequestTimeoutCallback)(ZELCDBEndpoint *endpoint, void *context);
} ZELCDBEndpointCallbacks;

/** A plain CDB source service offered by this endpoint (ZELCDBEndpointAddSourceService).
 * serviceContext is the one given at registration. */
typedef struct {
    /** The peer sent StartService for a version not newer than the service's. Answer with
     * ZELCDBEndpointSendServiceResponse (ZELCDBServiceResponseStarted, or a refusal such as
     * ZELCDBServiceResponseStartFailed), here or later; until then the library answers
     * ZELCDBServiceResponsePending every 4 s, and ZELCDBServiceResponseStartFailed itself
     * after 120 s. */
    void (*startCallback)(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                          void *serviceContext, uint8_t versionMajor, uint8_t versionMinor);
    /** The peer sent StopService. Nothing is answered for the application: send
     * ZELCDBServiceResponseStopped if the peer expects it. */
    void (*stopCallback)(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                         void *serviceContext);
    /** A ServicePayload for the service (started or not), data valid during the call. */
    void (*payloadCallback)(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                            void *serviceContext, const uint8_t *data, uint32_t length);
} ZELCDBSourceServiceCallbacks;

/** A plain CDB sink on a service offered by the peer (ZELCDBEndpointAddSink). sinkContext is
 * the one given when the sink was added. */
typedef struct {
    /** A ServicePayload from the peer's service, data valid during the call. */
    void (*payloadCallback)(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                            void *sinkContext, const uint8_t *data, uint32_t length);
    /** A ServiceResponse from the peer for the service (any code but
     * ZELCDBServiceResponsePending), or a local time-out: ZELCDBServiceResponseStartFailed
     * when StartService went unanswered (StopService follows), and
     * ZELCDBServiceResponseTerminationFailed when StopService went unanswered for 5 s. */
    void (*responseCallback)(ZELCDBEndpoint *endpoint, void *context, uint16_t serviceId,
                             void *sinkContext, uint16_t response);
} ZELCDBSinkCallbacks;

/**
 * An SBP sink: the user of an SBP service the peer offers (ZELSBPSinkCreate). E = endpoint,
 * S = peer service ID, C = sink context; requestContext is the one given with the request.
 *
 * A sink is created inactive: send ZELCDBEndpointSendStartService and wait for
 * serviceStatusCallback with ZELCDBServiceResponseStarted before sending requests (answers
 * that reach an inactive sink are refused). Every request ends with one of dataCallback
 * (Get), setDoneCallback, subscribedCallback, cancelledCallback, aliveResponseCallback or
 * errorCallback, unless the service stops or the connection ends first (it is then dropped
 * without a callback); an acknowledged subscription then delivers updates through
 * dataCallback until it is cancelled or fails. At most one request per command and UID may
 * be outstanding.
 *
 * When the connection ends, an active sink gets serviceStatusCallback with status 2 (as if
 * the peer had stopped the service) and every request it had outstanding is dropped without
 * a further callback: nothing owed by the old link can arrive, and a request left pending
 * would refuse every later one for its element. The sink ends with the connection.
 */
typedef struct {
    /** Every ServiceResponse for the service, as a ZELCDBServiceResponse code:
     * ZELCDBServiceResponseStarted (the sink is active), ZELCDBServiceResponseStopped or
     * ZELCDBServiceResponseNoSinkForService (the sink is inactive and its outstanding
     * requests are dropped without a callback), or another code (StartFailed,
     * AlreadyStarted, TerminationFailed, Terminated, ...; the sink then counts as active). */
    void (*serviceStatusCallback)(ZELCDBEndpoint *E, void *endpointContext, uint16_t S, void *C,
                                  uint16_t status);
    /** The value of a Get (command ZELSBPCommandGet) or an update of an acknowledged
     * subscription (ZELSBPCommandSubscribe). payload is SBP data holding one value (read it
     * with ZELSBPDeserializerDeserialize), valid during the call; size may be 0. */
    void (*dataCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext,
                         uint32_t command, uint32_t uid, const uint8_t *payload, int32_t size);
    /** A Set succeeded. */
    void (*setDoneCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext,
                            uint32_t uid);
    /** A Subscribe succeeded; its updates follow through dataCallback with the same
     * requestContext. */
    void (*subscribedCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext,
                               uint32_t uid);
    /** A Cancel succeeded (cancelledCommand as given to ZELSBPSinkSendCancel). The cancelled
     * request itself ended just before, through errorCallback with ZELCDBErrorRemoteSBPError
     * and ZELSBPResultCancelled. */
    void (*cancelledCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext,
                              uint32_t cancelledCommand, uint32_t uid);
    /** A request failed; command is the request's (a ZELSBPCommand). The pairs:
     * (ZELCDBErrorRemoteSBPError, r): the source answered r, a ZELSBPResult (a value below
     * 0x10000000 is fatal and the library stops the service); (ZELCDBErrorTimeout, 0): no
     * answer within 5 s (an unacknowledged Subscribe is then cancelled, an unanswered Alive
     * stops the service); (ZELCDBErrorLocalSBPError, r): nothing was sent, r is
     * ZELSBPResultAlreadyPending, ZELSBPResultNoFreePacketId or, for a challenge answer
     * without its request, ZELSBPResultNothingToCancel; ZELSBPResultUnexpectedCommand for an
     * answer to a request that takes none; (ZELCDBErrorFailed, ZELSBPResultRequestGone);
     * (ZELCDBErrorOutOfMemory, 0). */
    void (*errorCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext,
                          uint32_t command, uint32_t uid, ZELCDBError error, uint32_t sbpResult);
    /** The source challenges an outstanding request (command, uid) with the given data.
     * Answer with ZELSBPSinkSendServiceAuthResponse within 5 s, or the source fails the
     * request with ZELSBPResultAuthTimedOut. Without this callback the library answers
     * ZELSBPResultFailed itself. */
    void (*authChallengeCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext,
                                  uint32_t command, uint32_t uid, const uint8_t *challenge,
                                  int32_t size);
    /** The answer to an AliveRequest (ZELSBPSinkSendAlive). */
    void (*aliveResponseCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext);
} ZELSBPSinkCallbacks;

/**
 * An SBP source: an SBP service this endpoint offers (ZELSBPSourceCreate). E = endpoint,
 * S = local service ID, C = source context.
 *
 * Answering a request (getCallback, setCallback, subscribeCallback): *result comes preset to
 * ZELSBPResultFailed.
 *  - Return ZELCDBErrorNone to answer later with the matching ZELSBPSource entry (which may
 *    also be called from inside the callback: it is queued). This is the only way to answer
 *    with data. Until the answer goes out the library tells the sink every 4 s that the
 *    request is in progress, so the answer may take as long as it needs.
 *  - Return ZELCDBErrorLocalSBPError to answer now with *result and no data
 *    (ZELSBPResultSuccess is success without data).
 *  - Any other return, like a NULL callback, answers ZELSBPResultFailed.
 *
 * A second request with the same command and UID while one is outstanding is answered
 * ZELSBPResultAlreadyPending without a callback; AliveRequests are answered by the library.
 *
 * When the connection ends, a started source gets serviceStopCallback (its result is
 * ignored; nothing is sent) and its outstanding requests and subscriptions are dropped, so
 * that the next peer starts the service afresh instead of finding its elements "already
 * pending". The source itself stays registered.
 */
typedef struct {
    /** The peer started the service. Return 0 to accept (ZELCDBServiceResponseStarted is
     * answered), non-zero to refuse (ZELCDBServiceResponseStartFailed). */
    int32_t (*serviceStartCallback)(ZELCDBEndpoint *E, void *endpointContext, uint16_t S, void *C,
                                    uint8_t versionMajor, uint8_t versionMinor);
    /** The peer stopped the service, or the connection ended. Outstanding requests and
     * subscriptions are dropped. Return 0 (ZELCDBServiceResponseStopped is answered);
     * non-zero answers ZELCDBServiceResponseTerminationFailed, on which the peer ends the
     * whole connection. */
    int32_t (*serviceStopCallback)(ZELCDBEndpoint *E, void *endpointContext, uint16_t S, void *C);
    /** The peer sent a malformed packet: the service is ended (the peer is told
     * ZELCDBServiceResponseTerminated) and its requests are dropped; no stop callback
     * follows. */
    void (*serviceTerminatedCallback)(ZELCDBEndpoint *E, uint16_t S, void *C);
    /** A Get (command ZELSBPCommandGet), or the tick of an active periodic subscription
     * (command ZELSBPCommandSubscribe, every interval). Answer a Get with
     * ZELSBPSourceSendGetResponse(command ZELSBPCommandGet) and a tick with
     * ZELSBPSourceSendGetResponse(command ZELSBPCommandSubscribe). For a tick, returning
     * ZELCDBErrorLocalSBPError with ZELSBPResultSuccess or ZELSBPResultPeriodicUpdateFailed
     * keeps the subscription and any other result ends it; another return ends it with
     * ZELSBPResultPeriodicUpdateFailed. */
    ZELCDBError (*getCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, uint32_t command,
                               uint32_t uid, uint32_t *result);
    /** A Set: data is SBP data holding the value (ZELSBPDeserializerDeserialize), valid
     * during the call. Answer later with ZELSBPSourceSendSetResponse. */
    ZELCDBError (*setCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, uint32_t uid,
                               const uint8_t *data, int32_t size, uint32_t *result);
    /** A Subscribe. *type is a ZELSBPSubscribe type (unknown types are refused before the
     * call), *interval in milliseconds; the callback may change both. The subscription is
     * refused with ZELSBPResultInvalidInterval when *interval is then 0 or above
     * ZELSBP_SUBSCRIBE_INTERVAL_MAX (so an on-change Subscribe sent with interval 0 is
     * refused unless the callback sets one), and with ZELSBPResultInvalidSubscriptionType
     * when *type is still ZELSBPSubscribeEither. Once accepted (at once, or when
     * ZELSBPSourceSendSubscribeResponse sends success), a periodic subscription ticks
     * through getCallback; an on-change one is fed with ZELSBPSourceSendGetResponse(command
     * ZELSBPCommandSubscribe) whenever the value changes. */
    ZELCDBError (*subscribeCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, uint32_t uid,
                                     uint32_t *type, uint32_t *interval, uint32_t *result);
    /** The sink cancelled the outstanding request (cancelledCommand, uid). The library has
     * already answered it with ZELSBPResultCancelled and dropped it; a late answer of the
     * application finds no request and is not sent. */
    void (*cancelCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, uint32_t cancelledCommand,
                           uint32_t uid);
    /** The sink's answer to ZELSBPSourceSendServiceAuthChallenge for (command, uid):
     * sinkResult (ZELSBPResultFailed when the sink cannot answer) and its data.
     * requestContext is always NULL. The challenged request still waits for its answer. */
    void (*authResponseCallback)(ZELCDBEndpoint *E, uint16_t S, void *C, void *requestContext,
                                 uint32_t command, uint32_t uid, uint32_t sinkResult,
                                 const uint8_t *data, int32_t size);
    /** Never called; keeps the table's size. */
    void (*reserved)(void);
} ZELSBPSourceCallbacks;

/**
 * SBP data deserializer callbacks. D = deserializer, then its context, the deserialize call's
 * user data and the value's UID (0 for array elements). Called on the thread that calls
 * ZELSBPDeserializerDeserialize, in the order of the data; pointers are valid during the
 * call. A value whose callback is NULL stops the walk with
 * ZELCDBErrorSBPDeserializeCallbackNotImplemented.
 */
typedef struct {
    /** A ZELSBPTypeBoolean value, 0 or 1. */
    void (*booleanCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                            int32_t value);
    /** A ZELSBPTypeByte value. */
    void (*byteCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                         int8_t value);
    /** A ZELSBPTypeShort value. */
    void (*shortCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                          int16_t value);
    /** A ZELSBPTypeInt value. */
    void (*intCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                        int32_t value);
    /** A ZELSBPTypeLong value. */
    void (*longCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                         int64_t value);
    /** A ZELSBPTypeFloat value. */
    void (*floatCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                          float value);
    /** A ZELSBPTypeDouble value. */
    void (*doubleCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                           double value);
    /** A ZELSBPTypeBytes value: the bytes inside the data being read. */
    void (*bytesCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                          const uint8_t *data, uint32_t length);
    /** A ZELSBPTypeString value as zero-terminated UTF-8. */
    void (*stringCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                           const char *utf8);
    /** A structure begins (also each element of an array of structures, with UID 0); its
     * memberCount members follow, then endCallback. */
    void (*structureBeginCallback)(ZELSBPDeserializer *D, void *context, void *userData,
                                   uint32_t uid, uint32_t memberCount);
    /** An array begins: elementType is a ZELSBPType (ZELSBPTypeStructure for an array of
     * structures); its elements follow, then endCallback. */
    void (*arrayBeginCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid,
                               uint8_t elementType);
    /** The structure or array with this UID ends. */
    void (*endCallback)(ZELSBPDeserializer *D, void *context, void *userData, uint32_t uid);
} ZELSBPDeserializerCallbacks;

/* ---- Function types of the table's entries ------------------------------------------ */

/** Undoes the process-wide set-up; call after destroying every object. */
typedef void ZELCDBSDKUninitializeFn(void);
/** Name of an error code ("None", "Failed", ...); NULL for a value that is not a code. */
typedef const char *ZELCDBGetErrorNameFn(ZELCDBError error);
/** Creates an endpoint (not yet running). On failure *endpoint is NULL. Logs the version
 * banner as its first log line before returning. InvalidParameter: a NULL pointer, a
 * parametersSize that does not cover versionMinor, a mode other than client or server, a
 * URL that does not parse; UnsupportedVersion: a CDB version other than 1.1. The callbacks
 * are copied. */
typedef ZELCDBError ZELCDBEndpointCreateFn(ZELCDBEndpoint **endpoint,
                                           const ZELCDBEndpointParameters *parameters,
                                           uint32_t parametersSize,
                                           const ZELCDBEndpointCallbacks *callbacks,
                                           uint32_t callbacksSize);
/** Stops a running endpoint as ZELCDBEndpointStop does, then frees it with its sinks and
 * sources. OutOfMemory when the stop cannot be posted (the endpoint is kept). */
typedef ZELCDBError ZELCDBEndpointDestroyFn(ZELCDBEndpoint *endpoint);
/** Registers a plain CDB source service; not while running (IllegalWhileRunning). The
 * assigned ID is written to service->serviceId: IDs run from 1 on a client and from 0x4001
 * on a server, in registration order, and are never reused. A name longer than 255 bytes is
 * InvalidParameter. Failed, with one error line, beyond 16383 services or when one
 * ServicesSupported could no longer list them all (4 bytes, then 7 plus the name's length
 * per service, at most 65535). A refused registration consumes no ID. */
typedef ZELCDBError ZELCDBEndpointAddSourceServiceFn(ZELCDBEndpoint *endpoint, void *serviceContext,
                                                     ZELCDBService *service, uint32_t serviceSize,
                                                     const ZELCDBSourceServiceCallbacks *callbacks,
                                                     uint32_t callbacksSize);
/** Attaches a plain CDB sink to a peer service; only while running. Returns None also when
 * the peer does not offer the service: the log says so when the sink is attached. Sinks
 * last as long as the connection. */
typedef ZELCDBError ZELCDBEndpointAddSinkFn(ZELCDBEndpoint *endpoint, void *sinkContext,
                                            uint16_t serviceId,
                                            const ZELCDBSinkCallbacks *callbacks,
                                            uint32_t callbacksSize);
/** Starts the endpoint thread, which connects (client) or listens for one peer (server), and
 * returns once it has initialised; Failed, with one log line, when it could not.
 * IllegalWhileRunning while the endpoint runs (see Threads above for a thread that is ending
 * by itself). Register sources before it. */
typedef ZELCDBError ZELCDBEndpointStartFn(ZELCDBEndpoint *endpoint);
/** Ends the connection and waits for the endpoint thread to end. A connected peer gets a
 * ByeBye and up to five seconds to answer it. IllegalWhileNotRunning when not running. */
typedef ZELCDBError ZELCDBEndpointStopFn(ZELCDBEndpoint *endpoint);
/** Sends a CDB StartService for a peer service, with the version the peer advertised; only
 * while running. The answer arrives through the sink's response or service status
 * callback. */
typedef ZELCDBError ZELCDBEndpointSendStartServiceFn(ZELCDBEndpoint *endpoint, uint16_t serviceId);
/** Sends a CDB StopService for a peer service; only while running. */
typedef ZELCDBError ZELCDBEndpointSendStopServiceFn(ZELCDBEndpoint *endpoint, uint16_t serviceId);
/** Sends a CDB ServicePayload of at most 8100 bytes (more is InvalidParameter, whatever
 * else is wrong); only while running. The bytes are copied before the call returns. */
typedef ZELCDBError ZELCDBEndpointSendServicePayloadFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                                       const uint8_t *data, uint32_t length);
/** Sends a CDB ServiceResponse (a ZELCDBServiceResponse code); only while running. For one
 * of this endpoint's services it also answers the peer's pending StartService. */
typedef ZELCDBError ZELCDBEndpointSendServiceResponseFn(ZELCDBEndpoint *endpoint,
                                                        uint16_t serviceId, uint16_t response);
/** The context given at creation; NULL for a NULL handle. */
typedef void *ZELCDBEndpointGetContextFn(ZELCDBEndpoint *endpoint);
/** Creates an SBP source and registers it as a local service, as
 * ZELCDBEndpointAddSourceService does (same IDs and refusals); not while running. */
typedef ZELCDBError ZELSBPSourceCreateFn(ZELCDBEndpoint *endpoint, void *sourceContext,
                                         ZELCDBService *service, uint32_t serviceSize,
                                         const ZELSBPSourceCallbacks *callbacks,
                                         uint32_t callbacksSize);
/** Creates an SBP sink on a peer service; only while running (typically from
 * peerServicesAddedCallback). It lasts as long as the connection; start the service with
 * ZELCDBEndpointSendStartService. */
typedef ZELCDBError ZELSBPSinkCreateFn(ZELCDBEndpoint *endpoint, void *sinkContext,
                                       uint16_t serviceId, const ZELSBPSinkCallbacks *callbacks,
                                       uint32_t callbacksSize);
/** UID of an element name (what both sides hash to agree on an element); length
 * ZELSBP_NUL_TERMINATED measures the name. */
typedef uint32_t ZELSBPHashNameFn(const char *name, uint32_t length);

/** Creates a serializer, which builds one SBP data payload: one top-level value (a scalar,
 * a structure or an array), or a value list begun with BeginValueList. */
typedef ZELCDBError ZELSBPSerializerCreateFn(ZELSBPSerializer **serializer);
/** Frees a serializer and its data. */
typedef ZELCDBError ZELSBPSerializerDestroyFn(ZELSBPSerializer *serializer);
/** The finished payload, valid until Destroy; SBPSerializeIncomplete before the last End. */
typedef ZELCDBError ZELSBPSerializerGetDataFn(ZELSBPSerializer *serializer, const uint8_t **data,
                                              uint32_t *length);
/** Adds a ZELSBPTypeBoolean (non-zero is true). In an array the UID must be 0. */
typedef ZELCDBError ZELSBPSerializerAddBooleanFn(ZELSBPSerializer *serializer, uint32_t uid,
                                                 int32_t value);
/** Adds a ZELSBPTypeByte (not allowed in arrays). */
typedef ZELCDBError ZELSBPSerializerAddByteFn(ZELSBPSerializer *serializer, uint32_t uid,
                                              int8_t value);
/** Adds a ZELSBPTypeShort. */
typedef ZELCDBError ZELSBPSerializerAddShortFn(ZELSBPSerializer *serializer, uint32_t uid,
                                               int16_t value);
/** Adds a ZELSBPTypeInt. */
typedef ZELCDBError ZELSBPSerializerAddIntFn(ZELSBPSerializer *serializer, uint32_t uid,
                                             int32_t value);
/** Adds a ZELSBPTypeLong. */
typedef ZELCDBError ZELSBPSerializerAddLongFn(ZELSBPSerializer *serializer, uint32_t uid,
                                              int64_t value);
/** Adds a ZELSBPTypeFloat. */
typedef ZELCDBError ZELSBPSerializerAddFloatFn(ZELSBPSerializer *serializer, uint32_t uid,
                                               float value);
/** Adds a ZELSBPTypeDouble. */
typedef ZELCDBError ZELSBPSerializerAddDoubleFn(ZELSBPSerializer *serializer, uint32_t uid,
                                                double value);
/** Adds a ZELSBPTypeBytes (not allowed in arrays). */
typedef ZELCDBError ZELSBPSerializerAddBytesFn(ZELSBPSerializer *serializer, uint32_t uid,
                                               const uint8_t *data, uint32_t length);
/** Adds a ZELSBPTypeString (not allowed in arrays); length in UTF-8 bytes, or
 * ZELSBP_NUL_TERMINATED. Only ASCII text reads back unchanged: the length travels as UTF-8
 * bytes and readers, peers included, take it as a count of characters. */
typedef ZELCDBError ZELSBPSerializerAddStringFn(ZELSBPSerializer *serializer, uint32_t uid,
                                                const char *utf8, uint32_t length);
/** Begins a value list: several top-level values (each with its UID) in one payload, closed
 * by End. Only at the top; the reader must use ZELSBPDeserializerDeserializeValueList. */
typedef ZELCDBError ZELSBPSerializerBeginValueListFn(ZELSBPSerializer *serializer);
/** Begins a structure: its members (any type, each with its UID) follow, then End. */
typedef ZELCDBError ZELSBPSerializerBeginStructureFn(ZELSBPSerializer *serializer, uint32_t uid);
/** Begins an array of elementType: ZELSBPTypeBoolean or ZELSBPTypeShort to ZELSBPTypeDouble
 * (elements added with UID 0), or ZELSBPTypeStructure (each element a structure begun with
 * UID 0). End closes it. Peers miscount an empty structure or array inside another
 * container: do not nest empty ones. */
typedef ZELCDBError ZELSBPSerializerBeginArrayFn(ZELSBPSerializer *serializer, uint32_t uid,
                                                 uint8_t elementType);
/** Closes the innermost value list, structure or array. */
typedef ZELCDBError ZELSBPSerializerEndFn(ZELSBPSerializer *serializer);

/** Creates a deserializer with its context and callbacks (copied). */
typedef ZELCDBError ZELSBPDeserializerCreateFn(ZELSBPDeserializer **deserializer, void *context,
                                               const ZELSBPDeserializerCallbacks *callbacks,
                                               uint32_t callbacksSize);
/** Frees a deserializer. */
typedef ZELCDBError ZELSBPDeserializerDestroyFn(ZELSBPDeserializer *deserializer);
/** The context given at creation; NULL for a NULL handle. */
typedef void *ZELSBPDeserializerGetContextFn(ZELSBPDeserializer *deserializer);
/** Reads data holding exactly one value (the payload of a Get answer, an update or a Set)
 * and reports it through the callbacks, on the calling thread, before returning. Stops at
 * the first error; callbacks already made stand. */
typedef ZELCDBError ZELSBPDeserializerDeserializeFn(ZELSBPDeserializer *deserializer,
                                                    void *userData, const uint8_t *data,
                                                    uint32_t length);
/** Reads data written as a value list (ZELSBPSerializerBeginValueList): every value in turn,
 * as ZELSBPDeserializerDeserialize does for one. */
typedef ZELCDBError ZELSBPDeserializerDeserializeValueListFn(ZELSBPDeserializer *deserializer,
                                                             void *userData, const uint8_t *data,
                                                             uint32_t length);

/* SBP sink requests. Each queues the request and returns; serviceId is the peer service of
 * the sink; the outcome arrives through the sink's callbacks with requestContext. While the
 * endpoint is not running nothing is sent. Here and in the source answers, data must fit one
 * ServicePayload with its packet: at most 8084 bytes (more is InvalidParameter, and nothing
 * is sent). */

/** Asks for an element's value: dataCallback or errorCallback follows. */
typedef ZELCDBError ZELSBPSinkSendGetFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                        void *requestContext, uint32_t uid);
/** Writes an element: data is SBP data of one value (ZELSBPSerializer); setDoneCallback or
 * errorCallback follows. */
typedef ZELCDBError ZELSBPSinkSendSetFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                        void *requestContext, uint32_t uid, const uint8_t *data,
                                        uint32_t size);
/** Subscribes to an element: type is a ZELSBPSubscribe type, interval in milliseconds, 1 to
 * ZELSBP_SUBSCRIBE_INTERVAL_MAX (above is InvalidParameter; 0 is refused by the source
 * unless it picks one, so give on-change subscriptions an interval too). subscribedCallback,
 * then one dataCallback per update. */
typedef ZELCDBError ZELSBPSinkSendSubscribeFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                              void *requestContext, uint32_t uid, uint32_t type,
                                              uint32_t interval);
/** Cancels the outstanding request (command, uid), typically ZELSBPCommandSubscribe to end a
 * subscription; see ZELSBPSinkCallbacks::cancelledCallback. */
typedef ZELCDBError ZELSBPSinkSendCancelFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                           void *requestContext, uint32_t uid, uint32_t command);
/** Answers the challenge of request (command, uid) (authChallengeCallback) with a
 * ZELSBPResult and response data; the request then waits for its own answer again. */
typedef ZELCDBError ZELSBPSinkSendServiceAuthResponseFn(ZELCDBEndpoint *endpoint,
                                                        uint16_t serviceId, void *requestContext,
                                                        uint32_t command, uint32_t uid,
                                                        uint32_t result, const uint8_t *data,
                                                        uint32_t size);

/** Asks whether the peer's service is alive: intervalSeconds >= 0 sends an AliveRequest now
 * (aliveResponseCallback follows); > 0 also repeats it every intervalSeconds seconds; 0 or
 * negative ends the repetition (negative without sending). An AliveRequest unanswered for
 * 5 s reports ZELCDBErrorTimeout and stops the peer service. */
typedef ZELCDBError ZELSBPSinkSendAliveFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                          void *requestContext, int32_t intervalSeconds);

/* SBP source answers. Each queues the answer to the outstanding request that its callback
 * deferred (by returning ZELCDBErrorNone) and returns; serviceId is the source's. An answer
 * for which no request is outstanding (answered, cancelled, or dropped with the connection)
 * is not sent. result ZELSBPResultInProgress is InvalidParameter. */

/** Answers a Get (command ZELSBPCommandGet) or sends a subscription update (command
 * ZELSBPCommandSubscribe, for a periodic tick or an on-change subscription) with result and,
 * on success, the value as SBP data of one value. */
typedef ZELCDBError ZELSBPSourceSendGetResponseFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                                  void *requestContext, uint32_t command,
                                                  uint32_t uid, uint32_t result,
                                                  const uint8_t *data, uint32_t size);
/** Answers a Set. */
typedef ZELCDBError ZELSBPSourceSendSetResponseFn(ZELCDBEndpoint *endpoint, uint16_t serviceId,
                                                  void *requestContext, uint32_t uid,
                                                  uint32_t result);
/** Answers a Subscribe; ZELSBPResultSuccess starts the subscription. */
typedef ZELCDBError ZELSBPSourceSendSubscribeResponseFn(ZELCDBEndpoint *endpoint,
                                                        uint16_t serviceId, void *requestContext,
                                                        uint32_t uid, uint32_t result);
/** Challenges the outstanding request (command, uid) with data; the sink has 5 s to answer
 * (authResponseCallback), after which the request fails with ZELSBPResultAuthTimedOut. */
typedef ZELCDBError ZELSBPSourceSendServiceAuthChallengeFn(ZELCDBEndpoint *endpoint,
                                                           uint16_t serviceId, void *requestContext,
                                                           uint32_t command, uint32_t uid,
                                                           const uint8_t *data, uint32_t size);

/* ---- The SDK function table ------------------------------------------------------- */

/** The SDK function table, filled by ZELCDBSDKInitialize. Entries that this build of the
 * library does not provide are NULL; check an entry before calling it. Each entry's
 * contract is on its function type. */
typedef struct {
    uint32_t versionMajor;                    /**< product version: 2 */
    uint32_t versionMinor;                    /**< 7 */
    uint32_t versionPatch;                    /**< 0 */
    uint32_t versionBuild;                    /**< build number: 2565 */
    ZELCDBSDKUninitializeFn *sdkUninitialize; /**< slot 4: ZELCDBSDKUninitializeFn */
    ZELCDBGetErrorNameFn *getErrorName;       /**< slot 5: ZELCDBGetErrorNameFn */
    ZELCDBEndpointCreateFn *endpointCreate;   /**< slot 6: ZELCDBEndpointCreateFn */
    ZELCDBEndpointDestroyFn *endpointDestroy; /**< slot 7: ZELCDBEndpointDestroyFn */
    void *reserved8;                          /**< never written */
    ZELCDBEndpointAddSourceServiceFn
        *endpointAddSourceService;            /**< slot 9: ZELCDBEndpointAddSourceServiceFn */
    ZELCDBEndpointAddSinkFn *endpointAddSink; /**< slot 10: ZELCDBEndpointAddSinkFn */
    ZELCDBEndpointStartFn *endpointStart;     /**< slot 11: ZELCDBEndpointStartFn */
    ZELCDBEndpointStopFn *endpointStop;       /**< slot 12: ZELCDBEndpointStopFn */
    ZELCDBEndpointSendStartServiceFn
        *endpointSendStartService; /**< slot 13: ZELCDBEndpointSendStartServiceFn */
    ZELCDBEndpointSendStopServiceFn
        *endpointSendStopService; /**< slot 14: ZELCDBEndpointSendStopServiceFn */
    ZELCDBEndpointSendServicePayloadFn
        *endpointSendServicePayload; /**< slot 15: ZELCDBEndpointSendServicePayloadFn */
    ZELCDBEndpointSendServiceResponseFn
        *endpointSendServiceResponse; /**< slot 16: ZELCDBEndpointSendServiceResponseFn */
    ZELCDBEndpointGetContextFn *endpointGetContext; /**< slot 17: ZELCDBEndpointGetContextFn */
    ZELSBPSourceCreateFn *sourceCreate;             /**< slot 18: ZELSBPSourceCreateFn */
    ZELSBPSinkCreateFn *sinkCreate;                 /**< slot 19: ZELSBPSinkCreateFn */
    ZELSBPHashNameFn *hashName;                     /**< slot 20: ZELSBPHashNameFn */
    ZELSBPSerializerCreateFn *serializerCreate;     /**< slot 21: ZELSBPSerializerCreateFn */
    ZELSBPSerializerDestroyFn *serializerDestroy;   /**< slot 22: ZELSBPSerializerDestroyFn */
    ZELSBPSerializerGetDataFn *serializerGetData;   /**< slot 23: ZELSBPSerializerGetDataFn */
    ZELSBPSerializerAddBooleanFn
        *serializerAddBoolean;                        /**< slot 24: ZELSBPSerializerAddBooleanFn */
    ZELSBPSerializerAddByteFn *serializerAddByte;     /**< slot 25: ZELSBPSerializerAddByteFn */
    ZELSBPSerializerAddShortFn *serializerAddShort;   /**< slot 26: ZELSBPSerializerAddShortFn */
    ZELSBPSerializerAddIntFn *serializerAddInt;       /**< slot 27: ZELSBPSerializerAddIntFn */
    ZELSBPSerializerAddLongFn *serializerAddLong;     /**< slot 28: ZELSBPSerializerAddLongFn */
    ZELSBPSerializerAddFloatFn *serializerAddFloat;   /**< slot 29: ZELSBPSerializerAddFloatFn */
    ZELSBPSerializerAddDoubleFn *serializerAddDouble; /**< slot 30: ZELSBPSerializerAddDoubleFn */
    ZELSBPSerializerAddBytesFn *serializerAddBytes;   /**< slot 31: ZELSBPSerializerAddBytesFn */
    ZELSBPSerializerAddStringFn *serializerAddString; /**< slot 32: ZELSBPSerializerAddStringFn */
    ZELSBPSerializerBeginValueListFn
        *serializerBeginValueList; /**< slot 33: ZELSBPSerializerBeginValueListFn */
    ZELSBPSerializerBeginStructureFn
        *serializerBeginStructure; /**< slot 34: ZELSBPSerializerBeginStructureFn */
    ZELSBPSerializerBeginArrayFn
        *serializerBeginArray;                        /**< slot 35: ZELSBPSerializerBeginArrayFn */
    ZELSBPSerializerEndFn *serializerEnd;             /**< slot 36: ZELSBPSerializerEndFn */
    ZELSBPDeserializerCreateFn *deserializerCreate;   /**< slot 37: ZELSBPDeserializerCreateFn */
    ZELSBPDeserializerDestroyFn *deserializerDestroy; /**< slot 38: ZELSBPDeserializerDestroyFn */
    ZELSBPDeserializerGetContextFn
        *deserializerGetContext; /**< slot 39: ZELSBPDeserializerGetContextFn */
    ZELSBPDeserializerDeserializeFn
        *deserializerDeserialize; /**< slot 40: ZELSBPDeserializerDeserializeFn */
    ZELSBPDeserializerDeserializeValueListFn
        *deserializerDeserializeValueList; /**< slot 41: ZELSBPDeserializerDeserializeValueListFn */
    ZELSBPSinkSendGetFn *sinkSendGet;      /**< slot 42: ZELSBPSinkSendGetFn */
    ZELSBPSinkSendSetFn *sinkSendSet;      /**< slot 43: ZELSBPSinkSendSetFn */
    ZELSBPSinkSendSubscribeFn *sinkSendSubscribe; /**< slot 44: ZELSBPSinkSendSubscribeFn */
    ZELSBPSinkSendCancelFn *sinkSendCancel;       /**< slot 45: ZELSBPSinkSendCancelFn */
    ZELSBPSinkSendServiceAuthResponseFn
        *sinkSendServiceAuthResponse; /**< slot 46: ZELSBPSinkSendServiceAuthResponseFn */
    ZELSBPSourceSendGetResponseFn
        *sourceSendGetResponse; /**< slot 47: ZELSBPSourceSendGetResponseFn */
    ZELSBPSourceSendSetResponseFn
        *sourceSendSetResponse; /**< slot 48: ZELSBPSourceSendSetResponseFn */
    ZELSBPSourceSendSubscribeResponseFn
        *sourceSendSubscribeResponse; /**< slot 49: ZELSBPSourceSendSubscribeResponseFn */
    ZELSBPSourceSendServiceAuthChallengeFn
        *sourceSendServiceAuthChallenge;  /**< slot 50: ZELSBPSourceSendServiceAuthChallengeFn */
    ZELSBPSinkSendAliveFn *sinkSendAlive; /**< slot 51: ZELSBPSinkSendAliveFn */
} ZELCDBSDK;

/** Fills sdk with the version words (2, 7, 0, 2565) and every entry that lies wholly inside
 * sdkSize bytes (zeroing the rest of them). sdkSize must be 16..sizeof(ZELCDBSDK); outside
 * that range it is InvalidParameter and nothing is written. May be called again at any
 * time. The only symbol the library exports. */
typedef ZELCDBError ZELCDBSDKInitializeFn(ZELCDBSDK *sdk, uint32_t sdkSize);
/** See ZELCDBSDKInitializeFn; call it first, from any thread. */
ZELCDBError ZELCDBSDKInitialize(ZELCDBSDK *sdk, uint32_t sdkSize);

/* ---- Layout on 32-bit targets --------------------------------------------------------- */

/** @cond */
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
/** @endcond */

#ifdef __cplusplus
}
#endif

#endif /* ZELCDBSDK_H */
