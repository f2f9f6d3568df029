// Whether a program lies in this machine: the file system of its path in the place of a drive. Any thread may call.
#include "platform/linux/service_unit.h"
#include "platform/service_manager.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <sstream>

namespace zuPlatform {

namespace {

// File systems whose files lie on another machine, or outside this one, by their statfs type (see statfs(2)).
constexpr std::array<std::uint32_t, 18> remoteTypes = {
    0x00006969, // NFS
    0x0000517B, // SMB
    0xFE534D42, // SMB2
    0xFF534D42, // CIFS
    0x5346414F, // AFS
    0x6B414653, // AFS of the kernel
    0x73757245, // CODA
    0x00C36400, // CEPH
    0x0000564C, // NCP
    0x7461636F, // OCFS2
    0x0BD00BD0, // LUSTRE
    0x01161970, // GFS2
    0x01021997, // 9P
    0x786F4256, // VBOXSF
    0xBACBACBC, // VMHGFS
    0x47504653, // GPFS
    0x19830326, // BEEGFS
    0xAAD7AAEA, // PANFS
};
constexpr std::uint32_t fuseType = 0x65735546;

/// A file system in user space tells by its mount only what it is: "fuseblk" is one on a disk.
bool isLocalFuse(const std::string& path)
{
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        return false;
    const std::string device = std::to_string(major(info.st_dev)) + ":" + std::to_string(minor(info.st_dev));
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        // "id parent major:minor root mountpoint options [fields] - type source options"
        std::istringstream words(line);
        std::string id, parent, number;
        words >> id >> parent >> number;
        const std::size_t mark = line.find(" - ");
        if (number != device || mark == std::string::npos)
            continue;
        std::istringstream rest(line.substr(mark + 3));
        std::string type;
        rest >> type;
        return type == "fuseblk" || type == "fuse.fuse-overlayfs" || type == "fuse.unionfs";
    }
    return false;
}

} // namespace

std::string volumeOfPath(const std::string& commandLine) { return splitServiceCommand(commandLine).program; }

std::uint32_t volumeType(const std::string& volume)
{
    struct statfs info {};
    if (::statfs(volume.c_str(), &info) != 0)
        return volumeMissing;
    const auto type = static_cast<std::uint32_t>(info.f_type);
    if (type == fuseType)
        return isLocalFuse(volume) ? volumeFixed : volumeRemote;
    return std::find(remoteTypes.begin(), remoteTypes.end(), type) != remoteTypes.end() ? volumeRemote : volumeFixed;
}

bool queryVolumeDevice(const std::string&, char* buffer, std::size_t size)
{
    if (size > 0)
        buffer[0] = '\0';
    return false;
}

} // namespace zuPlatform
