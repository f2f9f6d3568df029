// A dispatcher in the server's role with a peer of bare sockets, and the instances that it makes.
#pragma once

#include "tests/unit/IPCPipe/pipe_support.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace zuTest {

/// What a bench's callback fills: there before the bench's threads.
struct Received {
    std::atomic<std::size_t> poolBeforeTerminate{0};
    std::mutex mutex;
    std::vector<std::shared_ptr<zuIPCPipe::IMsgSrc>> instances;
};

/// A bench in the server's role that keeps the instances it is given.
struct ServerBench : Received, Bench {
    ServerBench() : Bench([this](std::shared_ptr<zuIPCPipe::IMsgSrc> source) { take(std::move(source)); }) {}
    ~ServerBench()
    {
        dispatcher->Shutdown();
        DispatcherProbe::join(*dispatcher);
    }
    void take(std::shared_ptr<zuIPCPipe::IMsgSrc> source)
    {
        source->SetMsgHandler(echo(8));
        // The release that follows trims the pool; by then the command thread is to have its next buffer.
        source->SetDisconnectHandler([this] {
            const std::size_t full = poolBeforeTerminate;
            EXPECT_TRUE(full == 0 || poolBecomes(full - 1));
        });
        const std::lock_guard<std::mutex> lock(mutex);
        instances.push_back(std::move(source));
    }
    std::uint32_t connect(std::uint32_t ownIndex)
    {
        command(message(zuIPCPipe::kMsgDispatcher | zuIPCPipe::kMsgConnect, ownIndex));
        return static_cast<std::uint32_t>(number(ack.receive().value(), 20, 4));
    }
    void terminate(std::uint32_t index)
    {
        poolBeforeTerminate = DispatcherProbe::poolSize(*dispatcher);
        command(message(zuIPCPipe::kMsgControl | zuIPCPipe::kMsgTerminate, index));
        EXPECT_TRUE(ack.receive());
        EXPECT_TRUE(eventually([&] { return !DispatcherProbe::slot(*dispatcher, index); }));
        poolBeforeTerminate = 0;
    }
};

} // namespace zuTest
