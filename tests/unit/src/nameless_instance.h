// An instance whose address can't be told, for the report that fails with it.
#pragma once

#include "devinst_support.h"
#include "src/InstanceBook.h"

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace zuTest {

/// Connects a client whose instance throws `std::runtime_error` where its address is asked for.
inline std::shared_ptr<ScriptedClient> connectNameless(const LogRecorder& log)
{
    struct NamelessControl : Control {
        NamelessControl() : Control({}, {}, {}) {}
        void GetLocalAddress(std::uint32_t&, std::uint16_t&) override { throw std::runtime_error("no address"); }
    };
    auto client = std::make_shared<ScriptedClient>();
    zuGevDaemon::OnClientConnect(client);
    // The books hand no instance out; its line tells where it is.
    const std::string words = "New DevInst created 0x";
    std::string made;
    for (const std::string& text : log.texts("DevIns"))
        if (text.rfind(words, 0) == 0)
            made = text.substr(words.size());
    auto* const instance = reinterpret_cast<zuGevDaemon::CDevInst*>(std::stoull(made, nullptr, 16));
    DevInstProbe::setControl(*instance, std::make_shared<NamelessControl>());
    return client;
}

} // namespace zuTest
