// Requests and replies. The pipe takes the next acknowledge for the answer, whichever command it was for, so after a
// wait that failed the two sides are brought back into step before the next command.
#include "client/Channel.h"

#include "GevTLBase/IPCPipe/IPCException.h"
#include "platform/clock.h"

#include <algorithm>
#include <exception>

namespace zuGevClient {

namespace {

constexpr Milliseconds echoWait{750};
constexpr int synchroniseAttempts = 6;
constexpr std::uint32_t settleMs = 20; ///< lets a late acknowledge arrive before the next question
constexpr std::int64_t longestWaitMs = 0x7FFFFFFF;

/// Runs on the pipe's thread. The daemon waits a second for TagSuccess, so nothing of the user's runs here.
void answerEvent(EventQueue& events, void* data, std::size_t capacity, std::size_t& length)
{
    Message message(data, capacity, capacity);
    const std::uint32_t word = message.Command();
    std::uint8_t success = 1;
    Event event = Event::connectionLost;
    switch (word) {
    case zuIPCPipe::EvtConnectionLost:
        break;
    case zuIPCPipe::EvtCcpLost:
        event = Event::controlLost;
        break;
    case zuIPCPipe::EvtReconnected:
        event = Event::reconnected;
        break;
    default:
        success = 0;
    }
    if (success != 0)
        events.push(event);
    message.ClearTags();
    message.SetCommand(word | zuIPCPipe::replyFlag);
    message.AddBinary(zuIPCPipe::TagSuccess, &success, sizeof success);
    length = message.UsedLength();
}

} // namespace

const char* commandText(Command command)
{
    switch (command) {
    case zuIPCPipe::CmdLink:
        return "Linking";
    case zuIPCPipe::CmdUnlink:
        return "Unlinking";
    case zuIPCPipe::CmdReadMem:
        return "Reading memory";
    case zuIPCPipe::CmdWriteMem:
        return "Writing memory";
    case zuIPCPipe::CmdReadReg:
        return "Reading a register";
    case zuIPCPipe::CmdWriteReg:
        return "Writing a register";
    case zuIPCPipe::CmdBindSocket:
        return "Binding the socket";
    case zuIPCPipe::CmdSetDestination:
        return "Setting the destination";
    case zuIPCPipe::CmdGetLocalAddress:
        return "Asking for the local address";
    case zuIPCPipe::CmdCheckLink:
        return "Checking the link";
    case zuIPCPipe::CmdSetAckTimeout:
    case zuIPCPipe::CmdGetAckTimeout:
        return "Tuning the timeout";
    case zuIPCPipe::CmdSetRetries:
    case zuIPCPipe::CmdGetRetries:
        return "Tuning the retries";
    case zuIPCPipe::CmdSetHeartbeat:
        return "Setting the heartbeat";
    case zuIPCPipe::CmdGetHeartbeat:
        return "Asking for the heartbeat";
    default:
        return "A command";
    }
}

Channel::Channel(std::shared_ptr<EventQueue> events) : attachment_(attach())
{
    listen(attachment_, [queue = std::move(events)](void* data, std::size_t capacity, std::size_t& length,
                                                    boost::function<void(unsigned int)>) {
        answerEvent(*queue, data, capacity, length);
    });
}

Channel::~Channel() { detach(attachment_); }

bool Channel::send(Request& request, Reply& reply, Milliseconds timeout)
{
    reply.reset();
    const auto wait = static_cast<std::uint32_t>(std::clamp<std::int64_t>(timeout.count(), 1, longestWaitMs));
    try {
        if (!obtainReply(request, reply, wait))
            return false;
    } catch (const zuIPCPipe::IPCAbortException&) {
        return false;
    } catch (const zuIPCPipe::IPCException& failure) {
        loseDaemon(failure.what());
    }
    if (!attachment_.source->IsConnected())
        loseDaemon("it has closed the connection");
    return true;
}

// When the daemon asks for more time, this is for one attempt of one command to the camera. It sets the pipe's wait
// anew, and when that is over, further attempts and commands may come before the reply: then the whole wait starts
// again.
bool Channel::obtainReply(Request& request, Reply& reply, std::uint32_t wait)
{
    zuIPCPipe::CInstance& source = *attachment_.source;
    std::size_t length = Reply::room();
    try {
        source.Send(request.message().Data(), request.message().UsedLength(), reply.data(), length, wait);
        return true;
    } catch (const zuIPCPipe::IPCTimeoutException&) {
    }
    for (;;) {
        length = Reply::room();
        try {
            return source.AwaitReply(reply.data(), length, wait);
        } catch (const zuIPCPipe::IPCTimeoutException&) {
        }
    }
}

// The accesses keep the request's tags, so that their replies can be told from those of an earlier access.
bool Channel::belongs(Request& request, Reply& reply)
{
    const std::uint32_t word = reply.command() & ~zuIPCPipe::replyFlag;
    if (word != static_cast<std::uint32_t>(request.command()))
        return false;
    switch (request.command()) {
    case zuIPCPipe::CmdReadReg:
    case zuIPCPipe::CmdReadMem: {
        std::uint64_t address = 0;
        request.message().GetScalar(zuIPCPipe::TagAddress, address);
        return reply.find<std::uint64_t>(zuIPCPipe::TagAddress) == address;
    }
    default:
        return true;
    }
}

// Asks for something that costs no camera traffic and whose reply gives back a number of ours.
bool Channel::synchronise(Reply& reply)
{
    outOfStep_ = true;
    int silent = 0;
    for (int attempt = 0; attempt < synchroniseAttempts && silent < 2; ++attempt) {
        Request question(zuIPCPipe::CmdGetLocalAddress);
        question.add(zuIPCPipe::TagAddress, ++nonce_);
        if (!send(question, reply, echoWait))
            ++silent;
        else if (reply.command() == (zuIPCPipe::CmdGetLocalAddress | zuIPCPipe::replyFlag) &&
                 reply.find<std::uint64_t>(zuIPCPipe::TagAddress) == nonce_) {
            outOfStep_ = false;
            return true;
        } else
            zuPlatform::sleepMs(settleMs);
    }
    return false;
}

void Channel::loseDaemon(const std::string& why)
{
    lost_ = true;
    throw DaemonLostError("The daemon is gone: " + why);
}

/// After a silence: returns if the daemon lives and is in step again.
void Channel::findOut(const char* what)
{
    Reply reply;
    if (synchronise(reply))
        return;
    if (!daemonLives(attachment_.daemonPort))
        loseDaemon("nothing answers any more");
    if (publishedPort() != attachment_.daemonPort)
        loseDaemon("another one has taken its place");
    throw TimeoutError(std::string(what) + ": the daemon lives, but does not answer on this connection");
}

void Channel::exchange(Request& request, Reply& reply, Milliseconds timeout, OnSilence onSilence)
{
    const char* const what = commandText(request.command());
    if (lost_)
        throw DaemonLostError("The daemon is gone; a new connection is needed");
    if (outOfStep_)
        findOut(what);
    for (int attempt = onSilence == OnSilence::repeat ? 0 : 1;; ++attempt) {
        outOfStep_ = true; // holds also if the wait is left by an exception
        const bool answered = send(request, reply, timeout);
        if (answered && belongs(request, reply)) {
            outOfStep_ = false;
            break;
        }
        findOut(what);
        if (attempt != 0 && answered)
            throw DaemonError(std::string(what) + ": the daemon's reply belongs to another command");
        if (attempt != 0)
            throw TimeoutError(std::string(what) + ": the daemon did not answer in time");
    }
    if ((reply.command() & zuIPCPipe::replyFlag) == 0)
        throw DaemonError(std::string(what) + " failed within the daemon; its log tells why");
}

Endpoint Channel::localAddress()
{
    if (lost_)
        throw DaemonLostError("The daemon is gone; a new connection is needed");
    Reply reply;
    if (!synchronise(reply)) {
        findOut(commandText(zuIPCPipe::CmdGetLocalAddress)); // in step now, or thrown
        if (!synchronise(reply))
            throw TimeoutError("Asking for the local address: the daemon did not answer in time");
    }
    const auto address = reply.find<std::uint32_t>(zuIPCPipe::TagLocalIp);
    const auto port = reply.find<std::uint16_t>(zuIPCPipe::TagLocalPort);
    if (!address || !port || reply.find<std::uint8_t>(zuIPCPipe::TagSuccess).value_or(0) == 0)
        throw DaemonError("Asking for the local address failed within the daemon");
    return {*address, *port};
}

} // namespace zuGevClient
