// An instance under test with a client of its own and a simulated camera, or a camera link that fails on demand.
#pragma once

#include "scripted_client.h"
#include "tests/support/log_lines.h"
#include "tests/support/pointer_text.h"
#include "tools/gevsim/camera.h"

#include "src/DevInst.h"

#include <atomic>
#include <stdexcept>
#include <string>

namespace zuTest {

using Control = zuGevDaemon::CDevInst::Control;

struct DevInstProbe {
    static void setControl(zuGevDaemon::CDevInst& instance, std::shared_ptr<Control> control)
    {
        instance.control = std::move(control);
    }
    static bool clientGone(zuGevDaemon::CDevInst& instance) { return instance.IsClientGone(); }
};

/// A camera link whose operations do what a test puts in, and else what they always do.
struct FailingControl : Control {
    FailingControl() : Control({}, {}, {}) {}
    bool IsLinked() override { return isLinked ? isLinked() : Control::IsLinked(); }
    bool HasCcp() override { return hasControl ? hasControl() : Control::HasCcp(); }
    void Unlink() override
    {
        ++unlinks;
        if (unlink)
            unlink();
        else
            Control::Unlink();
    }
    void GetLocalAddress(std::uint32_t& ip, std::uint16_t& port) override
    {
        if (localAddress)
            localAddress();
        else
            Control::GetLocalAddress(ip, port);
    }
    std::function<bool()> isLinked;
    std::function<bool()> hasControl;
    std::function<void()> unlink;
    std::function<void()> localAddress;
    std::atomic<int> unlinks{0};
};

/// A client that is gone when the camera asks for patience.
struct UnreachableClient : ScriptedClient {
    void ExtendTimeout(std::uint32_t, std::uint32_t) override { throw std::runtime_error("nobody there"); }
};

template <typename TClient>
struct InstanceOf {
    explicit InstanceOf(const std::string& cameraAddress) : camera(cameraAddress, 0)
    {
        run(Build(CmdSetDestination).u32(TagDestIp, camera.ip()).u16(TagDestPort, camera.port()));
    }
    Bytes run(const Build& request) { return client->command(request); }
    /// Without a heartbeat, which could meet a fault that is meant for a command.
    void link()
    {
        run(Build(CmdLink).u32(TagLinkMode, 3));
        run(Build(CmdSetHeartbeat).u32(TagHeartbeatTimeout, 0));
        camera.clearLog();
    }

    gevsim::Camera camera;
    std::shared_ptr<TClient> client = std::make_shared<TClient>();
    std::vector<zuGevDaemon::CDevInst*> gone;
    std::unique_ptr<zuGevDaemon::CDevInst> instance = std::make_unique<zuGevDaemon::CDevInst>(
        client, [this](zuGevDaemon::CDevInst* i) { gone.push_back(i); }, [](zuGevDaemon::CDevInst*) {});
};

} // namespace zuTest
