#include "tests/soak/worker.h"

#include "client/GevClient.h"
#include "tools/gevsim/registers.h"

#include <chrono>
#include <random>
#include <thread>
#include <vector>

namespace zuSoak {

namespace {

using namespace zuGevClient;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t standardVersion = 0x00010002;
constexpr std::uint32_t areaSize = 0x4000;
constexpr std::uint32_t longestOffset = 0x1000;
constexpr std::uint32_t longestBlock = 0x0C00;
constexpr std::uint16_t switchoverKey = 7;
constexpr auto longestWork = std::chrono::seconds(60);

class Worker {
public:
    explicit Worker(const Task& task) : task_(task), random_(task.seed)
    {
        if (oneIn(2))
            connection_.setEventHandler([](Event) {});
        connection_.setDestination({task.camera, gvcpPort});
        if (oneIn(4))
            connection_.bind({0x7F000001, 0});
        connection_.setAckTimeout(Milliseconds(20 + below(300)));
        connection_.setRetries(1 + below(4));
    }

    void run()
    {
        const auto end = Clock::now() + longestWork;
        for (unsigned left = 5 + below(200); left != 0 && Clock::now() < end; --left) {
            try {
                step();
            } catch (const CameraError&) {
            } catch (const NoDaemonError&) {
                throw;
            } catch (const TimeoutError&) {
                throw;
            } catch (const Error&) {
                // no privilege, and what else belongs to the state that the link is in
            }
        }
    }

private:
    std::uint32_t below(std::uint32_t limit)
    {
        return std::uniform_int_distribution<std::uint32_t>(0, limit - 1)(random_);
    }
    bool oneIn(std::uint32_t count) { return below(count) == 0; }

    void step()
    {
        switch (below(11)) {
        case 0:
            link();
            break;
        case 1:
            if (oneIn(4))
                connection_.unlink();
            break;
        case 2:
            connection_.checkLink();
            break;
        case 3:
        case 4:
            if (const std::uint32_t value = connection_.readRegister(gevsim::reg::version); value != standardVersion)
                throw std::runtime_error("a register that never changes read " + std::to_string(value));
            break;
        case 5:
            connection_.writeRegister(gevsim::feature::testValue, below(0xFFFFFFFF));
            break;
        case 6:
            writeBlock();
            break;
        case 7:
        case 8:
            readBlock();
            break;
        case 9:
            connection_.ping();
            break;
        default:
            connection_.setHeartbeat(Milliseconds(500 + below(3000)));
        }
    }

    void link()
    {
        const LinkMode modes[] = {LinkMode::monitor(), LinkMode::control(), LinkMode::exclusive(),
                                  LinkMode::switchover(switchoverKey)};
        connection_.link(modes[below(std::size(modes))]);
    }

    void writeBlock()
    {
        std::vector<std::uint8_t> bytes(1 + below(longestBlock));
        for (std::uint8_t& byte : bytes)
            byte = static_cast<std::uint8_t>(below(0x100));
        address_ = gevsim::region::memory + task_.area * areaSize + below(longestOffset);
        written_.clear();
        connection_.writeMemory(address_, bytes.data(), bytes.size());
        written_ = std::move(bytes);
    }

    void readBlock()
    {
        if (!written_.empty() && connection_.readMemory(address_, written_.size()) != written_ && task_.verify)
            throw std::runtime_error("what was written at " + std::to_string(address_) + " was not read there");
    }

    const Task task_;
    std::mt19937 random_;
    Connection connection_;
    std::uint32_t address_ = 0;
    std::vector<std::uint8_t> written_; ///< empty: unknown
};

} // namespace

std::string work(const Task& task)
{
    try {
        Worker(task).run();
        return "";
    } catch (const std::exception& failure) {
        return failure.what();
    }
}

} // namespace zuSoak
