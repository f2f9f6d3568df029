// Opening the manager, installing and deleting.
#include "tests/unit/service/winsvc_fixture.h"

#include <optional>

namespace zuTest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* programWithTail = "C:\\Program Files\\zu\\zuGevSvc.exe -s ";

TEST_F(WinSvcTest, KnowsItsService)
{
    OpenWinSvc service;
    EXPECT_EQ(service.serviceName, "zuGevSvc");
    EXPECT_EQ(service.displayName, "ORTOLAN GigE Vision Service");
    EXPECT_FALSE(service.verbose);
    EXPECT_EQ(service.manager, 0u);
    EXPECT_THAT(fake.calls(), IsEmpty());
}

TEST_F(WinSvcTest, OpensTheManagerWithAllAccessAndClosesItAtTheEnd)
{
    {
        OpenWinSvc service;
        service.OpenManager();
        EXPECT_THAT(fake.openHandles(), ElementsAre("manager"));
    }
    EXPECT_THAT(fake.calls(), ElementsAre("OpenSCManager(0xf003f)", "CloseServiceHandle(manager)"));
    EXPECT_THAT(fake.openHandles(), IsEmpty());
    EXPECT_EQ(printed(), "");
}

TEST_F(WinSvcTest, RefusedManager)
{
    fake.refused = "OpenSCManager";
    {
        OpenWinSvc service;
        EXPECT_EQ(failure([&] { service.OpenManager(); }), "Unable to open service manager");
    }
    EXPECT_THAT(fake.calls(), ElementsAre("OpenSCManager(0xf003f)")) << "nothing to close";
    EXPECT_EQ(printed(), "");
}

TEST_F(WinSvcTest, RefusedManagerIsPrintedWhenVerboseWithoutAClosingParenthesis)
{
    fake.refused = "OpenSCManager";
    fake.error = 1722;
    OpenWinSvc service;
    service.verbose = true;
    EXPECT_EQ(failure([&] { service.OpenManager(); }), "Unable to open service manager");
    EXPECT_EQ(printed(), "OpenSCManager failed (1722\n");
}

TEST_F(WinSvcTest, ExceptionIsARuntimeErrorOfAString)
{
    const GEV::WinServiceException error(std::string("words"));
    const std::runtime_error& base = error;
    EXPECT_STREQ(base.what(), "words");
}

class WinSvcInstallTest : public WinSvcTest {
protected:
    WinSvcInstallTest() { service.OpenManager(); }

    OpenWinSvc service;
};

TEST_F(WinSvcInstallTest, CreatesTheServiceWithTheCommandLineAsItStands)
{
    service.Install(programWithTail);
    EXPECT_THAT(fake.calls(), ElementsAre("OpenSCManager(0xf003f)", "GetDriveType(C:)", "QueryDosDevice(C:,0x400)",
                                          "CreateService(manager,zuGevSvc,ORTOLAN GigE Vision Service,0xf01ff,0x10,2,1,"
                                          "[C:\\Program Files\\zu\\zuGevSvc.exe -s ])",
                                          "CloseServiceHandle(service)"));
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager"));
    EXPECT_EQ(printed(), "");
}

TEST_F(WinSvcInstallTest, SubstitutedDriveIsRegisteredByItsRealPath)
{
    fake.device = "\\??\\D:\\work\\tree";
    service.Install("S:\\bin\\zuGevSvc.exe -s ");
    EXPECT_THAT(fake.calls(), testing::Contains(testing::EndsWith(",[D:\\work\\tree\\bin\\zuGevSvc.exe -s ])")));
    EXPECT_THAT(fake.calls(), testing::Contains("GetDriveType(S:)"));
}

TEST_F(WinSvcInstallTest, OnlyTheMarkAtItsPlaceMeansASubstitutedDrive)
{
    for (const char* device : {"??\\D:\\work", "\\?\\D:", "\\\\??D:", "", "\\", "\\?"}) {
        fake.device = device;
        service.Install("S:\\zuGevSvc.exe -s ");
        EXPECT_THAT(fake.calls(), testing::Contains(testing::EndsWith(",[S:\\zuGevSvc.exe -s ])"))) << device;
    }
    EXPECT_THAT(fake.calls(), Not(testing::Contains(testing::HasSubstr("[D:"))));
}

