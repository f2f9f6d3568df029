// Saving moves each group of selectors through its values; loading tries in rounds until nothing more can be set, since
// what one value allows another may forbid.
#include "features/SaveLoad.h"

#include <nlohmann/json.hpp>

#include <map>
#include <set>

namespace zuGevFeatures {

namespace {

using Json = nlohmann::ordered_json;
using Selection = std::vector<std::pair<std::string, Value>>;

constexpr const char* formatName = "zugev-features";
constexpr int formatVersion = 1;
constexpr std::size_t mostChoices = 4096; ///< of one selector
constexpr std::size_t mostValues = 65536; ///< of one feature, over all of its selectors
constexpr int mostRounds = 10;

/// What belongs to an application's link and streams. Setting it back would make the camera send to where nobody
/// listens, or take the link from under whoever sets it.
const std::set<std::string> applicationsOwn = {
    "GevCCP",
    "GevSCPHostPort",
    "GevSCDA",
    "GevSCSP",
    "GevMCDA",
    "GevMCPHostPort",
    "GevMCSP",
    "GevHeartbeatTimeout",
    "GevSCPSFireTestPacket",
    "GevPrimaryApplicationSwitchoverKey",
    "DeviceLinkHeartbeatTimeout",
};

struct Item {
    std::string feature;
    Value value;
    Selection at;
};

Json toJson(const Value& value)
{
    return std::visit([](const auto& held) { return Json(held); }, value);
}

std::optional<Value> fromJson(const Json& json)
{
    if (json.is_boolean())
        return Value(json.get<bool>());
    if (json.is_number_integer())
        return Value(json.get<std::int64_t>());
    if (json.is_number())
        return Value(json.get<double>());
    if (json.is_string())
        return Value(json.get<std::string>());
    return std::nullopt;
}

std::string selectionText(const Selection& selection)
{
    std::string text;
    for (const auto& [selector, value] : selection)
        text += (text.empty() ? "" : ", ") + selector + "=" + valueText(value);
    return text;
}

bool isReadWrite(const State& state) { return state.access == Access::readWrite && state.value.has_value(); }

class Saver {
public:
    explicit Saver(CameraModel& camera) : camera_(camera) {}

    Saved save()
    {
        Selection own;
        for (const Feature& feature : camera_.description().features()) {
            if (isSetting(feature))
                groups_[feature.selectors].push_back(feature.name);
        }
        // In the description's order, whatever group they are in.
        std::set<std::vector<std::string>> done;
        for (const Feature& feature : camera_.description().features()) {
            if (isSetting(feature) && done.insert(feature.selectors).second)
                saveGroup(feature.selectors, groups_[feature.selectors]);
        }
        Json json{{"format", formatName}, {"version", formatVersion}, {"camera", camera_.description().model()}};
        json["features"] = std::move(items_);
        result_.json = json.dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
        return std::move(result_);
    }

private:
    static bool isSetting(const Feature& feature)
    {
        return feature.kind != Kind::category && feature.kind != Kind::command && feature.kind != Kind::bytes &&
               !applicationsOwn.count(feature.name);
    }

    void saveGroup(const std::vector<std::string>& selectors, const std::vector<std::string>& features)
    {
        Selection before;
        for (const std::string& selector : selectors) {
            const State state = camera_.state(selector);
            if (state.value)
                before.emplace_back(selector, *state.value);
        }
        left_ = mostValues;
        Selection at;
        const auto putBack = [&] {
            for (const auto& [selector, value] : before)
                move(selector, value, {});
        };
        try {
            walk(selectors, 0, features, at);
        } catch (...) {
            putBack();
            throw;
        }
        putBack();
    }

    void walk(const std::vector<std::string>& selectors, std::size_t depth, const std::vector<std::string>& features,
              Selection& at)
    {
        if (depth == selectors.size()) {
            for (const std::string& feature : features)
                saveValue(feature, at);
            return;
        }
        const std::string& selector = selectors[depth];
        std::vector<Value> choices;
        const std::string problem = camera_.problemOf([&] { choices = camera_.choices(selector, mostChoices); });
        if (choices.empty()) {
            if (!problem.empty())
                tell(selector, at, problem);
            return walk(selectors, depth + 1, features, at);
        }
        for (const Value& choice : choices) {
            if (left_ == 0)
                return;
            if (!move(selector, choice, at)) {
                // It stays where it is: what shows there is saved, once.
                const State now = camera_.state(selector);
                if (now.value && sameValue(now.value.value(), choice))
                    continue;
                if (now.value)
                    at.emplace_back(selector, *now.value);
                walk(selectors, depth + 1, features, at);
                if (now.value)
                    at.pop_back();
                return;
            }
            at.emplace_back(selector, choice);
            walk(selectors, depth + 1, features, at);
            at.pop_back();
        }
    }

    /// Sets the selector where it isn't there already; false, and told, if it can't be.
    bool move(const std::string& selector, const Value& value, const Selection& at)
    {
        const std::string problem = camera_.problemOf([&] {
            if (!sameValue(camera_.get(selector), value))
                camera_.set(selector, value);
        });
        if (!problem.empty() && told_.insert(selector).second)
            tell(selector, at, problem + "; what it selects is saved for its present value alone");
        return problem.empty();
    }

