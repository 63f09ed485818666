/* The public header compiled as strict C99 and linked against the shared library, used the
 * way a C application uses it: it knows nothing but the header. Exit status 0 is success;
 * every failed check prints one line. */
#include <stdio.h>
#include <string.h>

#include "zelcdbsdk.h"

static int failures = 0;

#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                              \
        }                                                                            \
    } while (0)

#define FULL ((uint32_t)sizeof(ZELCDBSDK))
#define SLOT_SIZE ((uint32_t)sizeof(void*))
#define FIRST_SLOT_OFFSET ((uint32_t)offsetof(ZELCDBSDK, sdkUninitialize))
#define END (FIRST_SLOT_OFFSET + SLOT_SIZE) /* of the first slot */

/* A table with room beyond its end, so that writes past the given size show. */
typedef union {
    ZELCDBSDK table;
    unsigned char bytes[sizeof(ZELCDBSDK) + 16];
} Buffer;

/* Every size gets the version words, every slot that lies wholly inside it (as in the full
 * table), zeros in a partial trailing slot, and nothing at all beyond the size. Sizes out of
 * range get InvalidParameter and an untouched buffer. */
static void checkTableSizes(void) {
    Buffer full, buffer, expected;
    const uint32_t sizes[] = {0, 15, 16, 17, 20, END - 1, END, FULL - 1, FULL, FULL + 1, ~0u};
    size_t i;

    memset(full.bytes, 0xAB, sizeof full.bytes);
    CHECK(ZELCDBSDKInitialize(&full.table, FULL) == ZELCDBErrorNone);
    for (i = 0; i < sizeof sizes / sizeof sizes[0]; ++i) {
        const uint32_t size = sizes[i];
        const int valid = size >= FIRST_SLOT_OFFSET && size <= FULL;
        memset(buffer.bytes, 0xAB, sizeof buffer.bytes);
        memset(expected.bytes, 0xAB, sizeof expected.bytes);
        if (valid) {
            memset(expected.bytes, 0, size);
            memcpy(expected.bytes, full.bytes, size - (size - FIRST_SLOT_OFFSET) % SLOT_SIZE);
        }
        CHECK(ZELCDBSDKInitialize(&buffer.table, size) ==
              (valid ? ZELCDBErrorNone : ZELCDBErrorInvalidParameter));
        if (memcmp(buffer.bytes, expected.bytes, sizeof buffer.bytes) != 0) {
            fprintf(stderr, "table of %u bytes filled wrongly\n", (unsigned)size);
            ++failures;
        }
    }
    /* The version words come from the library, not from the caller's table. */
    CHECK(full.table.versionMajor == 2 && full.table.versionMinor == 7 &&
          full.table.versionBuild == 2565);
    CHECK(ZELCDBSDKInitialize(NULL, FULL) == ZELCDBErrorInvalidParameter);
}

/* Every name the header's map gives, none for the gaps; and the UID hash peers compute. */
static void checkNamesAndHash(ZELCDBGetErrorNameFn* name, ZELSBPHashNameFn* hash) {
    const ZELCDBError unknown[] = {16, 99, 105, 199, 204, -1, 8, 9};
    size_t i;
#define CHECK_NAME(id, value) \
    CHECK(name((ZELCDBError)(value)) != NULL && strcmp(name(ZELCDBError##id), #id) == 0);
    ZELCDB_ERROR_MAP(CHECK_NAME)
#undef CHECK_NAME
    for (i = 0; i < sizeof unknown / sizeof unknown[0]; ++i) CHECK(name(unknown[i]) == NULL);
    CHECK(hash("speed", 0) == 5381u);
    CHECK(hash("speed", ZELSBP_NUL_TERMINATED) == hash("speed!", 5));
    /* Bytes are signed: 0xE9 counts as -23, so 5381 * 65599 - 23 = 352988196. */
    CHECK(hash("\xE9", ZELSBP_NUL_TERMINATED) == 352988196u);
    /* 0x7F and 0x80 are 255 apart the wrong way round: +127 against -128. */
    CHECK(hash("a\x7F", 2) - hash("a\x80", 2) == 255u);
    /* The length counts bytes, a NUL among them. */
    CHECK(hash("a\0b", 3) != hash("a", 1));
}

int main(void) {
    ZELCDBSDK sdk;
    checkTableSizes();
    if (ZELCDBSDKInitialize(&sdk, FULL) != ZELCDBErrorNone) return 1;
    checkNamesAndHash(sdk.getErrorName, sdk.hashName);
    sdk.sdkUninitialize();
    if (failures) return 1;
    puts("header_c_test: ok");
    return 0;
}
