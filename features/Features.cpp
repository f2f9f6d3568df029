// The public interface: one lock for each camera around single steps.
#include "features/Features.h"

#include "features/CameraModel.h"
#include "features/SaveLoad.h"
#include "genicam/DescriptionFile.h"

#include <algorithm>
#include <mutex>
#include <thread>

namespace zuGevFeatures {

namespace {

/// Reads the file out of the camera, unzipped. What the port throws passes.
std::string fetchDescription(Port& port)
{
    const auto read = [&](std::uint32_t address, void* to, std::size_t size) { port.readMemory(address, to, size); };
    const zuGenICam::Location location = zuGenICam::locate(read);
    std::vector<std::uint8_t> bytes;
    try {
        bytes.resize(zuGenICam::requireLocal(location, largestDescription).size);
    } catch (const std::runtime_error& error) {
        throw FeatureError(FeatureError::Reason::description, {}, error.what());
    }
    read(location.local->address, bytes.data(), bytes.size());
    try {
        if (zuGenICam::isZip(bytes))
            bytes = zuGenICam::unzip(bytes, largestDescription);
    } catch (const std::runtime_error& error) {
        throw FeatureError(FeatureError::Reason::description, {},
                           std::string("The camera's description is damaged: ") + error.what());
    }
    // Cameras fill the space behind it with zeros.
    bytes.erase(std::find(bytes.begin(), bytes.end(), std::uint8_t{0}), bytes.end());
    return {bytes.begin(), bytes.end()};
}

class LockedFeatures : public Features {
public:
    LockedFeatures(std::shared_ptr<Port> port, std::string description)
        : description_(std::move(description)), camera_(std::move(port), description_)
    {
    }

    const std::string& description() const override { return description_; }

    std::vector<Feature> list() override { return camera_.description().features(); }
    Feature describe(const std::string& name) override
    {
        const Lock lock(mutex_);
        return camera_.describe(name);
    }
    State state(const std::string& name) override
    {
        const Lock lock(mutex_);
        return camera_.state(name);
    }
    Value get(const std::string& name) override
    {
        const Lock lock(mutex_);
        return camera_.get(name);
    }
    std::string getText(const std::string& name) override
    {
        const Lock lock(mutex_);
        return camera_.text(name, camera_.get(name));
    }
    void set(const std::string& name, const Value& value) override
    {
        const Lock lock(mutex_);
        camera_.set(name, value);
    }
    void setText(const std::string& name, const std::string& text) override
    {
        const Lock lock(mutex_);
        camera_.set(name, camera_.parse(name, text));
    }
    Outcome setAndTell(const std::string& name, const Value& value) override
    {
        const Lock lock(mutex_);
        return tell(name, value);
    }
    Outcome setTextAndTell(const std::string& name, const std::string& text) override
    {
        const Lock lock(mutex_);
        return tell(name, camera_.parse(name, text));
    }
    void execute(const std::string& command) override
    {
        const Lock lock(mutex_);
        camera_.execute(command);
    }
    bool waitForEnd(const std::string& command, std::chrono::milliseconds timeout) override
    {
        using Clock = std::chrono::steady_clock;
        constexpr std::chrono::milliseconds longestPause{50};
        const Clock::time_point deadline = Clock::now() + timeout;
        for (std::chrono::milliseconds pause{1};; pause = std::min(pause * 2, longestPause)) {
            {
                const Lock lock(mutex_);
                if (camera_.hasEnded(command))
                    return true;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0)
                return false;
            std::this_thread::sleep_for(std::min(pause, left));
        }
    }
    Saved save() override
    {
        const Lock lock(mutex_);
        return saveFeatures(camera_);
    }
    Loaded load(const std::string& json) override
    {
        const Lock lock(mutex_);
        return loadFeatures(camera_, json);
    }

private:
    using Lock = std::lock_guard<std::mutex>;

    Outcome tell(const std::string& name, const Value& value)
    {
        const std::vector<std::string> dependents = camera_.description().dependents(name);
        std::vector<State> before;
        for (const std::string& dependent : dependents)
            before.push_back(camera_.state(dependent));
        camera_.set(name, value);
        Outcome outcome;
        const State now = camera_.state(name);
        outcome.value = now.value;
        outcome.text = now.text;
        // An entry may have been given by its number.
        const bool byNumber = !now.entries.empty() && std::holds_alternative<std::int64_t>(value);
        outcome.asAsked = !now.value || byNumber || sameValue(*now.value, value);
        for (std::size_t i = 0; i < dependents.size(); ++i) {
            State after = camera_.state(dependents[i]);
            if (differ(before[i], after))
                outcome.changes.push_back({dependents[i], std::move(before[i]), std::move(after)});
        }
        return outcome;
    }

    static bool differ(const State& a, const State& b)
    {
        const auto entry = [](const Entry& left, const Entry& right) {
            return left.name == right.name && left.available == right.available;
        };
        return a.access != b.access || a.value != b.value || a.minimum != b.minimum || a.maximum != b.maximum ||
               a.increment != b.increment || a.problem != b.problem ||
               !std::equal(a.entries.begin(), a.entries.end(), b.entries.begin(), b.entries.end(), entry);
    }

    const std::string description_;
    std::mutex mutex_; ///< guards camera_, of which the interpreter takes one call at a time; nothing is taken inside
    CameraModel camera_;
};

} // namespace

std::unique_ptr<Features> openFeatures(std::shared_ptr<Port> port, const std::string& description)
{
    std::string text = description.empty() ? fetchDescription(*port) : description;
    return std::make_unique<LockedFeatures>(std::move(port), std::move(text));
}

} // namespace zuGevFeatures

zuGevFeatures::Features* zugevfeatures_open_1(const std::shared_ptr<zuGevFeatures::Port>& port,
                                              const std::string& description)
{
    return zuGevFeatures::openFeatures(port, description).release();
}
