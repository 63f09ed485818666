#pragma once

#include "zelcdbsdk.h"

namespace zelcdbsdk {

// The version words of the table, also printed in the endpoint's banner.
constexpr uint32_t kSdkVersionMajor = 2;
constexpr uint32_t kSdkVersionMinor = 7;
constexpr uint32_t kSdkVersionPatch = 0;
constexpr uint32_t kSdkVersionBuild = 2565;

// The complete function table: version words and every entry this build provides. Entries
// whose subsystem is not built yet are nullptr.
const ZELCDBSDK& sdkTable();

// The process-wide set-up done by ZELCDBSDKInitialize and undone by ZELCDBSDKUninitialize.
// Not reference counted: a second set-up replaces the first.
void processSetUp();
void processTearDown();

}  // namespace zelcdbsdk
