// Single steps. Failures of the port are told before those of the interpreter, which only knows that something failed.
#include "features/CameraModel.h"

#include "features/XmlCheck.h"

#include <algorithm>
#include <cfloat>
#include <charconv>
#include <limits>

namespace zuGevFeatures {

namespace {

using Reason = FeatureError::Reason;

ArvGcFeatureNode* feature(const Node* node) { return ARV_GC_FEATURE_NODE(node->node); }

std::string entriesText(const std::vector<Entry>& entries)
{
    std::string text;
    for (const Entry& entry : entries) {
        if (entry.available)
            text += (text.empty() ? "" : ", ") + entry.name;
    }
    return text;
}

bool isReadable(Access access) { return access == Access::readOnly || access == Access::readWrite; }
bool isWritable(Access access) { return access == Access::writeOnly || access == Access::readWrite; }

} // namespace

CameraModel::CameraModel(std::shared_ptr<Port> port, const std::string& description)
    : offsets_(checkXml(description)), device_(std::move(port), description),
      description_(device_.genicam(), std::move(offsets_))
{
}

const Node& CameraModel::require(const std::string& name) const
{
    if (const Node* const node = description_.find(name))
        return *node;
    std::string near;
    for (const std::string& similar : description_.similar(name))
        near += (near.empty() ? "" : ", ") + similar;
    throw FeatureError(Reason::unknown, name,
                       "The camera has no feature " + name + (near.empty() ? "" : "; there is " + near), near);
}

CameraModel::Step CameraModel::begin(const std::string& name, const std::string& doing, bool writing)
{
    const Node& node = require(name);
    const std::string defect = description_.defectOf(name);
    if (description_.isElsewhere(name))
        throw FeatureError(Reason::notAvailable, name, name + " " + doing + ": " + defect);
    if (!defect.empty())
        throw FeatureError(Reason::description, name,
                           name + " can't be used, by a fault of the camera's description: " + defect);
    device_.accesses().begin();
    return {&node, name, name + " " + doing, writing};
}

std::string CameraModel::problemOf(const std::function<void()>& action)
{
    try {
        action();
        return {};
    } catch (const FeatureError& error) {
        return error.what();
    } catch (const std::exception& error) {
        if (!device_.accesses().port().isRefusal(std::current_exception()))
            throw;
        return error.what();
    }
}

void CameraModel::checkAccesses(const Step& step)
{
    const std::exception_ptr cause = device_.accesses().failure();
    if (!cause)
        return;
    try {
        std::rethrow_exception(cause);
    } catch (const FeatureError& error) {
        throw FeatureError(error.reason(), step.name, step.doing + ": " + error.what());
    } catch (...) {
        device_.accesses().port().raise(step.doing, step.writing, cause);
    }
}

void CameraModel::check(const Step& step, const Failure& failure)
{
    checkAccesses(step);
    if (failure)
        throw FeatureError(step.writing ? Reason::notWritable : Reason::notReadable, step.name,
                           step.doing + ": " + failure.text());
}

Feature CameraModel::describe(const std::string& name) const
{
    for (const Feature& listed : description_.features()) {
        if (listed.name == name)
            return listed;
    }
    const Node& node = require(name);
    if (node.node == nullptr || !ARV_IS_GC_FEATURE_NODE(node.node))
        throw FeatureError(Reason::description, name, name + " is no feature");
    return description_.describe(name);
}

Access CameraModel::accessOf(const Step& step)
{
    Failure failure;
    const bool implemented = arv_gc_feature_node_is_implemented(feature(step.node), failure.place());
    check(step, failure);
    if (!implemented)
        return Access::notImplemented;
    const bool available = arv_gc_feature_node_is_available(feature(step.node), failure.place());
    check(step, failure);
    if (!available)
        return Access::notAvailable;
    switch (arv_gc_feature_node_get_actual_access_mode(feature(step.node))) {
    case ARV_GC_ACCESS_MODE_RO:
        return Access::readOnly;
    case ARV_GC_ACCESS_MODE_WO:
    case ARV_GC_ACCESS_MODE_RW:
        break;
    default:
        return Access::notAvailable;
    }
    const bool writeOnly = arv_gc_feature_node_get_actual_access_mode(feature(step.node)) == ARV_GC_ACCESS_MODE_WO;
    const bool locked = arv_gc_feature_node_is_locked(feature(step.node), failure.place());
    check(step, failure);
    if (locked)
        return writeOnly ? Access::notAvailable : Access::readOnly;
    return writeOnly ? Access::writeOnly : Access::readWrite;
}

Access CameraModel::access(const std::string& name) { return accessOf(begin(name, "can't be looked at")); }

void CameraModel::requireReadable(const Step& step)
{
    const Access access = accessOf(step);
    if (access == Access::notImplemented)
        throw FeatureError(Reason::notAvailable, step.name, step.doing + ": this camera doesn't have it");
    if (access == Access::notAvailable)
        throw FeatureError(Reason::notAvailable, step.name,
                           step.doing + ": it isn't available with the present settings");
    if (!isReadable(access))
        throw FeatureError(Reason::notReadable, step.name, step.doing + ": it can only be set");
}

void CameraModel::requireWritable(const Step& step)
{
    const Access access = accessOf(step);
    if (access == Access::notImplemented)
        throw FeatureError(Reason::notAvailable, step.name, step.doing + ": this camera doesn't have it");
    if (access == Access::notAvailable)
        throw FeatureError(Reason::notAvailable, step.name,
                           step.doing + ": it isn't available with the present settings");
    if (isWritable(access))
        return;
    Failure failure;
    const bool locked = arv_gc_feature_node_is_locked(feature(step.node), failure.place());
    throw FeatureError(Reason::notWritable, step.name,
                       step.doing + (locked ? ": it is locked by the present settings" : ": it can only be read"));
}

Notation CameraModel::notationOf(const Node& node) const
{
    if (!ARV_IS_GC_INTEGER(node.node) || ARV_IS_GC_ENUMERATION(node.node))
        return Notation::decimal;
    switch (arv_gc_integer_get_representation(ARV_GC_INTEGER(node.node))) {
    case ARV_GC_REPRESENTATION_HEX_NUMBER:
        return Notation::hexadecimal;
    case ARV_GC_REPRESENTATION_IPV4_ADDRESS:
        return Notation::ipAddress;
    case ARV_GC_REPRESENTATION_MAC_ADDRESS:
        return Notation::macAddress;
    default:
        return Notation::decimal;
    }
}

std::string CameraModel::text(const std::string& name, const Value& value) const
{
    return valueText(value, notationOf(*description_.find(name)));
}

/// The register is read here: the interpreter would look for the end of a text that fills it beyond its memory.
std::string CameraModel::textOf(const Step& step)
{
    const Node* holder = step.node;
    while (!ARV_IS_GC_REGISTER(holder->node) && !holder->values.empty())
        holder = description_.find(holder->values.front());
    Failure failure;
    std::string text;
    if (ARV_IS_GC_REGISTER(holder->node)) {
        auto* const reg = ARV_GC_REGISTER(holder->node);
        text.resize(arv_gc_register_get_length(reg, failure.place()));
        check(step, failure);
        arv_gc_register_get(reg, text.data(), text.size(), failure.place());
        text.resize(std::min(text.find('\0'), text.size()));
    } else if (const char* const constant = arv_gc_string_get_value(ARV_GC_STRING(holder->node), failure.place())) {
        text = constant;
    }
    check(step, failure);
    return text;
}

Value CameraModel::valueOf(const Step& step)
{
    Failure failure;
    ArvGcNode* const node = step.node->node;
    Value value;
    switch (step.node->kind) {
    case Kind::integer:
        value = std::int64_t{arv_gc_integer_get_value(ARV_GC_INTEGER(node), failure.place())};
        break;
    case Kind::real:
        value = arv_gc_float_get_value(ARV_GC_FLOAT(node), failure.place());
        break;
    case Kind::boolean:
        value = arv_gc_boolean_get_value(ARV_GC_BOOLEAN(node), failure.place()) != FALSE;
        break;
    case Kind::text:
        value = textOf(step);
        break;
    case Kind::enumeration: {
        // The number first: the interpreter has no word for one that belongs to no entry.
        const std::int64_t number = arv_gc_enumeration_get_int_value(ARV_GC_ENUMERATION(node), failure.place());
        check(step, failure);
        for (const Entry& entry : entriesOf(step)) {
            if (entry.value == number)
                return entry.name;
        }
        throw FeatureError(Reason::badValue, step.name,
                           step.doing + ": the camera says " + std::to_string(number) +
                               ", which is none of its entries");
    }
    case Kind::command:
        throw FeatureError(Reason::wrongKind, step.name, step.name + " is a command: it has no value, but can be run");
    case Kind::category:
        throw FeatureError(Reason::wrongKind, step.name, step.name + " is a category: it has no value");
    case Kind::bytes:
        throw FeatureError(Reason::wrongKind, step.name,
                           step.name + " is a block of memory: it has no value that could be told by name");
    }
    check(step, failure);
    return value;
}

Value CameraModel::get(const std::string& name)
{
    const Step step = begin(name, "can't be read");
    requireReadable(step);
    return valueOf(step);
}

std::vector<Entry> CameraModel::entriesOf(const Step& step)
{
    std::vector<Entry> entries;
    for (const GSList* at = arv_gc_enumeration_get_entries(ARV_GC_ENUMERATION(step.node->node)); at != nullptr;
         at = at->next) {
        auto* const node = ARV_GC_FEATURE_NODE(at->data);
        const char* const name = arv_gc_feature_node_get_name(node);
        if (name == nullptr)
            continue;
        Entry entry;
        entry.name = name;
        const char* const displayName = arv_gc_feature_node_get_display_name(node);
        entry.displayName = displayName != nullptr ? displayName : name;
        Failure failure;
        entry.value = arv_gc_enum_entry_get_value(ARV_GC_ENUM_ENTRY(node), failure.place());
        check(step, failure);
        const bool implemented = arv_gc_feature_node_is_implemented(node, failure.place());
        check(step, failure);
        entry.available = implemented && arv_gc_feature_node_is_available(node, failure.place());
        check(step, failure);
        entries.push_back(std::move(entry));
    }
    std::reverse(entries.begin(), entries.end()); // as the description has them
    return entries;
}

/// Bounds that the description doesn't give are an error to the interpreter, or the bounds of its own types.
void CameraModel::readBounds(const Step& step, State& state)
{
    Failure failure;
    const auto told = [&] {
        checkAccesses(step);
        return !failure;
    };
    ArvGcNode* const node = step.node->node;
    if (ARV_IS_GC_INTEGER(node)) {
        auto* const integer = ARV_GC_INTEGER(node);
        using Limits = std::numeric_limits<std::int64_t>;
        const std::int64_t least = arv_gc_integer_get_min(integer, failure.place());
        if (told() && least != Limits::min())
            state.minimum = least;
        const std::int64_t most = arv_gc_integer_get_max(integer, failure.place());
        if (told() && most != Limits::max())
            state.maximum = most;
        const std::int64_t step1 = arv_gc_integer_get_inc(integer, failure.place());
        if (told() && step1 > 0)
            state.increment = step1;
    } else if (ARV_IS_GC_FLOAT(node)) {
        auto* const real = ARV_GC_FLOAT(node);
        const double least = arv_gc_float_get_min(real, failure.place());
        if (told() && least > -static_cast<double>(FLT_MAX))
            state.minimum = least;
        const double most = arv_gc_float_get_max(real, failure.place());
        if (told() && most < static_cast<double>(FLT_MAX))
            state.maximum = most;
        const double step1 = arv_gc_float_get_inc(real, failure.place());
        if (told() && step1 > DBL_MIN)
            state.increment = step1;
    } else if (ARV_IS_GC_STRING(node)) {
        const std::int64_t longest = arv_gc_string_get_max_length(ARV_GC_STRING(node), failure.place());
        if (told() && longest > 0)
            state.longest = longest;
    }
}

State CameraModel::state(const std::string& name)
{
    State state;
    require(name);
    const Kind kind = description_.find(name)->kind;
    if (kind == Kind::category) {
        state.access = Access::readOnly;
        return state;
    }
    if (description_.isElsewhere(name))
        return state;
    state.problem = problemOf([&] {
        const Step step = begin(name, "can't be read");
        state.access = accessOf(step);
        if (state.access == Access::notImplemented || state.access == Access::notAvailable)
            return;
        if (kind == Kind::enumeration) {
            state.entries = entriesOf(step);
            state.allowed = entriesText(state.entries);
        } else if (kind == Kind::integer || kind == Kind::real || kind == Kind::text) {
            readBounds(step, state);
            state.allowed = boundsText(state, notationOf(*step.node));
        }
        if (isReadable(state.access) && kind != Kind::command && kind != Kind::bytes) {
            state.value = valueOf(step);
            state.text = text(name, *state.value);
        }
    });
    return state;
}

void CameraModel::refuseValue(const Step& step, const std::string& text, const std::string& allowed)
{
    throw FeatureError(Reason::badValue, step.name,
                       step.name + " can't be set to " + text + ": allowed " +
                           (allowed.find(", ") != allowed.npos ? "are " : "is ") + allowed,
                       allowed);
}

void CameraModel::setInteger(const Step& step, std::int64_t value)
{
    State bounds;
    readBounds(step, bounds);
    const Notation notation = notationOf(*step.node);
    const auto bound = [](const std::optional<Value>& of) { return std::get<std::int64_t>(*of); };
    const bool tooSmall = bounds.minimum && value < bound(bounds.minimum);
    const bool tooLarge = bounds.maximum && value > bound(bounds.maximum);
    const std::uint64_t from = bounds.minimum ? static_cast<std::uint64_t>(bound(bounds.minimum)) : 0;
    const bool between =
        bounds.increment && !tooSmall && bounds.minimum &&
        (static_cast<std::uint64_t>(value) - from) % static_cast<std::uint64_t>(bound(bounds.increment));
    if (tooSmall || tooLarge || between)
        refuseValue(step, integerText(value, notation), boundsText(bounds, notation));
    Failure failure;
    arv_gc_integer_set_value(ARV_GC_INTEGER(step.node->node), value, failure.place());
    check(step, failure);
}

void CameraModel::setReal(const Step& step, double value)
{
    State bounds;
    readBounds(step, bounds);
    const auto bound = [](const std::optional<Value>& of) { return std::get<double>(*of); };
    // Written so that what is no number at all is refused too.
    const bool fits = (!bounds.minimum || value >= bound(bounds.minimum)) &&
                      (!bounds.maximum || value <= bound(bounds.maximum)) && value >= -DBL_MAX && value <= DBL_MAX;
    if (!fits) {
        bounds.increment.reset();
        const std::string allowed = boundsText(bounds);
        refuseValue(step, realText(value), allowed.empty() ? "any number that is finite" : allowed);
    }
    Failure failure;
    arv_gc_float_set_value(ARV_GC_FLOAT(step.node->node), value, failure.place());
    check(step, failure);
}

void CameraModel::setText(const Step& step, const std::string& value)
{
    State bounds;
    readBounds(step, bounds);
    if ((bounds.longest && value.size() > static_cast<std::uint64_t>(*bounds.longest)) ||
        value.find('\0') != value.npos)
        refuseValue(step, "'" + value + "'",
                    bounds.longest ? "a text of at most " + std::to_string(*bounds.longest) + " bytes"
                                   : "a text without zeros");
    Failure failure;
    arv_gc_string_set_value(ARV_GC_STRING(step.node->node), value.c_str(), failure.place());
    check(step, failure);
}

void CameraModel::setEntry(const Step& step, const Value& value)
{
    const std::vector<Entry> entries = entriesOf(step);
    const auto* const name = std::get_if<std::string>(&value);
    const auto* const number = std::get_if<std::int64_t>(&value);
    for (const Entry& entry : entries) {
        if (entry.available &&
            ((name != nullptr && entry.name == *name) || (number != nullptr && entry.value == *number))) {
            Failure failure;
            arv_gc_enumeration_set_int_value(ARV_GC_ENUMERATION(step.node->node), entry.value, failure.place());
            return check(step, failure);
        }
    }
    const std::string allowed = entriesText(entries);
    refuseValue(step, valueText(value), allowed.empty() ? "nothing" : allowed);
}

void CameraModel::set(const std::string& name, const Value& value)
{
    const Step step = begin(name, "can't be set to " + valueText(value), true);
    const Kind kind = step.node->kind;
    const auto* const integer = std::get_if<std::int64_t>(&value);
    const auto* const real = std::get_if<double>(&value);
    const auto* const truth = std::get_if<bool>(&value);
    const auto* const text = std::get_if<std::string>(&value);
    const auto wrongKind = [&](const char* wanted) {
        return FeatureError(Reason::wrongKind, name,
                            name + " can't be set to " + valueText(value) + ": it takes " + wanted, wanted);
    };
    if (kind == Kind::command)
        throw FeatureError(Reason::wrongKind, name, name + " is a command: it can't be set, but run");
    if (kind == Kind::category || kind == Kind::bytes)
        throw FeatureError(Reason::wrongKind, name, name + " has no value that could be set by name");
    requireWritable(step);
    switch (kind) {
    case Kind::integer:
        if (integer == nullptr)
            throw wrongKind("an integer");
        return setInteger(step, *integer);
    case Kind::real:
        if (integer == nullptr && real == nullptr)
            throw wrongKind("a number");
        return setReal(step, integer != nullptr ? static_cast<double>(*integer) : *real);
    case Kind::boolean: {
        if (truth == nullptr)
            throw wrongKind("true or false");
        Failure failure;
        arv_gc_boolean_set_value(ARV_GC_BOOLEAN(step.node->node), *truth ? TRUE : FALSE, failure.place());
        return check(step, failure);
    }
    case Kind::text:
        if (text == nullptr)
            throw wrongKind("a text");
        return setText(step, *text);
    default:
        return setEntry(step, value);
    }
}

Value CameraModel::parse(const std::string& name, const std::string& text)
{
    const Step step = begin(name, "can't be set to " + text, true);
    switch (step.node->kind) {
    case Kind::integer: {
        if (const auto value = parseInteger(text, notationOf(*step.node)))
            return *value;
        State bounds;
        readBounds(step, bounds);
        const std::string allowed = boundsText(bounds, notationOf(*step.node));
        refuseValue(step, "'" + text + "'", allowed.empty() ? "an integer" : allowed);
    }
    case Kind::real: {
        if (const auto value = parseReal(text))
            return *value;
        State bounds;
        readBounds(step, bounds);
        const std::string allowed = boundsText(bounds);
        refuseValue(step, "'" + text + "'", allowed.empty() ? "a number" : allowed);
    }
    case Kind::boolean:
        if (const auto value = parseBoolean(text))
            return *value;
        refuseValue(step, "'" + text + "'", "true or false");
    case Kind::enumeration:
        for (const Entry& entry : entriesOf(step)) {
            if (entry.name == text)
                return text;
        }
        if (const auto number = parseInteger(text))
            return *number;
        return text;
    default:
        return text;
    }
}

void CameraModel::execute(const std::string& name)
{
    const Step step = begin(name, "can't be run", true);
    if (!ARV_IS_GC_COMMAND(step.node->node))
        throw FeatureError(Reason::wrongKind, name, name + " is no command");
    requireWritable(step);
    Failure failure;
    arv_gc_command_execute(ARV_GC_COMMAND(step.node->node), failure.place());
    check(step, failure);
}

bool CameraModel::hasEnded(const std::string& name)
{
    const Step step = begin(name, "can't be waited for");
    if (!ARV_IS_GC_COMMAND(step.node->node))
        throw FeatureError(Reason::wrongKind, name, name + " is no command");
    const Node* const reg = step.node->values.empty() ? nullptr : description_.find(step.node->values.front());
    const auto command = parseInteger(step.node->commandValue);
    if (reg == nullptr || reg->node == nullptr || !ARV_IS_GC_INTEGER(reg->node) || !command ||
        arv_gc_feature_node_get_actual_access_mode(feature(reg)) == ARV_GC_ACCESS_MODE_WO)
        return true;
    Failure failure;
    const std::int64_t value = arv_gc_integer_get_value(ARV_GC_INTEGER(reg->node), failure.place());
    check(step, failure);
    return value != *command;
}

std::vector<Value> CameraModel::choices(const std::string& name, std::size_t most)
{
    const State now = state(name);
    std::vector<Value> values;
    if (!isWritable(now.access)) {
        // What can't be moved has the value that it has.
    } else if (!now.entries.empty()) {
        for (const Entry& entry : now.entries) {
            if (entry.available)
                values.emplace_back(entry.name);
        }
    } else if (now.value && std::holds_alternative<bool>(*now.value)) {
        values = {Value(false), Value(true)};
    } else if (now.minimum && now.maximum && std::holds_alternative<std::int64_t>(*now.minimum)) {
        const auto least = static_cast<std::uint64_t>(std::get<std::int64_t>(*now.minimum));
        const auto span = static_cast<std::uint64_t>(std::get<std::int64_t>(*now.maximum)) - least;
        const auto step = now.increment ? static_cast<std::uint64_t>(std::get<std::int64_t>(*now.increment)) : 1;
        if (std::get<std::int64_t>(*now.maximum) >= std::get<std::int64_t>(*now.minimum) && span / step < most) {
            for (std::uint64_t offset = 0; offset <= span; offset += step)
                values.emplace_back(static_cast<std::int64_t>(least + offset));
        }
    }
    if ((values.empty() || values.size() > most) && now.value)
        values = {*now.value};
    return values;
}

} // namespace zuGevFeatures
