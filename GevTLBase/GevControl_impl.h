// Definitions of CGevControl but for its heartbeat thread, for whoever instantiates it.
#pragma once

#include "GevTLBase/GVCP_impl.h"
#include "GevTLBase/GevControl.h"
#include "GevTLBase/GevHeartbeat_impl.h"

namespace GEV {

template <typename TConnection>
CGevControl<TConnection>::CGevControl(LinkCallback ccpLost, LinkCallback connectionLost, LinkCallback reconnected)
    : CcpLostCallback(std::move(ccpLost)), ConnectionLostCallback(std::move(connectionLost)),
      ReconnectedCallback(std::move(reconnected)), controlLog(zuLogging::make_numbered_logstate("GEVCTRL"))
{
    CGVCP<TConnection>::SetConnection(std::make_shared<TConnection>());
}

template <typename TConnection>
CGevControl<TConnection>::~CGevControl()
{
    // An interruption of the thread that destroys the object waits until it is gone.
    const boost::this_thread::disable_interruption uninterrupted;
    ZU_LOG(controlLog, zuLogging::log_info,
           "GEV::CGevControl<class GEV::CSockConnection>::~CGevControl " << static_cast<const void*>(this));
    StopHeartbeat();
    if ((ccpValue & ccpValues::accessMask) == 0)
        return;
    try {
        CGevControl::Unlink();
    } catch (...) { // nothing is left to tell it to
    }
}

template <typename TConnection>
std::uint32_t CGevControl<TConnection>::ReadBootstrap(std::uint64_t address)
{
    std::uint32_t value = 0;
    this->ReadReg(address, value, true, PendingAckCallback());
    return value;
}

template <typename TConnection>
void CGevControl<TConnection>::WriteBootstrap(std::uint64_t address, std::uint32_t value)
{
    this->WriteReg(address, value, true, PendingAckCallback());
}

/// The CCP value for `mode`, 0 for none. The switchover key goes out low byte first, and the rest big-endian.
template <typename TConnection>
std::uint32_t CGevControl<TConnection>::CcpFor(std::uint32_t mode)
{
    if (mode == linkMode::control)
        return ccpValues::control;
    if (mode == linkMode::exclusive)
        return ccpValues::exclusive;
    if ((mode & linkMode::switchoverMask) == 0)
        return 0;
    const auto key = static_cast<std::uint16_t>(mode);
    return std::uint32_t{zuPlatform::hostToNetwork16(key)} << 16 | ccpValues::controlWithSwitchover;
}

/// Periods in one heartbeat timeout of the device. Never 0, whatever number of retries a client set.
template <typename TConnection>
std::uint32_t CGevControl<TConnection>::PeriodDivisor() const
{
    const std::uint32_t divisor = this->retries + 2;
    return divisor == 0 ? 1 : divisor;
}

/// The period from the device's heartbeat timeout, and its capabilities. A failure is only logged, behind
/// `failureText`.
template <typename TConnection>
void CGevControl<TConnection>::ReadDeviceTimeout(const char* failureText)
{
    try {
        const std::uint32_t timeout = ReadBootstrap(gevRegister::heartbeatTimeout);
        ZU_LOG(controlLog, zuLogging::log_info, "Heartbeat Timeout " << timeout);
        heartbeatPeriod = timeout / PeriodDivisor();
        gvcpCapability = ReadBootstrap(gevRegister::gvcpCapability);
    } catch (const GevException& e) {
        ZU_LOG(controlLog, zuLogging::log_warn, failureText << e.what());
    }
}

template <typename TConnection>
void CGevControl<TConnection>::DoLink(std::uint32_t mode)
{
    if (const std::uint32_t ccp = CcpFor(mode); ccp != 0) {
        try {
            ccpValue = ccp;
            ZU_LOG(controlLog, zuLogging::log_info, "Link device : write ccp");
            WriteBootstrap(gevRegister::ccp, ccpValue); // 0 if it was unlinked meanwhile
            WriteBootstrap(gevRegister::ccp, ccpValue); // always twice
            this->hasCcp = true;
            StartHeartbeat();
        } catch (const std::exception& e) {
            ZU_LOG(controlLog, zuLogging::log_err, "Privilege request WriteReg failed: " << e.what());
            throw PlainException(e.what());
        }
        ReadDeviceTimeout("Unable to establish link with camera: ");
    }
    try {
        ReadBootstrap(gevRegister::deviceMode); // the device's own byte order makes no difference
        this->SetByteSwap(false);
    } catch (const GevException& e) {
        ZU_LOG(controlLog, zuLogging::log_err, "Error reading device endianess: " << e.what());
    }
}

template <typename TConnection>
void CGevControl<TConnection>::Link(std::uint32_t mode)
{
    ZU_LOG(controlLog, zuLogging::log_info,
           "GEV::CGevControl<class GEV::CSockConnection>::Link " << static_cast<const void*>(this));
    try {
        DoLink(mode);
    } catch (const GevException& e) {
        ZU_LOG(controlLog, zuLogging::log_err, "Unable to establish link with camera: " << e.what());
        throw GevException(e);
    }
}

template <typename TConnection>
bool CGevControl<TConnection>::HasCcp()
{
    return ReadBootstrap(gevRegister::ccp) == ccpValue;
}

template <typename TConnection>
void CGevControl<TConnection>::Unlink()
{
    ZU_LOG(controlLog, zuLogging::log_info,
           "GEV::CGevControl<class GEV::CSockConnection>::Unlink " << static_cast<const void*>(this));
    try {
        StopHeartbeat();
        if (IsLinked()) {
            ccpValue = 0;
            WriteBootstrap(gevRegister::ccp, 0);
        } else {
            ZU_LOG(controlLog, zuLogging::log_warn, "Application has no privilege");
        }
    } catch (const GevException&) {
        ZU_LOG(controlLog, zuLogging::log_err, "Unable to unlink with camera");
    }
}

template <typename TConnection>
bool CGevControl<TConnection>::IsLinked()
{
    return (ccpValue & ccpValues::accessMask) != 0;
}

template <typename TConnection>
void CGevControl<TConnection>::GetLocalAddress(std::uint32_t& ip, std::uint16_t& port)
{
    if (const std::shared_ptr<TConnection> current = this->GetConnection())
        current->GetLocalAddress(ip, port);
}

template <typename TConnection>
void CGevControl<TConnection>::GetAckTimeout(std::uint32_t& milliseconds)
{
    milliseconds = this->ackTimeout;
}

template <typename TConnection>
void CGevControl<TConnection>::SetAckTimeout(std::uint32_t milliseconds)
{
    this->ackTimeout = milliseconds;
}

template <typename TConnection>
void CGevControl<TConnection>::GetRetries(std::uint32_t& count)
{
    count = this->retries;
}

template <typename TConnection>
void CGevControl<TConnection>::SetRetries(std::uint32_t count)
{
    this->retries = count;
}

template <typename TConnection>
void CGevControl<TConnection>::SetHeartbeatTimeout(std::uint32_t timeout, std::uint32_t)
{
    try {
        if (timeout == 0) {
            InterruptHeartbeat();
            ZU_LOG(controlLog, zuLogging::log_info,
                   "Disable hb timeout, set heartbeat timeout to 0, Margin to 0, terminating Heartbeat thread");
            heartbeatPeriod = 0;
            WriteBootstrap(gevRegister::heartbeatTimeout, 0);
            return;
        }
        const std::uint32_t divisor = PeriodDivisor();
        const std::uint32_t minimum = divisor * this->ackTimeout;
        const std::uint32_t written = std::max(timeout, minimum);
        const std::uint32_t period = written / divisor;
        heartbeatPeriod = period;
        WriteBootstrap(gevRegister::heartbeatTimeout, written);
        if (timeout < minimum) {
            ZU_LOG(controlLog, zuLogging::log_info,
                   "Set default hb timeout, Set heartbeat timeout to " << written << " and Margin to "
                                                                       << written - period);
        } else {
            ZU_LOG(controlLog, zuLogging::log_info,
                   "Set heartbeat timeout to " << written << " and Margin to " << written - period);
        }
        StartHeartbeat();
    } catch (const std::exception& e) {
        ZU_LOG(controlLog, zuLogging::log_info, "Set HBTimeout failed: " << e.what());
    }
}

template <typename TConnection>
void CGevControl<TConnection>::GetHeartbeatTimeout(std::uint32_t& timeout, std::uint32_t& margin)
{
    this->ReadReg(gevRegister::heartbeatTimeout, timeout, true, PendingAckCallback());
    margin = timeout - heartbeatPeriod;
    ZU_LOG(controlLog, zuLogging::log_info, "Inquire heart beat timeout " << timeout << " and Margin " << margin);
}

template <typename TConnection>
void CGevControl<TConnection>::Disconnect()
{
    Unlink();
}

} // namespace GEV
