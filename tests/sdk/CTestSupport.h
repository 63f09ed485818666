/* What the C tests share: a check that counts failures, a free loopback port, and counters
 * that the endpoint threads raise and main waits for. */
#ifndef ZEL_SDK_C_TEST_SUPPORT_H
#define ZEL_SDK_C_TEST_SUPPORT_H

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

static pthread_mutex_t seenMutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t seenChanged = PTHREAD_COND_INITIALIZER;

/* Runs statements under the lock and wakes the waiters. */
#define UPDATE(statements)                    \
    do {                                      \
        pthread_mutex_lock(&seenMutex);       \
        statements;                           \
        pthread_cond_broadcast(&seenChanged); \
        pthread_mutex_unlock(&seenMutex);     \
    } while (0)

/* Waits until *a reaches aValue or *b reaches bValue, at most ten seconds; true when *a
 * got there. */
static int waitForEither(const int* a, int aValue, const int* b, int bValue) {
    struct timespec deadline;
    int reached;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 10;
    pthread_mutex_lock(&seenMutex);
    while (*a < aValue && *b < bValue &&
           pthread_cond_timedwait(&seenChanged, &seenMutex, &deadline) != ETIMEDOUT) {
    }
    reached = *a >= aValue;
    pthread_mutex_unlock(&seenMutex);
    return reached;
}

static int waitFor(const int* counter, int value) {
    static const int never = 0;
    return waitForEither(counter, value, &never, 1);
}

/* A field the endpoint threads may be writing. */
static int current(const int* field) {
    int value;
    pthread_mutex_lock(&seenMutex);
    value = *field;
    pthread_mutex_unlock(&seenMutex);
    return value;
}

static void loopbackUrl(char* url, size_t size) {
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, (struct sockaddr*)&address, sizeof address);
    getsockname(fd, (struct sockaddr*)&address, &length);
    close(fd);
    snprintf(url, size, "cdb://127.0.0.1:%d", ntohs(address.sin_port));
}

/* The server listens a moment after its Start returns: a client that comes too early is
 * refused, ends (status 3) and is started again. Returns how many Starts it took. */
static int startClient(const ZELCDBSDK* sdk, ZELCDBEndpoint* client, const int* connected,
                       const int* ended) {
    int attempt;
    for (attempt = 0; attempt < 100; ++attempt) {
        CHECK(sdk->endpointStart(client) == ZELCDBErrorNone);
        if (waitForEither(connected, 1, ended, attempt + 1)) return attempt + 1;
    }
    return 0;
}

#endif
