// The datagram buffer.
#include "GevTLBase/IPCPipe/InstanceMsg.h"

#include "GevTLBase/IPCPipe/IPCException.h"

namespace zuIPCPipe {

instance_msg::instance_msg() { header().headerSize = kMsgHeaderSize; }

instance_msg::~instance_msg() = default;

void instance_msg::SetPayloadSize(std::size_t size)
{
    if (size > buffer.size() - kMsgHeaderSize)
        throw IPCException("Buffer overflow");
    sendLength = size + kMsgHeaderSize;
}

} // namespace zuIPCPipe
