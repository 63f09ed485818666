#pragma once

#include "zelcdbsdk.h"

namespace zelcdbsdk {

// Writes the SBP sink and source entries (slots 18, 19 and 42 to 51) into the function table.
void fillSBPServiceEntries(ZELCDBSDK& table);

}  // namespace zelcdbsdk
