#pragma once

// The raw peer as the endpoint tests use it, where the endpoint runs on a thread of its own.

#include <chrono>
#include <thread>

#include "cdb/CDBTestSupport.h"

namespace sessiontest {

class RawPeer : public cdbtest::Peer {
public:
    // Connects, retrying while the endpoint is not listening yet.
    bool connect(int port) {
        for (int tries = 0; tries < cdbtest::kPatienceMs; ++tries) {
            if (Peer::connect(port)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }
    // Everything the session sent before it answered a Ping of ours.
    std::vector<std::string> sync() {
        uint16_t sequence = syncSequence_++;
        w().sendPing(sequence);
        std::vector<std::string> before;
        for (std::string m = next(); m != cdbtest::fmt("PingResponse %d", sequence); m = next()) {
            before.push_back(m);
            if (m == "closed" || m == "nothing") break;
        }
        return before;
    }

private:
    uint16_t syncSequence_ = 0xf000;  // far from the session's own pings
};

}  // namespace sessiontest
