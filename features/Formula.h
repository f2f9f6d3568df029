// Formulas of a description, made fit for the interpreter. Pure text.
#pragma once

#include <map>
#include <string>

namespace zuGevFeatures {

/// The formula with the names of `expressions` replaced by what they stand for, at any depth, and with divisions that
/// can't trap: the interpreter divides as the processor does, which kills the process where the least integer is
/// divided by -1. The value is the same for all others. Throws std::runtime_error if an expression refers to itself, if
/// the operand of a division can't be made out, or if the result gets out of hand.
std::string mendedFormula(const std::string& formula, const std::map<std::string, std::string>& expressions);

} // namespace zuGevFeatures
