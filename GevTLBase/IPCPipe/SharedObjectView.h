// The fields of the shared object, read and written while another process does the same.
#pragma once

#include "GevTLBase/IPCPipe/Formats.h"

#include <atomic>
#include <cstdint>

namespace zuIPCPipe {

/// The view starts on a page, and `port` at an even offset in it.
inline std::uint16_t LoadPort(const SharedObject& object)
{
    auto* const port = reinterpret_cast<const volatile std::uint16_t*>(reinterpret_cast<const volatile char*>(&object) +
                                                                       offsetof(SharedObject, port));
    const std::uint16_t value = *port;
    std::atomic_thread_fence(std::memory_order_acquire);
    return value;
}

inline void StorePort(SharedObject& object, std::uint16_t value)
{
    auto* const port = reinterpret_cast<volatile std::uint16_t*>(reinterpret_cast<volatile char*>(&object) +
                                                                 offsetof(SharedObject, port));
    std::atomic_thread_fence(std::memory_order_release);
    *port = value;
}

/// Everything but the port, and the port as not there yet: the object may be a dead server's.
inline void WriteHeader(SharedObject& shared)
{
    volatile SharedObject& object = shared;
    object.marker = kSharedMarker;
    object.headerSize = kSharedHeaderSize;
    StorePort(shared, 0);
    object.reserved2 = 0;
}

} // namespace zuIPCPipe
