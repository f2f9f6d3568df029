// Life of a device instance and what it tells its client unasked. Constructed and destroyed on a dispatcher's
// CmdThread; notified on the heartbeat thread; the disconnect may come on any thread.
#include "src/DevInst.h"

#include "GevTLBase/GevException.h"
#include "GevTLBase/GevHelper.h"
#include "logging/log.h"
#include "src/CallGate.h"

#include <exception>
#include <sstream>
#include <utility>

namespace zuGevDaemon {

using namespace zuIPCPipe;
using zuLogging::log_debug;
using zuLogging::log_info;

namespace {

constexpr std::uint32_t notificationTimeoutMs = 1000;
constexpr std::uint32_t pendingAckMarginMs = 500;
constexpr std::int32_t linkFailedCode = GEV::resultCode::closed;

/// The digits of an address, for words that end in "0x".
std::string Digits(const void* pointer)
{
    std::ostringstream out;
    out << std::hex << reinterpret_cast<std::uintptr_t>(pointer);
    return out.str();
}

} // namespace

CDevInst::CDevInst(std::shared_ptr<IMsgSrc> client_, Callback onClientGone_, Callback onDestroyed_)
    : log(zuLogging::make_numbered_logstate("DevIns")), client(std::move(client_)),
      onClientGone(std::move(onClientGone_)), onDestroyed(std::move(onDestroyed_)), gate(std::make_shared<CallGate>())
{
    ZU_LOG(log, log_info, "New DevInst created 0x" << Digits(this) << " connected to IPC 0x" << Digits(client.get()));
    const auto guarded = [this](void (CDevInst::*notify)()) {
        return [this, notify, entry = gate] {
            const CallPass pass(*entry);
            if (!pass)
                throw GEV::GevException(linkFailedCode, "Link failed");
            (this->*notify)();
        };
    };
    control = std::make_shared<Control>(guarded(&CDevInst::NotifyCcpLost), guarded(&CDevInst::NotifyConnectionLost),
                                        guarded(&CDevInst::NotifyReconnected));
    client->SetMsgHandler([this, entry = gate](void* data, std::size_t capacity, std::size_t& length,
                                               boost::function<void(unsigned int)> extend) {
        const CallPass pass(*entry);
        if (!pass)
            return;
        std::uint64_t replyLength = length;
        OnMessage(data, capacity, replyLength, [&extend](unsigned milliseconds) { extend(milliseconds); });
        length = static_cast<std::size_t>(replyLength);
    });
    client->SetDisconnectHandler([this, entry = gate] {
        const CallPass pass(*entry);
        if (pass)
            OnClientDisconnect();
    });
}

CDevInst::~CDevInst() noexcept(false)
{
    gate->Close();
    ZU_LOG(log, log_info, "DevInst DTOR 0x" << Digits(this) << " connected to IPC 0x" << Digits(client.get()));
    std::exception_ptr failure;
    try {
        CDevInst::LinkShutdown();
    } catch (...) {
        failure = std::current_exception();
    }
    std::shared_ptr<IMsgSrc> last;
    {
        const boost::lock_guard<boost::mutex> lock(clientMutex);
        last.swap(client);
    }
    last.reset();
    try {
        onDestroyed(this);
    } catch (...) {
        failure = std::current_exception();
    }
    // The heartbeat thread, if one still runs, ends here: before the members that its callbacks use.
    control.reset();
    if (failure)
        std::rethrow_exception(failure);
}

bool CDevInst::TryRetire() { return gate->TryClose(); }

void CDevInst::OnClientDisconnect()
{
    {
        const boost::lock_guard<boost::mutex> lock(clientMutex);
        clientGone = true;
    }
    LinkShutdown();
    onClientGone(this);
}

void CDevInst::LinkShutdown()
{
    try {
        if (control->IsLinked())
            control->Unlink();
    } catch (GEV::GevException&) {
        try {
            control->Unlink();
        } catch (GEV::GevException& failure) {
            ZU_LOG(log, log_debug, "Link Shutdown caused exception: " << failure.what());
        }
    }
}

std::shared_ptr<IMsgSrc> CDevInst::Client()
{
    const boost::lock_guard<boost::mutex> lock(clientMutex);
    return client;
}

bool CDevInst::IsClientGone()
{
    const boost::lock_guard<boost::mutex> lock(clientMutex);
    return clientGone;
}

void CDevInst::OnPendingAck(unsigned milliseconds, std::uint64_t messageId)
{
    if (const auto target = Client())
        target->ExtendTimeout(static_cast<std::uint32_t>(messageId), milliseconds + pendingAckMarginMs);
}

void CDevInst::NotifyConnectionLost() { Notify(EvtConnectionLost); }
void CDevInst::NotifyCcpLost() { Notify(EvtCcpLost); }
void CDevInst::NotifyReconnected() { Notify(EvtReconnected); }

void CDevInst::Notify(std::uint32_t event)
{
    Message message;
    message.SetCommand(event);
    if (const auto target = Client()) {
        auto replyLength = static_cast<std::size_t>(message.Capacity());
        target->Send(message.Data(), static_cast<std::size_t>(message.UsedLength()), message.Data(), replyLength,
                     notificationTimeoutMs);
    }
    std::uint8_t success = 0;
    if (message.GetScalar(TagSuccess, success) && success != 0)
        return;
    throw GEV::GevException(linkFailedCode, "Link failed");
}

std::string CDevInst::GetId()
{
    std::uint32_t ip = 0;
    std::uint16_t port = 0;
    control->GetLocalAddress(ip, port);
    return GEV::IpToString(ip, port);
}

} // namespace zuGevDaemon
