// A CWinSvc over the scripted service manager and clock, with what it prints.
#pragma once

#include "src/WinSvc.h"
#include "tests/support/fake_service_clock.h"
#include "tests/support/fake_service_manager.h"

#include <gmock/gmock.h>

#include <functional>
#include <iostream>
#include <sstream>
#include <string>

namespace zuTest {

/// Shows what the object keeps to itself.
class OpenWinSvc : public GEV::CWinSvc {
public:
    using GEV::CWinSvc::displayName;
    using GEV::CWinSvc::manager;
    using GEV::CWinSvc::runCallback;
    using GEV::CWinSvc::serviceName;
    using GEV::CWinSvc::statusHandle;
    using GEV::CWinSvc::stopCallback;
    using GEV::CWinSvc::verbose;
};

class WinSvcTest : public testing::Test {
protected:
    WinSvcTest()
    {
        FakeClock::reset(0xFFFFF000); // wraps in the middle of most tests
        previous_ = std::cout.rdbuf(printed_.rdbuf());
    }
    ~WinSvcTest() override { std::cout.rdbuf(previous_); }

    std::string printed() const { return printed_.str(); }

    /// The words of the WinServiceException that `call` throws; "no exception" without one.
    static std::string failure(const std::function<void()>& call)
    {
        try {
            call();
        } catch (const GEV::WinServiceException& error) {
            return error.what();
        }
        return "no exception";
    }

    FakeServiceManager fake;

private:
    std::ostringstream printed_;
    std::streambuf* previous_;
};

} // namespace zuTest
