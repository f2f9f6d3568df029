// Values as people write and read them.
#pragma once

#include "features/FeatureTypes.h"

#include <optional>
#include <string>

namespace zuGevFeatures {

/// How an integer is written.
enum class Notation { decimal, hexadecimal, ipAddress, macAddress };

std::string integerText(std::int64_t value, Notation notation = Notation::decimal);
/// The shortest text that reads back as the same number.
std::string realText(double value);
std::string valueText(const Value& value, Notation notation = Notation::decimal);

/// Decimal with or without sign, hexadecimal with 0x, and what the notation writes.
std::optional<std::int64_t> parseInteger(const std::string& text, Notation notation = Notation::decimal);
std::optional<double> parseReal(const std::string& text);
/// true, false, on, off, yes, no, 1, 0, in any case.
std::optional<bool> parseBoolean(const std::string& text);

/// "16 to 640 in steps of 4", "at least 3"; empty if nothing bounds it.
std::string boundsText(const State& state, Notation notation = Notation::decimal);

/// Whether two reals are the same but for the rounding of 32-bit registers.
bool sameReal(double a, double b);
bool sameValue(const Value& a, const Value& b);

} // namespace zuGevFeatures
