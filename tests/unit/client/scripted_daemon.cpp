// The scripted daemon. Handlers run on the pipe's threads; the state's lock is held for single steps only.
#include "tests/unit/client/scripted_daemon.h"

#include <algorithm>

namespace zuTest {

using namespace zuIPCPipe;

struct ScriptedDaemon::State {
    mutable std::mutex mutex;
    std::map<std::uint32_t, Script> scripts;
    std::vector<Seen> seen;
    std::size_t running = 0; ///< handlers
    std::condition_variable idle;
    std::map<std::uint32_t, std::uint32_t> registers;
    std::map<std::uint32_t, std::uint8_t> memory;
    std::uint32_t localIp = 0;
    std::uint16_t localPort = 0;
    std::uint32_t ackTimeout = 300;
    std::uint32_t retries = 3;
    std::uint32_t privilege = 0;
    std::vector<std::shared_ptr<IMsgSrc>> successors; ///< instances of the restarted daemon
};

namespace {

constexpr std::uint32_t ccp = 0x0A00;
constexpr std::uint32_t heartbeatRegister = 0x0938;
constexpr std::uint16_t chosenPort = 40123;

template <typename TValue>
void add(Message& message, TGevSvrTag tag, TValue value)
{
    message.AddBinary(tag, &value, sizeof value);
}

void markReply(Message& message) { message.SetCommand(message.Command() | replyFlag); }

} // namespace

void acknowledge(Message& message, std::size_t& length, std::uint8_t success)
{
    message.ClearTags();
    markReply(message);
    add(message, TagSuccess, success);
    length = message.UsedLength();
}

void refuse(Message& message, std::size_t& length, std::int32_t status)
{
    markReply(message);
    add(message, TagStatus, status);
    add(message, TagSuccess, std::uint8_t{0});
    length = message.UsedLength();
}

void faultInside(Message& message, std::size_t& length)
{
    markReply(message);
    add(message, TagSuccess, std::uint8_t{1});
    length = message.UsedLength();
}

ScriptedDaemon::ScriptedDaemon() : state_(std::make_shared<State>())
{
    state_->registers[heartbeatRegister] = 3000;
    state_->registers[ccp] = 0;
    server_ = std::make_unique<Server>([this](const std::shared_ptr<IMsgSrc>& source) { attach(source); });
}

void ScriptedDaemon::attach(const std::shared_ptr<IMsgSrc>& source)
{
    source->SetMsgHandler([this](void* data, std::size_t capacity, std::size_t& length,
                                 boost::function<void(unsigned)> extend) { handle(data, capacity, length, extend); });
}

ScriptedDaemon::~ScriptedDaemon()
{
    successor_.reset();
    std::vector<std::shared_ptr<IMsgSrc>> instances;
    {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        instances.swap(state_->successors);
    }
    instances.clear();
    server_->end();
    server_->dropInstances();
}

void ScriptedDaemon::die()
{
    successor_.reset();
    server_->end();
}

void ScriptedDaemon::restart()
{
    {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        state_->localIp = 0;
        state_->localPort = 0;
        state_->ackTimeout = 300;
        state_->retries = 3;
        state_->privilege = 0;
    }
    successor_ = std::make_shared<CMgrServer>([this](std::shared_ptr<IMsgSrc> source) {
        attach(source);
        const std::lock_guard<std::mutex> lock(state_->mutex);
        state_->successors.push_back(std::move(source));
    });
}

void ScriptedDaemon::on(Command command, Script script)
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->scripts[command] = std::move(script);
}

std::vector<Seen> ScriptedDaemon::seen() const
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->seen;
}

std::vector<std::uint32_t> ScriptedDaemon::commands() const
{
    std::vector<std::uint32_t> numbers;
    for (const Seen& one : seen())
        numbers.push_back(one.command);
    return numbers;
}

std::size_t ScriptedDaemon::count(Command command) const
{
    const auto all = commands();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), static_cast<std::uint32_t>(command)));
}

void ScriptedDaemon::clearSeen()
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->seen.clear();
}

bool ScriptedDaemon::tell(std::uint32_t event, std::uint32_t timeoutMs, std::size_t number)
{
    const auto instance = server_->instance(number);
    Message message;
    message.SetCommand(event);
    std::size_t length = message.Capacity();
    try {
        instance->Send(message.Data(), message.UsedLength(), message.Data(), length, timeoutMs);
    } catch (const IPCException&) {
        return false;
    }
    std::uint8_t success = 0;
    return message.GetScalar(TagSuccess, success) && success != 0;
}

void ScriptedDaemon::setRegister(std::uint32_t address, std::uint32_t value)
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->registers[address] = value;
}

std::uint32_t ScriptedDaemon::getRegister(std::uint32_t address) const
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->registers[address];
}

Bytes ScriptedDaemon::memory(std::uint32_t address, std::size_t size) const
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = state_->memory[address + static_cast<std::uint32_t>(i)];
    return bytes;
}

void ScriptedDaemon::setMemory(std::uint32_t address, const Bytes& bytes)
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        state_->memory[address + static_cast<std::uint32_t>(i)] = bytes[i];
}

