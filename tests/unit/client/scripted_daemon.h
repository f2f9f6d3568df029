// A daemon in this process: the real server role of the pipe, and behind it a camera made of maps, which a test can
// override command by command.
#pragma once

#include "client/GevClient.h"
#include "client/Message.h"
#include "tests/unit/IPCPipe/pipe_support.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zuTest {

using zuGevClient::Command;
using zuGevClient::Message;

/// A command as it came.
struct Seen {
    std::uint32_t command = 0;
    Bytes bytes; ///< up to its terminator
};

class ScriptedDaemon {
public:
    /// Changes the message into its reply and sets the length; false leaves that to the daemon's own answer.
    using Script = std::function<bool(Message&, std::size_t& length, const boost::function<void(unsigned)>& extend)>;

    ScriptedDaemon();
    ~ScriptedDaemon();

    void on(Command command, Script script);

    std::vector<Seen> seen() const;
    std::vector<std::uint32_t> commands() const;
    std::size_t count(Command command) const;
    void clearSeen();

    /// Waits until the scripts of all commands so far have ended. For the end of a test whose scripts use what it owns.
    void settle();

    /// Sends an event to the client of instance `number`, counted from 1, as the heartbeat thread does. True if it was
    /// answered with success within `timeoutMs`.
    bool tell(std::uint32_t event, std::uint32_t timeoutMs = 1000, std::size_t number = 1);

    /// Ends the daemon's side as a kill does: without a word to the clients.
    void die();

    /// A new daemon over what the dead one left, with the same answers, its own settings as at first, and that camera.
    void restart();

    Server& server() { return *server_; }

    // The camera, for the daemon's own answers. Under a lock of their own.
    void setRegister(std::uint32_t address, std::uint32_t value);
    std::uint32_t getRegister(std::uint32_t address) const;
    Bytes memory(std::uint32_t address, std::size_t size) const;
    void setMemory(std::uint32_t address, const Bytes& bytes);

private:
    void attach(const std::shared_ptr<zuIPCPipe::IMsgSrc>& source);
    void handle(void* data, std::size_t capacity, std::size_t& length, const boost::function<void(unsigned)>& extend);
    void answer(Message& message);
    void answerMemory(Message& message);

    struct State;
    std::shared_ptr<State> state_;
    std::unique_ptr<Server> server_;
    std::shared_ptr<zuIPCPipe::CMgrServer> successor_;
};

// Replies for scripts.

/// Bit 31 and TagSuccess alone.
void acknowledge(Message& message, std::size_t& length, std::uint8_t success = 1);
/// As after a GevException: the request's tags stay.
void refuse(Message& message, std::size_t& length, std::int32_t status);
/// As after another exception: success without status.
void faultInside(Message& message, std::size_t& length);

template <typename TValue>
TValue valueOf(Message& message, zuGevClient::Tag tag)
{
    TValue value{};
    message.GetScalar(tag, value);
    return value;
}

} // namespace zuTest
