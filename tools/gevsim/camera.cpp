// The operations of Camera. They run on the caller's thread, under the camera's lock, which each takes for itself.
#include "tools/gevsim/camera.h"

#include "tools/gevsim/camera_impl.h"
#include "tools/gevsim/script.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace gevsim {

Camera::Camera(const Config& config) : impl_(std::make_unique<Impl>(config)) {}
Camera::~Camera() = default;

Config Camera::configFor(const Endpoint& endpoint)
{
    Config config;
    config.endpoint = endpoint;
    return config;
}

Endpoint Camera::endpoint() const
{
    const Impl::Lock lock(impl_->mutex);
    return impl_->config.endpoint;
}

std::uint32_t Camera::readRegister(std::uint32_t address) const
{
    const Impl::Lock lock(impl_->mutex);
    impl_->now();
    return impl_->device.getRegister(address);
}

void Camera::writeRegister(std::uint32_t address, std::uint32_t value)
{
    const Impl::Lock lock(impl_->mutex);
    impl_->device.setRegister(address, value, impl_->now());
    impl_->changed();
}

std::vector<std::uint8_t> Camera::readMemory(std::uint32_t address, std::size_t size) const
{
    const Impl::Lock lock(impl_->mutex);
    impl_->now();
    const std::uint8_t* bytes = impl_->device.space().data(address, size);
    if (!bytes)
        throw std::out_of_range("the camera has no such memory");
    return {bytes, bytes + size};
}

void Camera::writeMemory(std::uint32_t address, const std::vector<std::uint8_t>& bytes)
{
    const Impl::Lock lock(impl_->mutex);
    impl_->now();
    std::uint8_t* to = impl_->device.space().data(address, bytes.size());
    if (!to)
        throw std::out_of_range("the camera has no such memory");
    std::copy(bytes.begin(), bytes.end(), to);
    impl_->changed();
}

Control Camera::control() const
{
    const Impl::Lock lock(impl_->mutex);
    impl_->now();
    return impl_->device.control();
}

void Camera::setControl(const Control& control)
{
    const Impl::Lock lock(impl_->mutex);
    impl_->device.forceControl(control, impl_->now());
    impl_->changed();
}

void Camera::inject(const Fault& fault)
{
    const Impl::Lock lock(impl_->mutex);
    impl_->faults.add(fault);
    impl_->changed();
}

std::vector<Fault> Camera::faults() const
{
    const Impl::Lock lock(impl_->mutex);
    return impl_->faults.faults();
}

void Camera::silence(Milliseconds time)
{
    const Impl::Lock lock(impl_->mutex);
    impl_->setSilence(Impl::after(impl_->now(), time));
    impl_->changed();
}

void Camera::endSilence()
{
    const Impl::Lock lock(impl_->mutex);
    impl_->setSilence(Impl::Time::min());
    impl_->changed();
}

void Camera::powerCycle(Milliseconds off)
{
    impl_->awaitLeft();
    const Impl::Lock lock(impl_->mutex);
    impl_->powerCycle(off);
}

void Camera::setLoss(double probability, std::uint64_t seed)
{
    const Impl::Lock lock(impl_->mutex);
    impl_->random.seed(seed);
    impl_->loss = probability;
}

std::uint64_t Camera::seed() const { return impl_->config.seed; }

void Camera::clearFaults()
{
    Impl::Lock lock(impl_->mutex);
    const auto time = impl_->now();
    impl_->faults.clear();
    impl_->stream.clearFaults();
    impl_->loss = 0;
    impl_->setSilence(Impl::Time::min());
    impl_->moveHeldToScheduled(impl_->held.size(), time);
    impl_->moveReorderedToScheduled(time);
    impl_->flush(lock, time);
    impl_->changed();
}

std::size_t Camera::heldAnswers() const
{
    const Impl::Lock lock(impl_->mutex);
    return impl_->held.size();
}

std::size_t Camera::release(std::size_t most)
{
    Impl::Lock lock(impl_->mutex);
    const auto time = impl_->now();
    const std::size_t released = std::min(most, impl_->held.size());
    impl_->moveHeldToScheduled(released, time);
    impl_->flush(lock, time);
    return released;
}

void Camera::send(const std::vector<std::uint8_t>& bytes, const Endpoint& to)
{
    Impl::Lock lock(impl_->mutex);
    const auto time = impl_->now();
    impl_->schedule({time, to, bytes});
    impl_->flush(lock, time);
}

std::string Camera::execute(const std::string& line) { return runScriptLine(*this, line); }

