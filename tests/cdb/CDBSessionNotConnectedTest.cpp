// A server session asked to send while it still listens: the peer that connects next reads
// the directory first and nothing else, and the burst of drops is logged once, not per send.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cdb/SessionTestSupport.h"

namespace {

using namespace sessiontest;

TEST(CDBSessionNotConnected, SendsWhileListeningAreDroppedAndLoggedOncePerBurst) {
    Session s(Role::Server);
    s.addService("svc", {1, 0});
    s.host->start();
    const uint8_t data[3] = {1, 2, 3};
    auto send = [&](CDBSession& session) {
        session.sendServicePayload(s.own(0), data, sizeof data);
        session.sendServicePayload(s.own(0), data, sizeof data);
        session.sendServiceResponse(s.own(0), 1);
    };
    ASSERT_TRUE(s.host->on(send));
    ASSERT_TRUE(s.peer.connect(s.port()));
    EXPECT_EQ(s.peer.next(), "ServicesRequest 1.1");
    EXPECT_EQ(s.peer.sync(), std::vector<std::string>{});
    std::vector<std::string> drops;
    for (const std::string& line : s.host->log.lines("CDBSession", 100)) {
        if (line.find("ropp") != std::string::npos) drops.push_back(line);
    }
    EXPECT_EQ(drops, (std::vector<std::string>{
                         "100 Dropping ServicePayload for service 16385 (0x4001) - not "
                         "connected; counting until connected",
                         "100 Dropped 3 ServicePayload and ServiceResponse messages while not "
                         "connected",
                     }));
    // Once connected, the same sends go out.
    ASSERT_TRUE(s.host->on(send));
    EXPECT_EQ(s.peer.sync(), (std::vector<std::string>{"ServicePayload 0x4001 ac=0 010203",
                                                       "ServicePayload 0x4001 ac=0 010203",
                                                       "ServiceResponse 0x4001 0x0001"}));
}

}  // namespace
