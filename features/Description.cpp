// Walks the interpreter's document. The interpreter follows references by recursion, without looking whether they end,
// takes whatever length a register claims, and silently counts with 0 where a reference leads nowhere; what would make
// it do so is found here first.
#include "features/Description.h"

#include "features/Formula.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <functional>
#include <set>

namespace zuGevFeatures {

namespace {

constexpr int deepestNesting = 64;                ///< of elements, and of categories
constexpr int deepestReferences = 100;            ///< of a chain of references
constexpr std::uint64_t mostEvaluations = 200000; ///< of nodes, for one look at one feature
constexpr std::uint64_t converterFactor = 4; ///< a converter's bounds ask for both bounds below it, and convert each
constexpr std::uint64_t longestRegister = 65536;
constexpr const char* elsewhere = "it comes with pictures or events, not out of the camera's registers";

std::string textOf(ArvDomNode* element)
{
    std::string text;
    for (ArvDomNode* child = arv_dom_node_get_first_child(element); child != nullptr;
         child = arv_dom_node_get_next_sibling(child)) {
        if (ARV_IS_DOM_CHARACTER_DATA(child)) {
            const char* const data = arv_dom_character_data_get_data(ARV_DOM_CHARACTER_DATA(child));
            text += data != nullptr ? data : "";
        }
    }
    text.erase(0, text.find_first_not_of(" \t\r\n"));
    text.erase(text.find_last_not_of(" \t\r\n") + 1);
    return text;
}

void replaceText(ArvDomNode* element, const std::string& text)
{
    bool first = true;
    for (ArvDomNode* child = arv_dom_node_get_first_child(element); child != nullptr;
         child = arv_dom_node_get_next_sibling(child)) {
        if (ARV_IS_DOM_CHARACTER_DATA(child)) {
            arv_dom_character_data_set_data(ARV_DOM_CHARACTER_DATA(child), first ? text.c_str() : "");
            first = false;
        }
    }
}

std::string attribute(ArvDomNode* element, const char* name)
{
    // The interpreter ends the process when one of these is asked for an attribute that it doesn't know.
    if (ARV_IS_GC_INDEX_NODE(element) || ARV_IS_GC_VALUE_INDEXED_NODE(element))
        return {};
    const char* const value = arv_dom_element_get_attribute(ARV_DOM_ELEMENT(element), name);
    return value != nullptr ? value : "";
}

std::string tagOf(ArvDomNode* element)
{
    const char* const tag = arv_dom_node_get_node_name(element);
    return tag != nullptr ? tag : "";
}

bool isReference(const std::string& tag)
{
    return tag.size() > 1 && tag[0] == 'p' && std::isupper(static_cast<unsigned char>(tag[1])) != 0;
}

bool holdsValue(const std::string& tag)
{
    return tag == "pValue" || tag == "pValueCopy" || tag == "pValueIndexed" || tag == "pValueDefault";
}

/// Whether the reference matters for bounds or access alone. These may lead in a circle: that of Width's largest value
/// by way of OffsetX, whose largest value is by way of Width, is in many descriptions.
bool concernsLimits(const std::string& tag)
{
    return tag == "pMin" || tag == "pMax" || tag == "pInc" || tag == "pIsImplemented" || tag == "pIsAvailable" ||
           tag == "pIsLocked";
}

/// The number of a length or an address; `least` and `most` bound it.
bool isNumberBetween(const std::string& text, std::uint64_t least, std::uint64_t most)
{
    const bool hexadecimal = text.size() > 2 && text[0] == '0' && (text[1] | 0x20) == 'x';
    const char* const begin = text.data() + (hexadecimal ? 2 : 0);
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(begin, text.data() + text.size(), value, hexadecimal ? 16 : 10);
    return error == std::errc() && end == text.data() + text.size() && value >= least && value <= most;
}

[[noreturn]] void refuse(const std::string& why)
{
    throw FeatureError(FeatureError::Reason::description, {}, "The camera's description can't be used: " + why);
}

/// Whether other nodes can take a value from it.
bool hasValue(ArvGcNode* node)
{
    return ARV_IS_GC_INTEGER(node) || ARV_IS_GC_FLOAT(node) || ARV_IS_GC_STRING(node) || ARV_IS_GC_BOOLEAN(node) ||
           ARV_IS_GC_REGISTER(node) || ARV_IS_GC_COMMAND(node);
}

Visibility visibilityOf(ArvGcFeatureNode* feature)
{
    switch (arv_gc_feature_node_get_visibility(feature)) {
    case ARV_GC_VISIBILITY_EXPERT:
        return Visibility::expert;
    case ARV_GC_VISIBILITY_GURU:
        return Visibility::guru;
    case ARV_GC_VISIBILITY_INVISIBLE:
        return Visibility::invisible;
    default:
        return Visibility::beginner;
    }
}

Kind kindOf(ArvGcNode* node)
{
    if (ARV_IS_GC_CATEGORY(node))
        return Kind::category;
    if (ARV_IS_GC_COMMAND(node))
        return Kind::command;
    if (ARV_IS_GC_ENUMERATION(node))
        return Kind::enumeration;
    if (ARV_IS_GC_BOOLEAN(node))
        return Kind::boolean;
    if (ARV_IS_GC_STRING(node))
        return Kind::text;
    if (ARV_IS_GC_FLOAT(node))
        return Kind::real;
    if (ARV_IS_GC_INTEGER(node))
        return Kind::integer;
    return Kind::bytes;
}

void append(std::vector<std::string>& to, const std::vector<std::string>& from)
{
    to.insert(to.end(), from.begin(), from.end());
}

std::string orEmpty(const char* text) { return text != nullptr ? text : ""; }

std::size_t editDistance(const std::string& a, const std::string& b)
{
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t corner = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                              std::tolower(static_cast<unsigned char>(b[j - 1]));
            const std::size_t next = std::min({row[j] + 1, row[j - 1] + 1, corner + (same ? 0 : 1)});
            corner = row[j];
            row[j] = next;
        }
    }
    return row[b.size()];
}

} // namespace

