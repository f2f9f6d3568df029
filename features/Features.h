// The features of a camera by the names of its GenICam description: ExposureTime, PixelFormat, AcquisitionStart. This
// header knows registers and memory by a Port; CameraFeatures.h makes one of a connection through the daemon.
#pragma once

#include "features/FeatureTypes.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace zuGevFeatures {

/// Registers and memory of one camera, in host order and as they lie in the camera. Called by one thread at a time for
/// each Features. Whatever an access throws reaches the caller of the feature through `raise`.
class Port {
public:
    virtual ~Port() = default;
    virtual std::uint32_t readRegister(std::uint32_t address) = 0;
    virtual void writeRegister(std::uint32_t address, std::uint32_t value) = 0;
    virtual void readMemory(std::uint32_t address, void* destination, std::size_t size) = 0;
    virtual void writeMemory(std::uint32_t address, const void* source, std::size_t size) = 0;
    /// Whether `cause`, which an access threw, says that the camera answered and refused. Then other features may well
    /// work, and what looks at many of them goes on.
    virtual bool isRefusal(std::exception_ptr cause)
    {
        (void)cause;
        return false;
    }
    /// Throws what an access threw, with `doing` ("Width can't be set to 640") in its words where it can. `writing`
    /// tells that the feature was being set, so that a Port can say who holds the camera. As it stands here, it throws
    /// the cause unchanged.
    [[noreturn]] virtual void raise(const std::string& doing, bool writing, std::exception_ptr cause)
    {
        (void)doing;
        (void)writing;
        std::rethrow_exception(cause);
    }
};

/// All features of one camera. Any thread may call; the calls for one camera run one after the other, each for as long
/// as its register accesses take, and different cameras do not wait for each other. Nothing is cached: each answer
/// comes from the camera. Throws FeatureError for what is wrong with a feature, a value or the description, and what
/// the Port raises for what is wrong with the camera or the daemon.
class Features {
public:
    virtual ~Features() = default;

    /// The camera's description as XML, unzipped.
    virtual const std::string& description() const = 0;

    /// What the description lists, in its order, without asking the camera anything.
    virtual std::vector<Feature> list() = 0;
    virtual Feature describe(const std::string& name) = 0;
    /// How the feature stands now. Does not throw for one that can't be used now, or whose registers the camera
    /// refuses: `access` and `problem` say so.
    virtual State state(const std::string& name) = 0;

    /// An enumeration's value is the name of its entry. Features without a value (commands, categories) are refused.
    virtual Value get(const std::string& name) = 0;
    /// The value as people write it, without unit; `setText` takes it back.
    virtual std::string getText(const std::string& name) = 0;

    /// Sets a value that the description allows now; the camera may round it. An integer is good for a real number, an
    /// entry of an enumeration may be given by its name or its number.
    virtual void set(const std::string& name, const Value& value) = 0;
    /// As `set`, from text: numbers (0x in front for hexadecimal), true and false, names of entries.
    virtual void setText(const std::string& name, const std::string& text) = 0;
    /// As `set`, and tells what it came to: the value that stands afterwards, and each feature which by the description
    /// depends on this one and is no longer as it was. Reads those features before and after.
    virtual Outcome setAndTell(const std::string& name, const Value& value) = 0;
    virtual Outcome setTextAndTell(const std::string& name, const std::string& text) = 0;

    /// Starts a command and returns.
    virtual void execute(const std::string& command) = 0;
    /// Waits until the camera says that the command has ended; false if it hasn't by `timeout`. Other threads get
    /// their turn meanwhile. A command whose register can't be read counts as ended.
    virtual bool waitForEnd(const std::string& command, std::chrono::milliseconds timeout) = 0;

    /// Every value that can be read and set, as JSON: those behind selectors once for each value of the selectors,
    /// which are put back afterwards. Moving selectors takes control of the camera; where one can't be moved, its
    /// present value alone is saved, and `problems` says so. Addresses of the link and of the streams, which belong to
    /// an application and not to the camera's settings, are left out.
    virtual Saved save() = 0;
    /// Sets what `save` has written, in whatever order works. What could not be set, or does not stand afterwards, is
    /// in `problems`; everything else is set nevertheless. Throws FeatureError if the text is none of `save`.
    virtual Loaded load(const std::string& json) = 0;

    /// The integer, real number, truth or text of a feature of that kind.
    std::int64_t integer(const std::string& name) { return take<std::int64_t>(name, "integer"); }
    double real(const std::string& name) { return take<double>(name, "real"); }
    bool boolean(const std::string& name) { return take<bool>(name, "boolean"); }

private:
    template <typename T>
    T take(const std::string& name, const char* kind)
    {
        const Value value = get(name);
        if (const T* const wanted = std::get_if<T>(&value))
            return *wanted;
        throw FeatureError(FeatureError::Reason::wrongKind, name, name + " is no " + kind);
    }
};

/// Largest description that is taken, unzipped, in bytes.
inline constexpr std::size_t largestDescription = std::size_t{16} << 20;

/// Reads the description out of the camera, which takes some hundred accesses, and gets everything ready. An empty
/// `description` has it read; a text is taken in its place. Throws FeatureError with Reason::description for one that
/// is absent, kept elsewhere than in the camera, damaged, too large, or that refers to itself in a circle.
ZU_GEV_FEATURES_API std::unique_ptr<Features> openFeatures(std::shared_ptr<Port> port,
                                                           const std::string& description = {});

} // namespace zuGevFeatures

/// `openFeatures` under a name for programs that load the library while they run. Throws as that does; the caller
/// deletes the result.
extern "C" ZU_GEV_FEATURES_API zuGevFeatures::Features*
zugevfeatures_open_1(const std::shared_ptr<zuGevFeatures::Port>& port, const std::string& description);
