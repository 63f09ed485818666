// The commands that talk to a peer's services: services, get, set, subscribe, alive, send
// and listen. Each returns the process exit code or throws a Failure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Session.h"

namespace zelcdb {

struct ServiceArgs {
    ConnectOptions connect;
    std::string service;  // name or ID
};

// How elements are named on the command line and shown in answers.
struct ElementArgs {
    std::vector<std::string> elements;  // names, or UIDs with byUid
    bool byUid = false;
    std::string elementFile;         // names and types to know, optional
    std::vector<std::string> names;  // more names to recognise in answers
    bool raw = false;                // hex SBP data instead of JSON
};

struct SubscribeArgs {
    uint32_t periodicMs = 0;  // 0: on change
    int count = 0;            // updates to print; 0 until Ctrl-C
};

int runServices(const ConnectOptions& connect, bool json);
int runGet(const ServiceArgs& service, const ElementArgs& elements);
// value is JSON (a bare word is taken as a string), or hex SBP data with elements.raw;
// type forces a scalar type instead of asking the peer for the element's current value.
int runSet(const ServiceArgs& service, const ElementArgs& elements, const std::string& value,
           const std::string& type);
int runSubscribe(const ServiceArgs& service, const ElementArgs& elements,
                 const SubscribeArgs& subscribe);
int runAlive(const ServiceArgs& service, int count, double intervalSeconds);
int runSend(const ServiceArgs& service, const std::string& hex, int replies);
int runListen(const ServiceArgs& service, int count);

}  // namespace zelcdb