Description::Description(ArvGc* genicam, std::vector<std::string> offsets) : offsets_(std::move(offsets))
{
    ArvDomElement* const root = arv_dom_document_get_document_element(ARV_DOM_DOCUMENT(genicam));
    if (root == nullptr || !ARV_IS_GC_REGISTER_DESCRIPTION_NODE(root))
        refuse("it describes no registers");
    model_ = attribute(ARV_DOM_NODE(root), "VendorName") + " " + attribute(ARV_DOM_NODE(root), "ModelName");
    collect(ARV_DOM_NODE(root), genicam, 0);
    const Node* const features = find("Root");
    if (features == nullptr || !ARV_IS_GC_CATEGORY(features->node))
        refuse("it lists no features");
    checkReferences();
    checkEffort();
    std::map<std::string, bool> seen{{"Root", true}};
    list("Root", {}, seen, 0);
}

const Node* Description::find(const std::string& name) const
{
    const auto found = nodes_.find(name);
    return found != nodes_.end() ? &found->second : nullptr;
}

/// Nodes stand below the root, in groups, and, as entries, in structures.
void Description::collect(ArvDomNode* parent, ArvGc* genicam, int depth)
{
    if (depth > deepestNesting)
        refuse("its elements are nested too deeply");
    for (ArvDomNode* child = arv_dom_node_get_first_child(parent); child != nullptr;
         child = arv_dom_node_get_next_sibling(child)) {
        if (!ARV_IS_DOM_ELEMENT(child))
            continue;
        const std::string tag = tagOf(child);
        if (tag == "Group")
            collect(child, genicam, depth + 1);
        else if (tag == "StructReg")
            collectStructure(child, genicam, depth + 1);
        else if (ARV_IS_GC_FEATURE_NODE(child))
            collectNode(child, genicam, nullptr, depth + 1);
    }
}

