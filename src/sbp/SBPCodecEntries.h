#pragma once

#include "zelcdbsdk.h"

namespace zelcdbsdk {

// Writes the serializer and deserializer entries (slots 21 to 41) into the function table.
void fillSBPCodecEntries(ZELCDBSDK& table);

}  // namespace zelcdbsdk