void Camera::setRecording(bool on)
{
    const Impl::Lock lock(impl_->mutex);
    impl_->recorder.setRecording(on);
}

void Camera::setTrace(std::function<void(const std::string&)> trace)
{
    const Impl::Lock lock(impl_->mutex);
    impl_->recorder.setTrace(std::move(trace));
}

std::vector<Datagram> Camera::log() const
{
    const Impl::Lock lock(impl_->mutex);
    return {impl_->recorder.log().begin(), impl_->recorder.log().end()};
}

void Camera::clearLog()
{
    const Impl::Lock lock(impl_->mutex);
    impl_->recorder.clear();
    impl_->stream.clearReport();
}

Counters Camera::counters() const
{
    const Impl::Lock lock(impl_->mutex);
    impl_->now();
    return impl_->recorder.counters();
}

std::uint64_t Camera::received(Command command) const
{
    const Impl::Lock lock(impl_->mutex);
    return impl_->recorder.count(command);
}

Endpoint Camera::lastPeer() const
{
    const Impl::Lock lock(impl_->mutex);
    return impl_->recorder.lastPeer();
}

void Camera::inject(const StreamFault& fault) { impl_->stream.inject(fault); }
std::vector<StreamFault> Camera::streamFaults() const { return impl_->stream.faults(); }
StreamCounters Camera::streamCounters() const { return impl_->stream.counters(); }
std::vector<SentFrame> Camera::sentFrames() const { return impl_->stream.frames(); }
bool Camera::streamOpen() const { return impl_->stream.open(); }
void Camera::setNextPicture(std::uint64_t number) { impl_->stream.setNextNumber(number); }

void Camera::pulseLine()
{
    const Impl::Lock lock(impl_->mutex);
    impl_->now();
    impl_->device.pulseLine();
}

std::vector<Datagram> Camera::select(const std::function<bool(const Datagram&)>& wanted) const
{
    const Impl::Lock lock(impl_->mutex);
    std::vector<Datagram> found;
    for (const Datagram& datagram : impl_->recorder.log()) {
        if (wanted(datagram))
            found.push_back(datagram);
    }
    return found;
}

std::vector<Datagram> Camera::received() const
{
    return select([](const Datagram& datagram) { return datagram.direction == Datagram::Direction::received; });
}

std::vector<Datagram> Camera::sent() const
{
    return select([](const Datagram& datagram) { return datagram.direction == Datagram::Direction::sent; });
}

std::vector<Datagram> Camera::commands(Command command, std::uint32_t address) const
{
    return select([&](const Datagram& datagram) { return datagram.is(command) && datagram.address() == address; });
}

std::vector<std::uint32_t> Camera::writesTo(std::uint32_t address) const
{
    std::vector<std::uint32_t> values;
    for (const Datagram& datagram : commands(Command::writeReg, address))
        values.push_back(datagram.value());
    return values;
}

bool Camera::waitFor(const std::function<bool()>& condition, Milliseconds deadline) const
{
    // Conditions may hang on time, or on things outside the camera, so they are looked at from time to time as well.
    constexpr Milliseconds step{20};
    const auto end = Impl::Clock::now() + deadline;
    Impl::Lock lock(impl_->mutex);
    ++impl_->waiters;
    bool met = false;
    for (;;) {
        const std::uint64_t seen = impl_->changes;
        lock.unlock();
        const bool last = Impl::Clock::now() >= end;
        try {
            met = condition();
        } catch (...) {
            lock.lock();
            --impl_->waiters;
            throw;
        }
        lock.lock();
        if (met || last)
            break;
        impl_->condition.wait_until(lock, std::min(end, Impl::Clock::now() + step),
                                    [&] { return impl_->changes != seen; });
    }
    --impl_->waiters;
    return met;
}

bool Camera::waitForReceived(Command command, std::uint64_t count, Milliseconds deadline) const
{
    return waitFor([&] { return received(command) >= count; }, deadline);
}

bool Camera::waitForWrite(std::uint32_t address, std::size_t count, Milliseconds deadline) const
{
    return waitFor([&] { return commands(Command::writeReg, address).size() >= count; }, deadline);
}

void Camera::onCommand(std::function<void(const Datagram&)> hook)
{
    const Impl::Lock lock(impl_->mutex);
    impl_->hasHook = static_cast<bool>(hook);
    impl_->hook = std::make_shared<const std::function<void(const Datagram&)>>(std::move(hook));
}

} // namespace gevsim
