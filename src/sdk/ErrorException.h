#pragma once

#include "zelcdbsdk.h"

namespace zelcdbsdk {

// Carries an SDK error code out of any layer: an API entry that catches it returns exactly
// this code.
class ErrorException {
public:
    explicit ErrorException(ZELCDBError code) : code_(code) {}
    ZELCDBError code() const { return code_; }

private:
    ZELCDBError code_;
};

// The name of an error code, or nullptr for a value that is not one.
const char* errorName(ZELCDBError code);

}  // namespace zelcdbsdk
