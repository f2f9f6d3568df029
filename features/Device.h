// The camera as the interpreter sees it: a device whose registers and memory go through a Port. One thread at a time.
#pragma once

#include "features/Features.h"

#include <arv.h>

#include <exception>
#include <memory>
#include <string>

namespace zuGevFeatures {

struct Unref {
    void operator()(void* object) const { g_object_unref(object); }
};
template <typename T>
using Owned = std::unique_ptr<T, Unref>;

/// A place for the interpreter's errors that is empty again before each use.
class Failure {
public:
    Failure() = default;
    ~Failure() { g_clear_error(&error_); }
    Failure(const Failure&) = delete;
    Failure& operator=(const Failure&) = delete;
    GError** place()
    {
        g_clear_error(&error_);
        return &error_;
    }
    explicit operator bool() const { return error_ != nullptr; }
    std::string text() const { return error_ != nullptr ? error_->message : ""; }

private:
    GError* error_ = nullptr;
};

/// What the interpreter's accesses go through. No exception crosses the interpreter: the first one is kept, accesses
/// after it fail at once, and the caller throws it afterwards.
class Accesses {
public:
    explicit Accesses(std::shared_ptr<Port> port) : port_(std::move(port)) {}

    /// Before each step: forgets what failed, and allows so many accesses anew.
    void begin()
    {
        failure_ = nullptr;
        left_ = mostAccesses;
    }
    std::exception_ptr failure() const { return failure_; }
    Port& port() { return *port_; }

    bool read(std::uint64_t address, void* destination, std::size_t size, GError** error) noexcept;
    bool write(std::uint64_t address, const void* source, std::size_t size, GError** error) noexcept;

private:
    static constexpr unsigned mostAccesses = 10000; ///< of one step; no feature that can be meant comes near
    template <typename Access>
    bool attempt(std::uint64_t address, std::size_t size, GError** error, Access&& access) noexcept;

    std::shared_ptr<Port> port_;
    std::exception_ptr failure_;
    unsigned left_ = mostAccesses;
};

/// The device, with the description interpreted. Throws FeatureError if that is no description at all.
class Device {
public:
    Device(std::shared_ptr<Port> port, const std::string& description);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    ArvGc* genicam() const { return genicam_.get(); }
    Accesses& accesses() { return accesses_; }

private:
    Accesses accesses_;
    Owned<ArvDevice> device_;
    Owned<ArvGc> genicam_;
};

} // namespace zuGevFeatures
