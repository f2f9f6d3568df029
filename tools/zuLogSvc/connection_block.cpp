// Publication of the log service. Each object is used by one thread.
#include "tools/zuLogSvc/connection_block.h"

#include "platform/error.h"
#include "tools/zuLogSvc/protocol.h"

#include <atomic>
#include <cstring>
#include <string>
#include <utility>

namespace zuLogSvc {
namespace {

std::string because(int error) { return ": " + zuPlatform::errorText(static_cast<std::uint32_t>(error)); }

void storeMagic(std::uint8_t* block, std::uint32_t value)
{
    // Readers take the block as valid by this word, so it is written last, and goes first.
    std::atomic_ref<std::uint32_t>(*reinterpret_cast<std::uint32_t*>(block + Block::magic)).store(value);
}

} // namespace

std::unique_ptr<InstanceGuard> InstanceGuard::take()
{
    int error = 0;
    auto mutex = zuPlatform::NamedMutex::create(instanceMutexName, error);
    if (!mutex)
        throw PublicationError("The mutex of the log service cannot be opened" + because(error));
    switch (mutex->wait(0)) {
    case zuPlatform::NamedMutex::WaitResult::signalled:
    case zuPlatform::NamedMutex::WaitResult::abandoned:
        return std::unique_ptr<InstanceGuard>(new InstanceGuard(std::move(mutex)));
    case zuPlatform::NamedMutex::WaitResult::timeout:
        return nullptr;
    case zuPlatform::NamedMutex::WaitResult::failed:
        break;
    }
    throw PublicationError("The mutex of the log service cannot be taken");
}

InstanceGuard::~InstanceGuard() { mutex_->release(); }

ConnectionBlock::ConnectionBlock(const Endpoints& endpoints)
{
    using zuPlatform::SharedMemory;
    SharedMemory::remove(connectionBlockName);
    int error = 0;
    // Another user's block is not written to, even if it could be: that user could cut it short under our hands.
    memory_ = SharedMemory::create(connectionBlockName, Block::bytes, error, SharedMemory::Writers::owner);
    if (!memory_ && SharedMemory::open(connectionBlockName, SharedMemory::Access::readOnly, error))
        throw PublicationError(
            "Another user's log service has left its connection block, which only that user and root "
            "can remove");
    if (!memory_)
        throw PublicationError("The connection block cannot be made" + because(error));
    published_ = true;
    block_ = static_cast<std::uint8_t*>(memory_->map(Block::bytes));
    if (block_ == nullptr) {
        withdraw();
        throw PublicationError("The connection block cannot be mapped");
    }
    store32(block_ + Block::version, Block::versionValue);
    store32(block_ + Block::size, Block::bytes);
    store32(block_ + Block::commandAddress, zuPlatform::networkToHost32(endpoints.command.address));
    store16(block_ + Block::commandPort, zuPlatform::networkToHost16(endpoints.command.port));
    store32(block_ + Block::messageAddress, zuPlatform::networkToHost32(endpoints.message.address));
    store16(block_ + Block::messagePort, zuPlatform::networkToHost16(endpoints.message.port));
    storeMagic(block_, Block::magicValue);
}

ConnectionBlock::~ConnectionBlock()
{
    withdraw();
    // Its owner's other programs can cut it short.
    if (memory_->size() >= Block::bytes)
        storeMagic(block_, 0);
}

void ConnectionBlock::withdraw()
{
    if (std::exchange(published_, false))
        zuPlatform::SharedMemory::remove(connectionBlockName);
}

std::optional<Endpoints> readConnectionBlock()
{
    using zuPlatform::SharedMemory;
    int error = 0;
    const auto memory = SharedMemory::open(connectionBlockName, SharedMemory::Access::readOnly, error);
    if (!memory || memory->size() < Block::bytes)
        return std::nullopt;
    const auto* block = static_cast<const std::uint8_t*>(memory->map(Block::bytes));
    if (block == nullptr || load32(block + Block::magic) != Block::magicValue || load32(block + Block::version) < 1 ||
        load32(block + Block::size) < Block::bytes)
        return std::nullopt;
    using zuPlatform::hostToNetwork16;
    using zuPlatform::hostToNetwork32;
    return Endpoints{
        {hostToNetwork32(load32(block + Block::commandAddress)), hostToNetwork16(load16(block + Block::commandPort))},
        {hostToNetwork32(load32(block + Block::messageAddress)), hostToNetwork16(load16(block + Block::messagePort))}};
}

} // namespace zuLogSvc
