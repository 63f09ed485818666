// The element file: the SBP elements that `zelcdb serve` offers, with their types and first
// values, and that clients may read to know names and types. Its shape:
//
//   {
//     "service": "com.example.vehicle:1.0",          (optional)
//     "elements": [
//       {"name": "vehicleSpeed", "type": "int", "value": 88},
//       {"name": "position", "type": "structure",
//        "members": [{"name": "latitude", "type": "double"}, ...],
//        "value": {"latitude": 48.137, ...}},
//       {"name": "tyrePressures", "type": "array", "items": "float", "value": [2.3, 2.5]},
//       {"name": "contacts", "type": "array",
//        "items": {"type": "structure", "members": [...]}, "value": [{...}, ...]}
//     ]
//   }
#pragma once

#include <string>
#include <vector>

#include "SbpData.h"

namespace zelcdb {

struct Element {
    std::string name;
    uint32_t uid = 0;
    Type type;
    Json value;
};

struct ElementFile {
    std::string service;  // "name[:major.minor]", empty when the file names none
    std::vector<Element> elements;
    Names names;  // every element and member name

    const Element* find(uint32_t uid) const;
    Element* find(uint32_t uid);
};

// Reads and checks the file. Every fault is a Failure with kExitElementFile and a message
// "FILE:LINE: what is wrong".
ElementFile loadElementFile(const std::string& path);

}  // namespace zelcdb