    void saveValue(const std::string& feature, const Selection& at)
    {
        if (left_ == 0 || --left_ == 0) {
            tell(feature, at, feature + " has more values behind its selectors than can be saved");
            return;
        }
        const State state = camera_.state(feature);
        if (!state.problem.empty())
            return tell(feature, at, state.problem);
        if (!isReadWrite(state))
            return;
        Json item{{"name", feature}, {"value", toJson(*state.value)}};
        if (!at.empty()) {
            Json selection = Json::object();
            for (const auto& [selector, value] : at)
                selection[selector] = toJson(value);
            item["at"] = std::move(selection);
        }
        items_.push_back(std::move(item));
        ++result_.values;
    }

    void tell(const std::string& feature, const Selection& at, const std::string& message)
    {
        result_.problems.push_back({feature, selectionText(at), message});
    }

    CameraModel& camera_;
    std::map<std::vector<std::string>, std::vector<std::string>> groups_;
    std::set<std::string> told_;
    std::size_t left_ = 0;
    Json items_ = Json::array();
    Saved result_;
};

class Loader {
public:
    explicit Loader(CameraModel& camera) : camera_(camera) {}

    Loaded load(const std::string& text)
    {
        parse(text);
        // Selectors come last, since setting what is behind them moves them.
        std::vector<Item> selectors;
        std::vector<Item> settings;
        for (Item& item : items_)
            (isSelector(item.feature) ? selectors : settings).push_back(std::move(item));
        setInRounds(settings);
        setInRounds(selectors);
        return std::move(result_);
    }

private:
    [[noreturn]] static void refuse(const std::string& why)
    {
        throw FeatureError(FeatureError::Reason::file, {}, "These are no saved features: " + why);
    }

    void parse(const std::string& text)
    {
        Json json;
        try {
            json = Json::parse(text);
        } catch (const Json::parse_error& error) {
            refuse(error.what());
        }
        if (!json.is_object() || json.value("format", Json()) != formatName || !json.contains("features") ||
            !json["features"].is_array())
            refuse("they lack the format's name or the list of features");
        if (json.value("version", Json()) != formatVersion)
            refuse("their version isn't known here");
        const Json model = json.value("camera", Json());
        if (model.is_string() && model != camera_.description().model())
            result_.problems.push_back({{}, {}, "They were saved from another model, " + model.get<std::string>()});
        for (const Json& entry : json["features"]) {
            const Json name = entry.is_object() ? entry.value("name", Json()) : Json();
            const auto value = entry.is_object() ? fromJson(entry.value("value", Json())) : std::nullopt;
            if (!name.is_string() || !value)
                refuse("an entry without a name or a value: " +
                       entry.dump(-1, ' ', false, Json::error_handler_t::replace));
            Item item{name.get<std::string>(), *value, {}};
            if (entry.contains("at")) {
                for (const auto& [selector, at] : entry["at"].items()) {
                    const auto selected = fromJson(at);
                    if (!selected)
                        refuse("a selection without a value at " + item.feature);
                    item.at.emplace_back(selector, *selected);
                }
            }
            items_.push_back(std::move(item));
        }
    }

    bool isSelector(const std::string& name) const
    {
        const Node* const node = camera_.description().find(name);
        return node != nullptr && !node->selected.empty();
    }

    void select(const Item& item)
    {
        for (const auto& [selector, value] : item.at) {
            if (!sameValue(camera_.get(selector), value))
                camera_.set(selector, value);
        }
    }

    bool stands(const Item& item)
    {
        select(item);
        return sameValue(camera_.get(item.feature), item.value);
    }

    /// Why the item does not stand afterwards; empty if it does.
    std::string apply(const Item& item)
    {
        return camera_.problemOf([&] {
            if (stands(item))
                return;
            camera_.set(item.feature, item.value);
            const Value now = camera_.get(item.feature);
            if (!sameValue(now, item.value))
                throw FeatureError(FeatureError::Reason::badValue, item.feature,
                                   item.feature + " was set to " + camera_.text(item.feature, item.value) + " and is " +
                                       camera_.text(item.feature, now));
        });
    }

    /// A round sets what isn't as it should be. What one round sets may make room for the next, or upset what stood
    /// before, so it ends when a round finds nothing to do, or nothing that it can.
    void setInRounds(const std::vector<Item>& items)
    {
        std::vector<std::string> problems(items.size());
        for (int round = 0; round < mostRounds; ++round) {
            bool allStand = true;
            bool better = round == 0;
            for (std::size_t i = 0; i < items.size(); ++i) {
                bool stood = false;
                const std::string unread = camera_.problemOf([&] { stood = stands(items[i]); });
                if (unread.empty() && stood) {
                    problems[i].clear();
                    continue;
                }
                allStand = false;
                const std::string before = problems[i];
                problems[i] = apply(items[i]);
                better = better || problems[i].empty() || problems[i] != before;
            }
            if (allStand || !better)
                break;
        }
        for (std::size_t i = 0; i < items.size(); ++i) {
            if (problems[i].empty())
                ++result_.values;
            else
                result_.problems.push_back({items[i].feature, selectionText(items[i].at), problems[i]});
        }
    }

    CameraModel& camera_;
    std::vector<Item> items_;
    Loaded result_;
};

} // namespace

Saved saveFeatures(CameraModel& camera) { return Saver(camera).save(); }

Loaded loadFeatures(CameraModel& camera, const std::string& json) { return Loader(camera).load(json); }

} // namespace zuGevFeatures
