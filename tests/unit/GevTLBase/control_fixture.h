// CGevControl over a scripted connection that answers as a device does.
#pragma once

#include "GevTLBase/GevControl_impl.h"

#include "fake_connection.h"
#include "tests/support/log_lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <sstream>

namespace gevTest {

constexpr std::uint32_t ccpRegister = 0x0A00;
constexpr std::uint32_t timeoutRegister = 0x0938;
constexpr std::uint32_t capabilityRegister = 0x0934;
constexpr std::uint32_t modeRegister = 0x0004;

using TestControl = GEV::CGevControl<FakeConnection>;

/// The fields of a control object. Not a class derived from it under test: the object of a derived class changes its
/// nature when it is destroyed, under the eyes of its heartbeat thread.
class Fields {
    struct Names : TestControl {
        using TestControl::byteSwap;
        using TestControl::ccpValue;
        using TestControl::gvcpCapability;
        using TestControl::hasCcp;
        using TestControl::heartbeatMutex;
        using TestControl::heartbeatPeriod;
        using TestControl::runFlag;
        using TestControl::sleepUntil;
        using TestControl::waiting;
        using TestControl::wakeSignalled;
    };
    TestControl& control_;

public:
    explicit Fields(TestControl& control) : control_(control) {}
    // clang-format off
    auto& byteSwap() const { return control_.*(&Names::byteSwap); }
    auto& ccpValue() const { return control_.*(&Names::ccpValue); }
    auto& gvcpCapability() const { return control_.*(&Names::gvcpCapability); }
    auto& hasCcp() const { return control_.*(&Names::hasCcp); }
    auto& heartbeatMutex() const { return control_.*(&Names::heartbeatMutex); }
    auto& heartbeatPeriod() const { return control_.*(&Names::heartbeatPeriod); }
    auto& runFlag() const { return control_.*(&Names::runFlag); }
    auto& sleepUntil() const { return control_.*(&Names::sleepUntil); }
    auto& waiting() const { return control_.*(&Names::waiting); }
    auto& wakeSignalled() const { return control_.*(&Names::wakeSignalled); }
    // clang-format on
};

inline std::string addressOf(const TestControl& control)
{
    std::ostringstream text;
    text << static_cast<const void*>(&control);
    return text.str();
}

class Control : public testing::Test {
protected:
    Control() { make(); }
    ~Control() override { control.reset(); }

    /// A new object with these callbacks, over a device that answers everything.
    void make(GEV::LinkCallback ccpLost = {}, GEV::LinkCallback connectionLost = {}, GEV::LinkCallback reconnected = {})
    {
        control.reset();
        control = std::make_unique<TestControl>(std::move(ccpLost), std::move(connectionLost), std::move(reconnected));
        device.set(timeoutRegister, 3000);
        device.set(capabilityRegister, 0x00000011);
        fake().respond(device.responder());
    }

    FakeConnection& fake() const { return *control->GetConnection(); }
    Fields fields() const { return Fields(*control); }

    /// What was sent: "R 0a00" and "W 0a00 00000002" for register commands.
    std::vector<std::string> commands() const
    {
        std::vector<std::string> result;
        for (const Bytes& data : fake().sent()) {
            char text[32];
            if (big16(data, 2) == 0x80)
                std::snprintf(text, sizeof text, "R %04x", unsigned{big32(data, 8)});
            else
                std::snprintf(text, sizeof text, "W %04x %08x", unsigned{big32(data, 8)}, unsigned{big32(data, 12)});
            result.push_back(text);
        }
        return result;
    }
    static std::size_t countOf(const std::vector<FakeConnection::Sent>& sent, std::uint16_t command,
                               std::uint32_t address)
    {
        std::size_t count = 0;
        for (const FakeConnection::Sent& datagram : sent)
            count += isCommand(datagram.data, command, address) ? 1 : 0;
        return count;
    }
    /// Waits until CCP was read that often.
    bool waitForCcpReads(std::size_t count, std::chrono::milliseconds deadline = hardDeadline)
    {
        return fake().waitFor(
            [count](const std::vector<FakeConnection::Sent>& sent) {
                return countOf(sent, 0x80, ccpRegister) >= count;
            },
            deadline);
    }
    std::size_t ccpReads() const { return countOf(fake().sentWithTimes(), 0x80, ccpRegister); }

    /// Register commands on `address` that no device answers.
    static FakeDevice::Fault silenceOn(std::uint32_t address)
    {
        return [address](FakeConnection&, const Bytes& data) { return big32(data, 8) == address; };
    }
    /// Commands `command` on `address` that are answered with `status`.
    static FakeDevice::Fault refuse(std::uint16_t command, std::uint32_t address, std::uint16_t status)
    {
        return [=](FakeConnection& c, const Bytes& data) {
            if (!isCommand(data, command, address))
                return false;
            c.push(ack(status, static_cast<std::uint16_t>(command + 1), big16(data, 6)));
            return true;
        };
    }

    std::vector<std::string> controlLines() const { return lines(log, "GEVCTRL"); }

    zuTest::LogRecorder log;
    FakeDevice device;
    std::unique_ptr<TestControl> control;
};

} // namespace gevTest
