// A simulated GigE Vision camera in this process: answers GVCP on one address, misbehaves on demand, and remembers what
// it was sent. For tests, benchmarks and the program gevsim.
#pragma once

#include "tools/gevsim/config.h"
#include "tools/gevsim/datagram.h"
#include "tools/gevsim/fault.h"
#include "tools/gevsim/privilege.h"
#include "tools/gevsim/registers.h"
#include "tools/gevsim/stream_fault.h"
#include "tools/gevsim/stream_types.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace gevsim {

/// Answers from its construction to its destruction, on one thread of its own, or three with broadcast discovery; one
/// more sends pictures as soon as a client has opened the stream channel. Every operation may be called from any thread
/// and, unless it says so, doesn't wait. When a client has an answer in its hands, the log has command and answer.
/// Control of a silent holder is gone for every question as soon as its time is over, whether or not anything was sent.
class Camera {
public:
    using Milliseconds = std::chrono::milliseconds;
    static constexpr Milliseconds defaultDeadline{20000};

    /// Throws std::runtime_error if the address can't be bound, std::invalid_argument if the configuration is unusable.
    explicit Camera(const Config& config = Config());
    explicit Camera(const Endpoint& endpoint) : Camera(configFor(endpoint)) {}
    explicit Camera(const std::string& ip, std::uint16_t port = gvcpPort) : Camera(Endpoint(ip, port)) {}
    ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    /// Where it listens, with the real port. Host byte order. FORCEIP and a power cycle may change the address.
    Endpoint endpoint() const;
    std::uint32_t ip() const { return endpoint().ip; }
    std::uint16_t port() const { return endpoint().port; }

    // Registers and memory, past protection, privilege and faults. Writes have the effects that they have for a client;
    // a CCP value other than 0 gives control to an unknown application that never lets go. std::out_of_range for an
    // address that the camera doesn't have; registers want a multiple of 4.
    std::uint32_t readRegister(std::uint32_t address) const;
    void writeRegister(std::uint32_t address, std::uint32_t value);
    std::vector<std::uint8_t> readMemory(std::uint32_t address, std::size_t size) const;
    void writeMemory(std::uint32_t address, const std::vector<std::uint8_t>& bytes);

    Control control() const;
    void setControl(const Control& control); ///< as if the holder had just taken it

    // Faults. They act on commands that come from now on.
    void inject(const Fault& fault);
    std::vector<Fault> faults() const; ///< those that still wait for a command, with the counts that are left
    void silence(Milliseconds time);   ///< deaf and mute for so long, Milliseconds::max() for good
    void endSilence();
    /// Waits where FORCEIP has moved the camera just before.
    void powerCycle(Milliseconds off = Milliseconds(
                        0)); ///< CCP 0, registers and memory reset, answers on their way lost; silent while off
    void setLoss(double probability,
                 std::uint64_t seed); ///< each datagram, either way, is lost with this probability (0 to 1)
    std::uint64_t seed() const;       ///< Config::seed
    void clearFaults(); ///< forgets waiting faults, random loss and silence; sends what hold and reorder keep back

    // Acknowledges kept back by Fault::hold, oldest first.
    std::size_t heldAnswers() const;
    std::size_t release(std::size_t most = static_cast<std::size_t>(-1)); ///< sends them; returns how many

    // Pictures. They go where the registers say, while these say so.
    void inject(const StreamFault& fault);
    std::vector<StreamFault> streamFaults() const; ///< as `faults`
    bool streamOpen() const;
    void pulseLine();                          ///< a pulse on the line that may trigger a picture
    void setNextPicture(std::uint64_t number); ///< of the next picture, and of its block
    StreamCounters streamCounters() const;
    /// The last 1024 frames, oldest first, with what stands in them and what of them can't have come. One that is still
    /// being sent is the last, and not `ended`. Counts and report may lag behind a receiver by one batch of packets.
    std::vector<SentFrame> sentFrames() const;

    /// Sends any bytes from the camera's port, such as an acknowledge that nobody asked for.
    void send(const std::vector<std::uint8_t>& bytes, const Endpoint& to);

    /// Executes a line of the command language ("drop 3 readmem", "power-cycle 500"; script.h has its help) and returns
    /// its answer, empty for most. Throws ScriptError, with words for the person who typed it.
    std::string execute(const std::string& line);

    // What has happened. The log needs Config::recording; counts don't.
    void setRecording(bool on);
    void setTrace(std::function<void(const std::string&)> trace); ///< as Config::trace; empty: none
    std::vector<Datagram> log() const;
    void clearLog(); ///< and all counts
    Counters counters() const;
    std::uint64_t received(Command command) const; ///< commands of this kind, lost ones included
    Endpoint lastPeer() const;                     ///< sender of the last command; 0.0.0.0:0 before the first

    // Questions to the log.
    std::vector<Datagram>
    select(const std::function<bool(const Datagram&)>& wanted) const; ///< `wanted` must not use the camera
    std::vector<Datagram> received() const;
    std::vector<Datagram> sent() const;
    /// Commands that touch this register or memory address first, as in `commands(Command::writeReg, reg::ccp).size()
    /// == 2`.
    std::vector<Datagram> commands(Command command, std::uint32_t address) const;
    /// Values of all WRITEREG to this register, in order.
    std::vector<std::uint32_t> writesTo(std::uint32_t address) const;

    /// Waits until `condition` is true; false if it isn't by the deadline. It is looked at whenever a datagram has come
    /// or gone and whenever a call or the time has changed the camera, on this thread, and may use every operation
    /// here.
    bool waitFor(const std::function<bool()>& condition, Milliseconds deadline = defaultDeadline) const;
    /// Waits for this many commands of a kind since the start or the last clearLog.
    bool waitForReceived(Command command, std::uint64_t count = 1, Milliseconds deadline = defaultDeadline) const;
    /// Waits for this many WRITEREG to a register. Needs the log.
    bool waitForWrite(std::uint32_t address, std::size_t count = 1, Milliseconds deadline = defaultDeadline) const;

    /// Called for every command before it is carried out, on the camera's thread, which waits for its end. It may use
    /// every operation here. Empty takes it off; a call under way may still end later.
    void onCommand(std::function<void(const Datagram&)> hook);

    class Impl;

private:
    static Config configFor(const Endpoint& endpoint);

    std::unique_ptr<Impl> impl_;
};

} // namespace gevsim
