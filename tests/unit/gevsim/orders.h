// What the registers ask of the stream, written down.
#pragma once

#include "tools/gevsim/stream_types.h"

#include <string>
#include <vector>

namespace gevsimTest {

class RecordedOrders : public gevsim::StreamOrders {
public:
    static constexpr std::uint16_t port = 4711;

    std::uint16_t configure(const gevsim::StreamSetup& made) override
    {
        setup = made;
        opened = opened || made.open();
        return opened ? port : std::uint16_t{0};
    }
    void start(std::uint64_t number) override
    {
        session = number;
        orders.push_back("start");
    }
    void stop() override { orders.push_back("stop"); }
    void trigger(gevsim::TriggerSource source) override
    {
        orders.push_back(source == gevsim::TriggerSource::line ? "line" : "software");
    }
    void fireTestPacket() override { orders.push_back("test packet of " + std::to_string(setup.packetSize)); }
    void resend(const gevsim::ResendRequest& request) override
    {
        orders.push_back("resend " + std::to_string(request.block) + " " + std::to_string(request.first) + "-" +
                         std::to_string(request.last) + (request.extended ? " extended" : ""));
    }

    gevsim::StreamSetup setup;
    std::uint64_t session = 0;
    bool opened = false;
    std::vector<std::string> orders;
};

} // namespace gevsimTest
