// The one exported function and the table it fills.
#include <cstddef>
#include <cstring>

#include "sdk/SdkTable.h"
#include "zelcdbsdk.h"

namespace {

constexpr uint32_t kFirstSlotOffset = offsetof(ZELCDBSDK, sdkUninitialize);

}  // namespace

extern "C" __attribute__((visibility("default"))) ZELCDBError ZELCDBSDKInitialize(
    ZELCDBSDK* sdk, uint32_t sdkSize) {
    // One unsigned comparison refuses both a size below the version words and one beyond
    // the table.
    if (sdk == nullptr || sdkSize - kFirstSlotOffset > sizeof(ZELCDBSDK) - kFirstSlotOffset) {
        return ZELCDBErrorInvalidParameter;
    }
    const ZELCDBSDK& full = zelcdbsdk::sdkTable();
    std::memset(sdk, 0, sdkSize);
    std::memcpy(sdk, &full, kFirstSlotOffset);
    // Only whole slots are written, so that a table from an older, shorter header is never
    // overrun and a partial trailing word stays zero.
    uint32_t whole =
        kFirstSlotOffset + (sdkSize - kFirstSlotOffset) / sizeof(void*) * sizeof(void*);
    std::memcpy(reinterpret_cast<unsigned char*>(sdk) + kFirstSlotOffset,
                reinterpret_cast<const unsigned char*>(&full) + kFirstSlotOffset,
                whole - kFirstSlotOffset);
    // Slot 8 is reserved and never written.
    if (whole >= offsetof(ZELCDBSDK, reserved8) + sizeof(void*)) sdk->reserved8 = nullptr;
    zelcdbsdk::processSetUp();
    return ZELCDBErrorNone;
}