/// A structure's entries are nodes, with its register.
void Description::collectStructure(ArvDomNode* element, ArvGc* genicam, int depth)
{
    Node structure;
    collectProperties(element, structure, depth);
    for (ArvDomNode* child = arv_dom_node_get_first_child(element); child != nullptr;
         child = arv_dom_node_get_next_sibling(child)) {
        if (ARV_IS_DOM_ELEMENT(child) && tagOf(child) == "StructEntry")
            collectNode(child, genicam, &structure, depth + 1);
    }
}

void Description::collectNode(ArvDomNode* element, ArvGc* genicam, const Node* structure, int depth)
{
    const std::string name = attribute(element, "Name");
    if (name.empty())
        return;
    // Of two with one name the interpreter knows one; what either refers to counts.
    Node& node = nodes_[name];
    if (structure != nullptr) {
        const std::vector<std::string> evaluated = node.evaluated;
        const std::vector<std::string> parts = node.parts;
        node = *structure;
        append(node.evaluated, evaluated);
        append(node.parts, parts);
    }
    node.node = arv_gc_get_node(genicam, name.c_str());
    node.tag = tagOf(element);
    collectProperties(element, node, depth);
    if (node.node == nullptr || !ARV_IS_GC_FEATURE_NODE(node.node)) {
        node.defect = "it is no feature";
        return;
    }
    node.kind = kindOf(node.node);
    node.isRegister = ARV_IS_GC_REGISTER(node.node);
}

void Description::collectProperties(ArvDomNode* element, Node& node, int depth)
{
    if (depth > deepestNesting)
        refuse("its elements are nested too deeply");
    std::map<std::string, std::string> expressions;
    std::vector<ArvDomNode*> formulas;
    int addresses = 0;
    for (ArvDomNode* child = arv_dom_node_get_first_child(element); child != nullptr;
         child = arv_dom_node_get_next_sibling(child)) {
        if (!ARV_IS_DOM_ELEMENT(child))
            continue;
        const std::string tag = tagOf(child);
        if (tag == "StructEntry")
            continue;
        if (tag == "EnumEntry") {
            collectProperties(child, node, depth + 1);
            continue;
        }
        const std::string text = textOf(child);
        if (tag == "pIndex") {
            // The interpreter follows the attribute pOffset, but does not tell it; so each counts for every index.
            append(node.evaluated, offsets_);
            append(node.parts, offsets_);
        }
        if (tag == "pFeature") {
            node.members.push_back(text);
        } else if (tag == "pSelected") {
            node.selected.push_back(text);
        } else if (tag == "pInvalidator") {
            node.invalidators.push_back(text);
        } else if (tag == "pLength") {
            // The interpreter takes as much memory as whatever stands there says.
            node.defect = "its length depends on another feature, which can't be relied on";
        } else if (tag == "pPort") {
            node.port = text;
        } else if (tag == "ChunkID" || tag == "EventID") {
            node.defect = elsewhere;
        } else if (isReference(tag)) {
            node.evaluated.push_back(text);
            if (!concernsLimits(tag))
                node.parts.push_back(text);
            if (holdsValue(tag))
                node.values.push_back(text);
            addresses += tag == "pAddress" || tag == "pIndex" ? 2 : 0;
        } else if (tag == "Length") {
            node.hasLength = true;
            if (!isNumberBetween(text, 1, longestRegister))
                node.defect = "a register of a length of '" + text + "' can't be meant";
        } else if (tag == "Address") {
            node.address = text;
            ++addresses;
        } else if (tag == "CommandValue") {
            node.commandValue = text;
        } else if (tag == "Expression") {
            expressions[attribute(child, "Name")] = text;
        } else if (tag == "Formula" || tag == "FormulaTo" || tag == "FormulaFrom") {
            formulas.push_back(child);
        }
    }
    if (addresses > 1)
        node.address.clear();
    try {
        for (ArvDomNode* const formula : formulas)
            replaceText(formula, mendedFormula(textOf(formula), expressions));
    } catch (const std::runtime_error& error) {
        node.defect = error.what();
    }
}

