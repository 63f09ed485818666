#include "sdk/ErrorException.h"

namespace zelcdbsdk {

const char* errorName(ZELCDBError code) {
    switch (code) {
#define ZELCDB_ERROR_NAME_CASE(name, value) \
    case value:                             \
        return #name;
        ZELCDB_ERROR_MAP(ZELCDB_ERROR_NAME_CASE)
#undef ZELCDB_ERROR_NAME_CASE
    }
    return nullptr;
}

}  // namespace zelcdbsdk
