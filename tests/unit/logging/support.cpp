#include "tests/unit/logging/support.h"

#include "platform/debug_channel.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace zuTest {

using namespace zuLogging;

void runAndExit(const std::function<void()>& body)
{
    body();
    std::exit(::testing::Test::HasFailure() ? 1 : 0);
}

void CollectingTarget::write(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end)
{
    const boost::lock_guard<boost::mutex> lock(mutex_);
    if (before)
        before();
    wide.emplace_back(begin, end);
    states.push_back(static_cast<const basic_timed_msgstate&>(msg));
}

void CollectingTarget::write(const basic_msgstate& msg, const char* begin, const char* end)
{
    const boost::lock_guard<boost::mutex> lock(mutex_);
    if (before)
        before();
    lines_.emplace_back(begin, end);
    states.push_back(static_cast<const basic_timed_msgstate&>(msg));
}

std::vector<std::string> CollectingTarget::lines() const
{
    const boost::lock_guard<boost::mutex> lock(mutex_);
    return lines_;
}

boost::posix_time::ptime moment(const std::string& text) { return boost::posix_time::time_from_string(text); }

basic_timed_msgstate message(const std::string& path, std::uint32_t level, group_id group)
{
    basic_timed_msgstate state(basic_msgstate(get_logstate(path)), moment("2026-Nov-12 10:58:49.123456"));
    state.level = level;
    state.group = group;
    return state;
}

void write(basic_logtarget& target, const basic_msgstate& msg, const std::string& text)
{
    target.write(msg, text.data(), text.data() + text.size());
}

void write(basic_logtarget& target, const basic_msgstate& msg, const std::wstring& text)
{
    target.write(msg, text.data(), text.data() + text.size());
}

TempFolder::TempFolder()
{
    std::string name = (std::filesystem::temp_directory_path() / "zulogXXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no temporary folder");
    path_ = name;
}

TempFolder::~TempFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> splitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

DebugListener::DebugListener() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    const std::string path = folder_ / "log";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), std::min(path.size() + 1, sizeof address.sun_path - 1));
    if (socket_ < 0 || ::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("no debugger channel");
    zuPlatform::setDebugChannelForTesting(path);
}

DebugListener::~DebugListener()
{
    zuPlatform::setDebugChannelForTesting("/dev/null/none");
    ::close(socket_);
}

std::string DebugListener::next()
{
    pollfd input{socket_, POLLIN, 0};
    if (::poll(&input, 1, 20000) != 1)
        return "<none>";
    std::string record(0x10000, '\0');
    const ssize_t size = ::recv(socket_, record.data(), record.size(), 0);
    record.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    const std::size_t head = record.find("]: ");
    return head == std::string::npos ? record : record.substr(head + 3);
}

bool DebugListener::quiet()
{
    pollfd input{socket_, POLLIN, 0};
    return ::poll(&input, 1, 0) == 0;
}

} // namespace zuTest