void Description::checkReferences()
{
    for (auto& [name, node] : nodes_) {
        // The interpreter hands out whatever lies in its memory where a register has no port.
        const Node* const port = find(node.port);
        if (node.isRegister && node.defect.empty()) {
            if (port == nullptr || port->node == nullptr || !ARV_IS_GC_PORT(port->node))
                node.defect = "its register has no port";
            else if (!port->defect.empty())
                node.defect = port->defect;
            else if (!node.hasLength)
                node.defect = "its register has no length";
        }
        for (const std::string& target : node.evaluated) {
            const Node* const other = find(target);
            if (other == nullptr)
                node.defect = "it refers to '" + target + "', which the description doesn't have";
            else if (other->node != nullptr && !hasValue(other->node))
                node.defect = "it refers to '" + target + "', which has no value";
            else if (other->kind == Kind::text && node.kind != Kind::text)
                node.defect = "it refers to '" + target + "', which is a text";
            usedBy_[target].push_back(name);
        }
        for (const std::string& target : node.invalidators)
            usedBy_[target].push_back(name);
        for (const std::string& target : node.selected) {
            selectedBy_[target].push_back(name);
            usedBy_[name].push_back(target);
        }
    }
}

/// How many nodes one look at a node may evaluate. A value is made of values; bounds are those of what holds the value,
/// or made of values themselves.
void Description::checkEffort()
{
    std::map<const Node*, std::uint64_t> values; // 0: still being counted
    const std::function<std::uint64_t(const std::string&, const Node&, int)> countValue =
        [&](const std::string& name, const Node& node, int depth) -> std::uint64_t {
        const auto known = values.find(&node);
        if (known != values.end()) {
            if (known->second == 0)
                refuse("the value of '" + name + "' refers to itself in a circle");
            return known->second;
        }
        if (depth > deepestReferences)
            refuse("its features refer to one another in chains that are too long, as at '" + name + "'");
        values[&node] = 0;
        std::uint64_t evaluations = 1;
        for (const std::string& target : node.parts) {
            if (const Node* const other = find(target))
                evaluations += countValue(target, *other, depth + 1);
            if (evaluations > mostEvaluations)
                refuse("the value of '" + name + "' takes more steps than can be meant");
        }
        return values[&node] = evaluations;
    };
    std::map<const Node*, std::uint64_t> limits;
    const std::function<std::uint64_t(const std::string&, const Node&)> countLimits =
        [&](const std::string& name, const Node& node) -> std::uint64_t {
        const auto known = limits.find(&node);
        if (known != limits.end())
            return known->second;
        const bool converts = node.tag == "Converter" || node.tag == "IntConverter";
        std::uint64_t evaluations = values[&node];
        for (const std::string& target : node.evaluated) {
            if (const Node* const other = find(target))
                evaluations += values[other];
        }
        for (const std::string& target : node.values) {
            if (const Node* const other = find(target))
                evaluations += countLimits(target, *other) * (converts ? converterFactor : 1);
        }
        if (evaluations > mostEvaluations)
            refuse("the bounds of '" + name + "' take more steps than can be meant");
        return limits[&node] = evaluations;
    };
    for (const auto& [name, node] : nodes_)
        countValue(name, node, 0);
    for (const auto& [name, node] : nodes_)
        countLimits(name, node);
}

void Description::list(const std::string& category, const std::string& path, std::map<std::string, bool>& seen,
                       int depth)
{
    if (depth > deepestNesting)
        refuse("its categories are nested too deeply");
    const Node& node = nodes_.at(category);
    for (const std::string& name : node.members) {
        const Node* const member = find(name);
        if (member == nullptr || member->node == nullptr || !ARV_IS_GC_FEATURE_NODE(member->node) ||
            !seen.emplace(name, true).second)
            continue;
        features_.push_back(describe(name, path));
        if (ARV_IS_GC_CATEGORY(member->node))
            list(name, path.empty() ? name : path + "/" + name, seen, depth + 1);
    }
}

