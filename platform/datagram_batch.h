// Room for many datagrams that are read by one system call, each laid into pieces of memory that its reader chooses.
#pragma once

#include "platform/socket.h"

#include <cstddef>
#include <memory>
#include <span>

namespace zuPlatform {

struct MemoryPiece {
    void* data = nullptr;
    std::size_t size = 0;
};

/// Filled by `DatagramSocket::receiveBatch`. Used by one thread at a time; nothing here fails.
class DatagramBatch {
public:
    static constexpr std::size_t mostPieces = 3;

    explicit DatagramBatch(std::size_t capacity); ///< datagrams
    ~DatagramBatch();
    DatagramBatch(const DatagramBatch&) = delete;
    DatagramBatch& operator=(const DatagramBatch&) = delete;

    std::size_t capacity() const;

    /// Where the datagram `index` goes from the next `receiveBatch` on: into the first piece, what doesn't fit there
    /// into the next. `mostPieces` at most; without any its bytes are lost.
    void setPieces(std::size_t index, std::span<const MemoryPiece> pieces);

    /// Of the datagrams of the last `receiveBatch`. The size is the datagram's own: what is beyond all pieces was lost.
    std::size_t size(std::size_t index) const;
    SocketAddress from(std::size_t index) const;

private:
    friend class DatagramSocket;
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace zuPlatform
