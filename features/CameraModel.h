// One camera's features over the interpreter, step by step and without a lock: whoever uses it holds that of the
// camera. Each step throws what the public interface says.
#pragma once

#include "features/Description.h"
#include "features/Device.h"
#include "features/Values.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zuGevFeatures {

class CameraModel {
public:
    CameraModel(std::shared_ptr<Port> port, const std::string& description);

    const Description& description() const { return description_; }

    /// Throws FeatureError for a name that nobody has.
    Feature describe(const std::string& name) const;
    State state(const std::string& name);
    Value get(const std::string& name);
    std::string text(const std::string& name, const Value& value) const;
    void set(const std::string& name, const Value& value);
    Value parse(const std::string& name, const std::string& text);
    void execute(const std::string& name);
    bool hasEnded(const std::string& name);

    /// What a refusal of the camera, or a FeatureError, says; empty if there was none. All else passes.
    std::string problemOf(const std::function<void()>& action);

    Access access(const std::string& name);
    /// What a selector can be set to now; its present value alone if that can't be told, or are more than `most`.
    std::vector<Value> choices(const std::string& name, std::size_t most);

private:
    /// A feature that can be asked, in a step of its own; `doing` tells of it in errors.
    struct Step {
        const Node* node;
        std::string name;
        std::string doing;
        bool writing;
    };
    const Node& require(const std::string& name) const;
    Step begin(const std::string& name, const std::string& doing, bool writing = false);
    void check(const Step& step, const Failure& failure);
    void checkAccesses(const Step& step);

    Access accessOf(const Step& step);
    void requireReadable(const Step& step);
    void requireWritable(const Step& step);
    std::string textOf(const Step& step);
    Value valueOf(const Step& step);
    void readBounds(const Step& step, State& state);
    std::vector<Entry> entriesOf(const Step& step);
    [[noreturn]] void refuseValue(const Step& step, const std::string& text, const std::string& allowed);
    void setInteger(const Step& step, std::int64_t value);
    void setReal(const Step& step, double value);
    void setText(const Step& step, const std::string& value);
    void setEntry(const Step& step, const Value& value);
    Notation notationOf(const Node& node) const;

    std::vector<std::string> offsets_; ///< made first: what it refuses, the interpreter doesn't see
    Device device_;
    Description description_;
};

} // namespace zuGevFeatures
