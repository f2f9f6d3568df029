// Columns and words.
#include "tools/gevctl/feature_view.h"

#include <algorithm>

namespace gevctl {

using namespace zuGevFeatures;

namespace {

constexpr std::pair<Visibility, const char*> visibilities[] = {
    {Visibility::beginner, "beginner"},
    {Visibility::expert, "expert"},
    {Visibility::guru, "guru"},
    {Visibility::invisible, "invisible"},
};

const char* kindText(Kind kind)
{
    switch (kind) {
    case Kind::integer:
        return "integer";
    case Kind::real:
        return "real";
    case Kind::boolean:
        return "boolean";
    case Kind::text:
        return "text";
    case Kind::enumeration:
        return "enumeration";
    case Kind::command:
        return "command";
    case Kind::category:
        return "category";
    case Kind::bytes:
        break;
    }
    return "bytes";
}

const char* accessText(Access access)
{
    switch (access) {
    case Access::notImplemented:
        return "not implemented";
    case Access::notAvailable:
        return "not available";
    case Access::readOnly:
        return "read only";
    case Access::writeOnly:
        return "write only";
    case Access::readWrite:
        break;
    }
    return "read and write";
}

std::string padded(const std::string& cell, std::size_t width)
{
    return cell + std::string(width > cell.size() ? width - cell.size() : 0, ' ');
}

} // namespace

const char* visibilityText(Visibility visibility)
{
    for (const auto& [value, word] : visibilities) {
        if (value == visibility)
            return word;
    }
    return "";
}

std::optional<Visibility> parseVisibility(const std::string& typed)
{
    for (const auto& [value, word] : visibilities) {
        if (typed == word)
            return value;
    }
    return std::nullopt;
}

Json toJson(const Value& value)
{
    return std::visit([](const auto& held) { return Json(held); }, value);
}

Json toJson(const FeatureView& view)
{
    const auto& [feature, state] = view;
    Json json{{"name", feature.name},
              {"displayName", feature.displayName},
              {"category", feature.category},
              {"kind", kindText(feature.kind)},
              {"visibility", visibilityText(feature.visibility)},
              {"access", accessText(state.access)}};
    if (!feature.unit.empty())
        json["unit"] = feature.unit;
    if (state.value) {
        json["value"] = toJson(*state.value);
        json["text"] = state.text;
    }
    if (state.minimum)
        json["minimum"] = toJson(*state.minimum);
    if (state.maximum)
        json["maximum"] = toJson(*state.maximum);
    if (state.increment)
        json["increment"] = toJson(*state.increment);
    if (state.longest)
        json["longest"] = *state.longest;
    for (const Entry& entry : state.entries)
        json["entries"].push_back({{"name", entry.name},
                                   {"displayName", entry.displayName},
                                   {"value", entry.value},
                                   {"available", entry.available}});
    if (!feature.selectors.empty())
        json["selectors"] = feature.selectors;
    if (!feature.description.empty())
        json["description"] = feature.description;
    if (!state.problem.empty())
        json["problem"] = state.problem;
    return json;
}

Json toJson(const Change& change)
{
    const auto half = [](const State& state) {
        Json json{{"access", accessText(state.access)}};
        if (state.value)
            json["value"] = toJson(*state.value);
        if (state.minimum)
            json["minimum"] = toJson(*state.minimum);
        if (state.maximum)
            json["maximum"] = toJson(*state.maximum);
        return json;
    };
    return Json{{"name", change.feature}, {"before", half(change.before)}, {"after", half(change.after)}};
}

Json toJson(const std::vector<Problem>& problems)
{
    Json json = Json::array();
    for (const Problem& problem : problems) {
        Json entry{{"feature", problem.feature}, {"message", problem.message}};
        if (!problem.selection.empty())
            entry["selection"] = problem.selection;
        json.push_back(std::move(entry));
    }
    return json;
}

std::string valueWithUnit(const FeatureView& view)
{
    const auto& [feature, state] = view;
    if (!state.problem.empty())
        return "(" + state.problem + ")";
    if (state.access == Access::notImplemented || state.access == Access::notAvailable)
        return std::string("(") + accessText(state.access) + ")";
    if (feature.kind == Kind::command)
        return "(command)";
    if (!state.value)
        return std::string("(") + (feature.kind == Kind::bytes ? "bytes" : accessText(state.access)) + ")";
    return state.text + (feature.unit.empty() ? "" : " " + feature.unit);
}

std::string allowedText(const FeatureView& view)
{
    const bool settable = view.state.access == Access::readWrite || view.state.access == Access::writeOnly;
    return settable ? view.state.allowed : std::string();
}

std::string changeText(const Change& change)
{
    const State& before = change.before;
    const State& after = change.after;
    std::string what;
    const auto add = [&](const std::string& more) { what += (what.empty() ? "" : ", ") + more; };
    if (before.text != after.text)
        add((before.text.empty() ? "nothing" : before.text) + " -> " + (after.text.empty() ? "nothing" : after.text));
    if (before.access != after.access)
        add(std::string("now ") + accessText(after.access));
    if (before.allowed != after.allowed)
        add("allowed is now " + (after.allowed.empty() ? "anything" : after.allowed));
    return what.empty() ? "changed" : what;
}

void printTree(std::ostream& out, const std::vector<FeatureView>& views)
{
    const auto depthOf = [](const Feature& feature) {
        return feature.category.empty()
                   ? std::size_t{0}
                   : 1 + static_cast<std::size_t>(std::count(feature.category.begin(), feature.category.end(), '/'));
    };
    std::size_t names = 0;
    std::size_t values = 0;
    constexpr std::size_t widestValue = 32;
    for (const FeatureView& view : views) {
        names = std::max(names, 2 * depthOf(view.feature) + view.feature.name.size());
        if (view.feature.kind != Kind::category)
            values = std::max(values, std::min(widestValue, valueWithUnit(view).size()));
    }
    for (const FeatureView& view : views) {
        const std::string indent(2 * depthOf(view.feature), ' ');
        if (view.feature.kind == Kind::category) {
            out << indent << view.feature.name << '\n';
            continue;
        }
        std::string line =
            padded(indent + view.feature.name, names + 2) + padded(valueWithUnit(view), values + 2) + allowedText(view);
        if (view.state.access == Access::readOnly && view.state.value)
            line += "(read only)";
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << '\n';
    }
}

void printDescription(std::ostream& out, const FeatureView& view)
{
    const auto& [feature, state] = view;
    out << feature.name << '\n';
    const auto line = [&](const char* name, const std::string& value) {
        if (!value.empty())
            out << "  " << padded(std::string(name) + ":", 14) << value << '\n';
    };
    if (feature.displayName != feature.name)
        line("shown as", feature.displayName);
    line("category", feature.category);
    line("kind", kindText(feature.kind));
    line("visibility", visibilityText(feature.visibility));
    line("access", accessText(state.access));
    if (state.value)
        line("value", valueWithUnit(view));
    line("problem", state.problem);
    line("allowed", feature.kind == Kind::enumeration ? std::string() : state.allowed);
    if (state.longest)
        line("longest", std::to_string(*state.longest) + " bytes");
    for (const Entry& entry : state.entries)
        line("entry",
             entry.name + " (" + std::to_string(entry.value) + ")" + (entry.available ? "" : ", not available now"));
    std::string selectors;
    for (const std::string& selector : feature.selectors)
        selectors += (selectors.empty() ? "" : ", ") + selector;
    line("selected by", selectors);
    line("description", feature.description);
}

} // namespace gevctl
