// Puts unit files in their place and takes them away again. Runs on the caller's thread.
#include "platform/linux/service_register.h"

#include "platform/linux/service_unit.h"

#include <fcntl.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <fstream>
#include <sstream>

namespace zuPlatform {

namespace {

constexpr const char* unitDirectory = "/etc/systemd/system/";
constexpr const char* serviceAccount = "zugevsvc";
constexpr int mostKept = 100;

std::string fileOf(const std::string& unit) { return unitDirectory + unit; }

/// Puts the unit file in its place whole or not at all, and never over another. An errno value.
int writeUnitFile(const std::string& path, const std::string& text)
{
    std::string temporary = path + ".XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0)
        return errno;
    int error = 0;
    for (std::size_t done = 0; done < text.size() && error == 0;) {
        const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
        if (written >= 0)
            done += static_cast<std::size_t>(written);
        else if (errno != EINTR)
            error = errno;
    }
    if (error == 0 && (::fchmod(fd, 0644) != 0 || ::fsync(fd) != 0))
        error = errno;
    ::close(fd);
    if (error == 0 && ::link(temporary.c_str(), path.c_str()) != 0)
        error = errno;
    ::unlink(temporary.c_str());
    return error;
}

/// Takes away the unit file that a registration has written. One that somebody has changed, or put there, is theirs: it
/// gets a name that systemd doesn't look at. An errno value.
int removeUnitFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        return errno == ENOENT ? 0 : errno;
    if (!isServiceUnitAsWritten(text.str())) {
        int error = EEXIST;
        for (int kept = 1; kept <= mostKept && error == EEXIST; ++kept) {
            const std::string name = path + ".bak" + (kept == 1 ? "" : std::to_string(kept));
            error = ::link(path.c_str(), name.c_str()) == 0 ? 0 : errno;
        }
        if (error != 0)
            return error;
    }
    return ::unlink(path.c_str()) == 0 ? 0 : errno;
}

/// A mask that outlives the boot.
bool isMask(const std::string& path)
{
    std::array<char, PATH_MAX> target{};
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    return length > 0 && std::string(target.data(), static_cast<std::size_t>(length)) == "/dev/null";
}

/// The account of the service, made if it is missing; false if there is none. What the program that makes it has to
/// say is not for whoever reads our output.
bool haveServiceAccount()
{
    if (::getpwnam(serviceAccount))
        return true;
    const std::string line = std::string("u ") + serviceAccount + " - \"GigE Vision service\"";
    const char* const arguments[] = {"systemd-sysusers", "--inline", line.c_str(), nullptr};
    const char* const environment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", nullptr};
    posix_spawn_file_actions_t streams;
    ::posix_spawn_file_actions_init(&streams);
    ::posix_spawn_file_actions_addopen(&streams, STDIN_FILENO, "/dev/null", O_RDWR, 0);
    ::posix_spawn_file_actions_adddup2(&streams, STDIN_FILENO, STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&streams, STDIN_FILENO, STDERR_FILENO);
    pid_t child = 0;
    const int failed = ::posix_spawnp(&child, arguments[0], &streams, nullptr, const_cast<char* const*>(arguments),
                                      const_cast<char* const*>(environment));
    ::posix_spawn_file_actions_destroy(&streams);
    if (failed != 0)
        return false;
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return ::getpwnam(serviceAccount) != nullptr;
}

/// Writes a unit of our own. An errno value.
int writeOwnUnit(const std::string& path, ServiceUnit wanted)
{
    if (executableByAll(wanted.command.program) && haveServiceAccount())
        wanted.user = serviceAccount;
    else if (!changeableByRootOnly(wanted.command.program))
        return EACCES; // it would have to be run as root, and be whatever somebody else makes of it
    return writeUnitFile(path, serviceUnitText(wanted));
}

/// Of a unit that is not masked, or no longer. An errno value; leaves nothing when it fails.
int registerUnmasked(ServiceBus& bus, const std::string& unit, const ServiceUnit& wanted)
{
    UnitFacts facts;
    if (const int error = bus.facts(unit, facts))
        return error;
    if (isRegistered(unit, facts) && facts.fileState != "disabled")
        return EEXIST;
    const std::string file = fileOf(unit);
    const bool useInstalled = facts.isLoaded() && facts.program == wanted.command.program;
    if (!useInstalled) {
        if (const int error = writeOwnUnit(file, wanted))
            return error;
    } else if (::access(file.c_str(), F_OK) == 0) {
        return EEXIST;
    }

    int error = bus.reload();
    if (error == 0)
        error = bus.facts(unit, facts);
    if (error == 0 && !facts.isLoaded())
        error = ENOEXEC;
    const bool loaded = error == 0;
    if (error == 0)
        error = bus.enableUnit(unit);
    if (error == 0)
        error = bus.reload();
    if (error == 0)
        return 0;
    if (loaded)
        bus.disableUnit(unit);
    if (!useInstalled)
        ::unlink(file.c_str());
    bus.reload();
    return error;
}

} // namespace

bool isRegistered(const std::string& unit, const UnitFacts& facts)
{
    if (facts.isLoaded())
        return true;
    const bool unusable = facts.loadState == "bad-setting" || facts.loadState == "error";
    return unusable && (!facts.fileState.empty() || ::access(fileOf(unit).c_str(), F_OK) == 0);
}

int registerUnit(ServiceBus& bus, const std::string& unit, const std::string& displayName,
                 const std::string& commandLine)
{
    ServiceUnit wanted;
    wanted.displayName = displayName;
    wanted.command = splitServiceCommand(commandLine);
    if (!usableInUnit(wanted.command.program))
        return EINVAL;
    UnitFacts facts;
    if (const int error = bus.facts(unit, facts))
        return error;
    if (facts.loadState != "masked")
        return registerUnmasked(bus, unit, wanted);

    // That is what became of an installed unit when it was deleted. A mask for this boot only was somebody's else.
    if (!isMask(fileOf(unit)))
        return EEXIST;
    int error = bus.unmaskUnit(unit);
    if (error == 0)
        error = bus.reload();
    if (error == 0)
        error = registerUnmasked(bus, unit, wanted);
    if (error != 0) {
        bus.maskUnit(unit);
        bus.reload();
    }
    return error;
}

int unregisterUnit(ServiceBus& bus, const std::string& unit)
{
    UnitFacts facts;
    if (const int error = bus.facts(unit, facts))
        return error;
    if (!isRegistered(unit, facts))
        return ENOENT;
    if (const int error = bus.disableUnit(unit))
        return error;
    if (const int error = removeUnitFile(fileOf(unit)))
        return error;
    if (const int error = bus.reload())
        return error;
    // A unit file that a package brought is the package's to remove. Masked, it counts as deleted.
    if (const int error = bus.facts(unit, facts))
        return error;
    if (isRegistered(unit, facts) && !facts.fileState.empty()) {
        if (const int error = bus.maskUnit(unit))
            return error;
        return bus.reload();
    }
    return 0;
}

} // namespace zuPlatform
