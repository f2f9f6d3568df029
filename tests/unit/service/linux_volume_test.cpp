// File systems of all kinds, by a statfs of the test's own in the place of the system's.
#include "platform/service_manager.h"

#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>

namespace {

std::atomic<bool> scripted{false};
std::atomic<decltype(statfs::f_type)> scriptedType{0};

} // namespace

extern "C" int statfs(const char* path, struct statfs* info) noexcept
{
    if (!scripted)
        return static_cast<int>(::syscall(SYS_statfs, path, info));
    *info = {};
    info->f_type = scriptedType;
    return 0;
}

namespace zuPlatform {
namespace {

class Volume : public testing::Test {
protected:
    ~Volume() override { scripted = false; }

    static std::uint32_t typeOf(std::uint32_t fileSystem)
    {
        scriptedType = fileSystem;
        scripted = true;
        const std::uint32_t type = volumeType("/proc/self/exe");
        scripted = false;
        return type;
    }
};

TEST_F(Volume, FileSystemsOfThisMachineAreFixed)
{
    EXPECT_EQ(typeOf(0xEF53), volumeFixed) << "ext4";
    EXPECT_EQ(typeOf(0x58465342), volumeFixed) << "xfs";
    EXPECT_EQ(typeOf(0x9123683E), volumeFixed) << "btrfs";
    EXPECT_EQ(typeOf(0x01021994), volumeFixed) << "tmpfs";
    EXPECT_EQ(typeOf(0x794C7630), volumeFixed) << "overlay";
}

TEST_F(Volume, NetworkMountsAreRemote)
{
    EXPECT_EQ(typeOf(0x6969), volumeRemote) << "nfs";
    EXPECT_EQ(typeOf(0xFF534D42), volumeRemote) << "cifs";
    EXPECT_EQ(typeOf(0xFE534D42), volumeRemote) << "smb2";
    EXPECT_EQ(typeOf(0x00C36400), volumeRemote) << "ceph";
    EXPECT_EQ(typeOf(0x01021997), volumeRemote) << "9p";
}

TEST_F(Volume, FileSystemInUserSpaceThatIsOnNoDiskIsRemote)
{
    // The mount of this program's file is no such one, whatever statfs says.
    EXPECT_EQ(typeOf(0x65735546), volumeRemote);
}

} // namespace
} // namespace zuPlatform
