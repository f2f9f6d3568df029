// What features are made of: kinds, values, states, and the error that names what is wrong.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#if defined(ZU_GEV_FEATURES_STATIC)
#define ZU_GEV_FEATURES_API
#elif defined(_MSC_VER) && defined(ZU_GEV_FEATURES_BUILD)
#define ZU_GEV_FEATURES_API __declspec(dllexport)
#elif defined(_MSC_VER)
#define ZU_GEV_FEATURES_API __declspec(dllimport)
#else
#define ZU_GEV_FEATURES_API __attribute__((visibility("default")))
#endif
// The error crosses from the library into its user even where that has loaded it while running.
#if defined(_MSC_VER)
#define ZU_GEV_FEATURES_TYPE
#else
#define ZU_GEV_FEATURES_TYPE __attribute__((visibility("default")))
#endif

namespace zuGevFeatures {

enum class Kind {
    integer,
    real,
    boolean,
    text,
    enumeration,
    command,
    category,
    bytes, ///< a block of memory without a meaning of its own; its value can't be had by name
};

/// For whom a feature is. Who sees a level sees those before it.
enum class Visibility { beginner, expert, guru, invisible };

enum class Access {
    notImplemented, ///< this camera will never have it
    notAvailable,   ///< not with the present settings
    readOnly,       ///< for now, perhaps: another feature may lock it
    writeOnly,
    readWrite,
};

/// Integer, real, boolean; text and enumerations as a string.
using Value = std::variant<std::int64_t, double, bool, std::string>;

/// What the description says of a feature, whatever the camera's state.
struct Feature {
    std::string name;
    std::string displayName; ///< the name, where the description has none
    std::string category;    ///< path of categories, "/" between them; empty for a feature that no category lists
    Kind kind = Kind::integer;
    Visibility visibility = Visibility::beginner;
    std::string unit;
    std::string description;
    std::vector<std::string> selectors; ///< features that choose which value this one shows, outermost first
};

/// An entry of an enumeration.
struct Entry {
    std::string name;
    std::string displayName;
    std::int64_t value = 0;
    bool available = true; ///< may be set now
};

/// How a feature stands. What the camera does not tell, or what has no meaning for its kind, is empty.
struct State {
    Access access = Access::notAvailable;
    std::optional<Value> value;
    std::string text;             ///< the value as people write it
    std::optional<Value> minimum; ///< with maximum and increment: integer or real, as the value
    std::optional<Value> maximum;
    std::optional<Value> increment;
    std::vector<Entry> entries;
    std::string allowed;                 ///< the bounds, or the available entries, as people write them
    std::optional<std::int64_t> longest; ///< most bytes of a text
    std::string problem;                 ///< why there is no value although access says that there should be one
};

/// Another feature that is no longer as it was.
struct Change {
    std::string feature;
    State before;
    State after;
};

/// What setting a feature came to.
struct Outcome {
    std::optional<Value> value; ///< what stands now; empty if it can't be read
    std::string text;           ///< the same as people write it
    bool asAsked = true;        ///< false: the camera made something else of it
    std::vector<Change> changes;
};

/// Something that could not be saved or loaded.
struct Problem {
    std::string feature;
    std::string selection; ///< "GainSelector=Red", or empty
    std::string message;
};

struct Saved {
    std::string json;
    std::size_t values = 0;
    std::vector<Problem> problems;
};

struct Loaded {
    std::size_t values = 0; ///< that stand now as the file has them
    std::vector<Problem> problems;
};

/// Something is wrong with a feature, a value, or the description. The text is for people and names all three.
class ZU_GEV_FEATURES_TYPE FeatureError : public std::runtime_error {
public:
    enum class Reason {
        unknown,      ///< no feature has this name
        wrongKind,    ///< the feature has no such operation, or no such value
        notAvailable, ///< not implemented, or not with the present settings
        notReadable,
        notWritable, ///< never, or not while another feature locks it
        badValue,    ///< out of bounds, no entry, or not to be understood; `allowed` says what would be
        description, ///< the camera's description is absent or at fault
        file,        ///< not the text that `save` makes
    };

    FeatureError(Reason reason, std::string feature, const std::string& what, std::string allowed = {})
        : std::runtime_error(what), reason_(reason), feature_(std::move(feature)), allowed_(std::move(allowed))
    {
    }

    Reason reason() const { return reason_; }
    const std::string& feature() const { return feature_; } ///< empty if it is about none
    const std::string& allowed() const { return allowed_; } ///< "16 to 640 in steps of 4"; empty if there is none

private:
    Reason reason_;
    std::string feature_;
    std::string allowed_;
};

} // namespace zuGevFeatures
