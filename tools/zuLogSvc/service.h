// The running log service: sockets, threads and their end.
//
// Threads: one receives messages and does nothing else, one answers at the command port, one writes. All are started by
// `start` and joined by `stop`.
#pragma once

#include "tools/zuLogSvc/command_port.h"
#include "tools/zuLogSvc/connection_block.h"
#include "tools/zuLogSvc/message_writer.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

namespace zuLogSvc {

/// A service that can't start, with words for people.
class ServiceError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Used by one thread, apart from `note`, `endpoints` and `counts`.
class Service {
public:
    /// Opens the sockets on 127.0.0.1 and the outputs. `trouble` gets what should reach people even when no output
    /// works; called on any thread. Throws ServiceError or OutputError.
    Service(Settings settings, const Clock& clock, std::function<void(const std::string&)> trouble);
    /// Stops, and waits for the outputs however long they take.
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Starts the threads. Its endpoints may have been published before: what is asked meanwhile waits in the sockets.
    void start();

    /// New rules, outputs and `follow` from now on; ports and buffers stay. Throws OutputError, with nothing changed.
    void reload(Settings settings);

    /// Ends the service: what has arrived is still written, viewers are told. False if the outputs did not take it
    /// within `timeoutMs`; the writing thread then still waits for them, and only the process's end gets rid of it.
    bool stop(std::uint32_t timeoutMs);

    /// A message of the service's own; `level` is a level bit. Any thread.
    void note(std::uint32_t level, const std::string& text);

    const Endpoints& endpoints() const { return endpoints_; }
    WriterCounts counts() const { return writer_.counts(); }

private:
    struct Sockets {
        std::shared_ptr<zuPlatform::DatagramSocket> command;
        std::shared_ptr<zuPlatform::DatagramSocket> message;
    };

    static Sockets openSockets(const Settings& settings);
    static Outputs openOutputs(const Settings& settings, const Clock& clock);
    void receiveMessages();
    void answerCommands();
    void write();

    const Clock& clock_;
    std::function<void(const std::string&)> trouble_;
    std::shared_ptr<const Settings> settings_;
    Sockets sockets_;
    Endpoints endpoints_;
    DatagramQueue queue_;
    Followers followers_;
    MessageWriter writer_;
    CommandPort commandPort_;

    std::atomic<bool> stopping_{false};
    std::mutex writtenMutex_; // guards written_
    std::condition_variable writtenChanged_;
    bool written_ = false;
    std::thread receiver_, answerer_, writing_;
};

} // namespace zuLogSvc