TEST_F(WinSvcInstallTest, MarkWithNothingBehindIt)
{
    fake.device = "\\??";
    service.Install("S:\\zuGevSvc.exe -s ");
    EXPECT_THAT(fake.calls(), testing::Contains(testing::EndsWith(",[\\zuGevSvc.exe -s ])")));
}

TEST_F(WinSvcInstallTest, DeviceNameLongerThanTheBuffer)
{
    fake.device = "\\??\\D:\\" + std::string(5000, 'x');
    service.Install("S:\\zuGevSvc.exe -s ");
    const std::string cut = "D:\\" + std::string(0x3FF - 7, 'x');
    EXPECT_THAT(fake.calls(), testing::Contains(testing::EndsWith(",[" + cut + "\\zuGevSvc.exe -s ])")));
}

TEST_F(WinSvcInstallTest, PathWithoutADriveLetter)
{
    for (const char* path : {"\\\\server\\share\\zuGevSvc.exe -s ", "zuGevSvc.exe -s ", "C", ""})
        EXPECT_EQ(failure([&] { service.Install(path); }), "Install failed") << path;
    EXPECT_EQ(failure([&] { service.Install(nullptr); }), "Install failed");
    EXPECT_EQ(printed(), "failed to retrieve exe name\nfailed to retrieve exe name\nfailed to retrieve exe name\n"
                         "failed to retrieve exe name\nfailed to retrieve exe name\n");
    EXPECT_THAT(fake.calls(), ElementsAre("OpenSCManager(0xf003f)"));
}

TEST_F(WinSvcInstallTest, OnlyAFixedDriveWillDo)
{
    for (const std::uint32_t type : {0u, 1u, 2u, 4u, 5u, 6u}) {
        fake.driveType = type;
        EXPECT_EQ(failure([&] { service.Install(programWithTail); }), "Install failed") << type;
    }
    EXPECT_EQ(printed(), "failed to retrieve drive type\nfailed to retrieve drive type\n"
                         "failed to retrieve drive type\nfailed to retrieve drive type\n"
                         "failed to retrieve drive type\nfailed to retrieve drive type\n");
    EXPECT_THAT(fake.calls(), Not(testing::Contains(testing::HasSubstr("QueryDosDevice"))));
    EXPECT_THAT(fake.calls(), Not(testing::Contains(testing::HasSubstr("CreateService"))));
}

TEST_F(WinSvcInstallTest, RefusedCreation)
{
    fake.refused = "CreateService";
    EXPECT_EQ(failure([&] { service.Install(programWithTail); }), "Install failed");
    EXPECT_EQ(printed(), "");
    service.verbose = true;
    EXPECT_EQ(failure([&] { service.Install(programWithTail); }), "Install failed");
    EXPECT_EQ(printed(), "Install service failed \n");
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager"));
}

class WinSvcDeleteTest : public WinSvcInstallTest {};

TEST_F(WinSvcDeleteTest, DeletesAndCloses)
{
    service.Delete();
    EXPECT_THAT(fake.calls(), ElementsAre("OpenSCManager(0xf003f)", "OpenService(manager,zuGevSvc,0x10000)",
                                          "DeleteService(service)", "CloseServiceHandle(service)"));
    EXPECT_EQ(printed(), "");
    service.verbose = true;
    service.Delete();
    EXPECT_EQ(printed(), "DeleteService succeeded\n");
}

TEST_F(WinSvcDeleteTest, RefusedOpening)
{
    fake.refused = "OpenService";
    fake.error = 1060;
    EXPECT_EQ(failure([&] { service.Delete(); }), "OpenService failed");
    EXPECT_EQ(printed(), "");
    service.verbose = true;
    EXPECT_EQ(failure([&] { service.Delete(); }), "OpenService failed");
    EXPECT_EQ(printed(), "OpenService failed (1060)\n");
}

TEST_F(WinSvcDeleteTest, RefusedDeletionLeavesTheHandleOpen)
{
    fake.refused = "DeleteService";
    fake.error = 1072;
    EXPECT_EQ(failure([&] { service.Delete(); }), "DeleteService failed");
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service"));
    EXPECT_EQ(printed(), "");
    service.verbose = true;
    EXPECT_EQ(failure([&] { service.Delete(); }), "DeleteService failed");
    EXPECT_EQ(printed(), "DeleteService failed (1072)\n");
}

} // namespace
} // namespace zuTest
