// CGVCP over a scripted connection, with a record of its log lines and of the wakes it asks for.
#pragma once

#include "GevTLBase/GVCP_impl.h"

#include "fake_connection.h"
#include "tests/support/log_lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace gevTest {

class TestGvcp : public GEV::CGVCP<FakeConnection> {
public:
    TestGvcp() { SetConnection(std::make_shared<FakeConnection>()); }

    void RestartHeartbeatWait(std::uint64_t delayMs) override { wakes.push_back(delayMs); }

    using CGVCP::ackTimeout;
    using CGVCP::byteSwap;
    using CGVCP::commandMutex;
    using CGVCP::hasCcp;
    using CGVCP::requestId;
    using CGVCP::retries;
    using CGVCP::rxBuffer;

    std::vector<std::uint64_t> wakes;
};

class Gvcp : public testing::Test {
protected:
    using None = GEV::PendingAckCallback;

    /// Runs `command` and returns what it throws; the test fails if that isn't a GevException.
    template <typename Command>
    GEV::GevException failureOf(Command command)
    {
        try {
            command();
        } catch (const GEV::GevException& e) {
            return GEV::GevException(e);
        }
        ADD_FAILURE() << "nothing was thrown";
        return GEV::GevException("");
    }

    std::uint32_t readReg(std::uint32_t address, bool swap = true)
    {
        std::uint32_t value = 0;
        gvcp.ReadReg(address, value, swap, None());
        return value;
    }

    std::vector<std::string> gvcpLines() const { return lines(log, "GVCP"); }

    zuTest::LogRecorder log;
    TestGvcp gvcp;
    FakeConnection& connection = *gvcp.GetConnection();
};

} // namespace gevTest