Feature Description::describe(const std::string& name, const std::string& category) const
{
    const Node& known = nodes_.at(name);
    ArvGcNode* const node = known.node;
    ArvGcFeatureNode* const feature = ARV_GC_FEATURE_NODE(node);
    Feature result;
    result.name = name;
    result.displayName = orEmpty(arv_gc_feature_node_get_display_name(feature));
    if (result.displayName.empty())
        result.displayName = name;
    result.category = category;
    result.kind = known.kind;
    result.visibility = visibilityOf(feature);
    if (result.kind == Kind::integer)
        result.unit = orEmpty(arv_gc_integer_get_unit(ARV_GC_INTEGER(node)));
    else if (result.kind == Kind::real)
        result.unit = orEmpty(arv_gc_float_get_unit(ARV_GC_FLOAT(node)));
    result.description = orEmpty(arv_gc_feature_node_get_description(feature));
    if (result.description.empty())
        result.description = orEmpty(arv_gc_feature_node_get_tooltip(feature));
    std::map<std::string, bool> seen{{name, true}};
    gatherSelectors(name, seen, result.selectors);
    return result;
}

void Description::gatherSelectors(const std::string& name, std::map<std::string, bool>& seen,
                                  std::vector<std::string>& found) const
{
    const auto selectors = selectedBy_.find(name);
    if (selectors == selectedBy_.end())
        return;
    for (const std::string& selector : selectors->second) {
        // In a circle of selectors each is told once. A chain is as long as its depth, which is bounded here.
        if (seen.size() < static_cast<std::size_t>(deepestNesting) && seen.emplace(selector, true).second) {
            gatherSelectors(selector, seen, found);
            found.push_back(selector);
        }
    }
}

std::string Description::defectOf(const std::string& name) const
{
    const Node* const asked = find(name);
    if (asked == nullptr)
        return {};
    if (asked->fault)
        return *asked->fault;
    std::set<const Node*> seen;
    std::vector<std::pair<std::string, const Node*>> open{{name, asked}};
    while (!open.empty()) {
        const auto [at, node] = open.back();
        open.pop_back();
        if (node == nullptr || !seen.insert(node).second)
            continue;
        if (!node->defect.empty()) {
            asked->fault = at == name ? node->defect : "it depends on '" + at + "': " + node->defect;
            return *asked->fault;
        }
        for (const std::string& target : at == name ? node->evaluated : node->parts)
            open.emplace_back(target, find(target));
    }
    asked->fault = std::string();
    return {};
}

bool Description::isElsewhere(const std::string& name) const
{
    return defectOf(name).find(elsewhere) != std::string::npos;
}

std::vector<std::string> Description::dependents(const std::string& name) const
{
    // What setting it writes, and what else lies at the same addresses.
    std::set<std::string> written{name};
    std::vector<std::string> open{name};
    while (!open.empty()) {
        const Node* const node = find(open.back());
        open.pop_back();
        if (node == nullptr)
            continue;
        for (const std::string& target : node->values) {
            if (written.insert(target).second)
                open.push_back(target);
        }
    }
    std::set<std::string> addresses;
    for (const std::string& at : written) {
        const Node* const node = find(at);
        if (node != nullptr && !node->address.empty())
            addresses.insert(node->address);
    }
    for (const auto& [other, node] : nodes_) {
        if (addresses.count(node.address))
            written.insert(other);
    }
    std::set<std::string> reached = written;
    open.assign(written.begin(), written.end());
    while (!open.empty()) {
        const auto users = usedBy_.find(open.back());
        open.pop_back();
        if (users == usedBy_.end())
            continue;
        for (const std::string& user : users->second) {
            if (reached.insert(user).second)
                open.push_back(user);
        }
    }
    std::vector<std::string> result;
    for (const Feature& feature : features_) {
        if (feature.name != name && feature.kind != Kind::category && reached.count(feature.name))
            result.push_back(feature.name);
    }
    return result;
}

std::vector<std::string> Description::similar(const std::string& name) const
{
    std::vector<std::pair<std::size_t, std::string>> near;
    for (const Feature& feature : features_) {
        const std::size_t distance = editDistance(name, feature.name);
        if (distance <= 1 + name.size() / 4)
            near.emplace_back(distance, feature.name);
    }
    std::sort(near.begin(), near.end());
    std::vector<std::string> names;
    for (std::size_t i = 0; i < near.size() && i < 3; ++i)
        names.push_back(near[i].second);
    return names;
}

} // namespace zuGevFeatures
