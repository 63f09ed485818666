#pragma once

#include "zelcdbsdk.h"

namespace zelcdbsdk {

// Writes the endpoint entries (slots 6, 7 and 9 to 17) into the function table.
void fillEndpointEntries(ZELCDBSDK& table);

}  // namespace zelcdbsdk