void ScriptedDaemon::handle(void* data, std::size_t capacity, std::size_t& length,
                            const boost::function<void(unsigned)>& extend)
{
    Message message(data, capacity, capacity);
    Script script;
    {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        ++state_->running;
        state_->seen.push_back({message.Command(), Bytes(message.Data(), message.Data() + message.Size())});
        const auto entry = state_->scripts.find(message.Command());
        if (entry != state_->scripts.end())
            script = entry->second;
    }
    const bool answered = script && script(message, length, extend);
    script = nullptr;
    const std::lock_guard<std::mutex> lock(state_->mutex);
    if (!answered) {
        answer(message);
        length = message.UsedLength();
    }
    --state_->running;
    state_->idle.notify_all();
}

void ScriptedDaemon::settle()
{
    std::unique_lock<std::mutex> lock(state_->mutex);
    EXPECT_TRUE(state_->idle.wait_for(lock, std::chrono::seconds(20), [&] { return state_->running == 0; }));
    state_->scripts.clear();
}

// As the daemon's command table has it, with a camera that grants everything.
void ScriptedDaemon::answer(Message& message)
{
    State& s = *state_;
    const std::uint32_t command = message.Command();
    std::size_t length = 0;
    switch (command) {
    case CmdLink: {
        const auto mode = valueOf<std::uint32_t>(message, TagLinkMode);
        s.privilege = mode == 3 ? 2 : mode == 4 ? 1 : mode != 0 ? 6 : 0;
        s.registers[ccp] = s.privilege;
        markReply(message);
        add(message, TagLinkState, std::uint8_t{1});
        add(message, TagSuccess, std::uint8_t{1});
        break;
    }
    case CmdUnlink:
        s.privilege = s.registers[ccp] = 0;
        acknowledge(message, length);
        break;
    case CmdCheckLink:
        acknowledge(message, length, s.registers[ccp] == s.privilege);
        break;
    case CmdReadReg: {
        const auto value = s.registers[static_cast<std::uint32_t>(valueOf<std::uint64_t>(message, TagAddress))];
        markReply(message);
        add(message, TagRegValue, value);
        add(message, TagLength, std::uint32_t{4});
        add(message, TagStatus, std::int32_t{0});
        add(message, TagSuccess, std::uint8_t{1});
        break;
    }
    case CmdWriteReg: {
        s.registers[static_cast<std::uint32_t>(valueOf<std::uint64_t>(message, TagAddress))] =
            valueOf<std::uint32_t>(message, TagRegValue);
        message.ClearTags();
        markReply(message);
        add(message, TagStatus, std::int32_t{0});
        add(message, TagSuccess, std::uint8_t{1});
        break;
    }
    case CmdReadMem:
    case CmdWriteMem:
        answerMemory(message);
        break;
    case CmdBindSocket:
        s.localIp = valueOf<std::uint32_t>(message, TagLocalIp);
        s.localPort = valueOf<std::uint16_t>(message, TagLocalPort);
        if (s.localPort == 0)
            s.localPort = chosenPort;
        acknowledge(message, length);
        break;
    case CmdGetLocalAddress:
        markReply(message);
        add(message, TagLocalIp, s.localIp);
        add(message, TagLocalPort, s.localPort);
        add(message, TagSuccess, std::uint8_t{1});
        break;
    case CmdSetAckTimeout:
        s.ackTimeout = valueOf<std::uint32_t>(message, TagAckTimeout);
        acknowledge(message, length);
        break;
    case CmdSetRetries:
        s.retries = valueOf<std::uint32_t>(message, TagRetries);
        acknowledge(message, length);
        break;
    case CmdGetAckTimeout:
        acknowledge(message, length);
        add(message, TagAckTimeout, static_cast<std::uint8_t>(s.ackTimeout));
        break;
    case CmdGetRetries:
        acknowledge(message, length);
        add(message, TagRetries, static_cast<std::uint8_t>(s.retries));
        break;
    case CmdSetHeartbeat: {
        const auto timeout = valueOf<std::uint32_t>(message, TagHeartbeatTimeout);
        s.registers[heartbeatRegister] = timeout == 0 ? 0 : std::max(timeout, (s.retries + 2) * s.ackTimeout);
        acknowledge(message, length);
        break;
    }
    case CmdGetHeartbeat: {
        const std::uint32_t timeout = s.registers[heartbeatRegister];
        message.ClearTags();
        markReply(message);
        add(message, TagHeartbeatTimeout, timeout);
        add(message, TagHeartbeatMargin, timeout - timeout / (s.retries + 2));
        add(message, TagSuccess, std::uint8_t{1});
        break;
    }
    default:
        acknowledge(message, length);
    }
}

void ScriptedDaemon::answerMemory(Message& message)
{
    const auto address = static_cast<std::uint32_t>(valueOf<std::uint64_t>(message, TagAddress));
    const auto size = static_cast<std::size_t>(valueOf<std::uint64_t>(message, TagLength));
    Bytes data(size);
    if (message.Command() == CmdReadMem) {
        for (std::size_t i = 0; i < size; ++i)
            data[i] = state_->memory[address + static_cast<std::uint32_t>(i)];
        message.AddBinary(TagMemData, data.data(), size);
    } else {
        std::size_t room = size;
        message.GetBinary(TagMemData, data.data(), room);
        for (std::size_t i = 0; i < size / 4 * 4; ++i) // the last bytes of an odd length get lost
            state_->memory[address + static_cast<std::uint32_t>(i)] = data[i];
        message.ClearTags();
    }
    add(message, TagStatus, std::int32_t{0});
    markReply(message);
    add(message, TagSuccess, std::uint8_t{1});
}

} // namespace zuTest
