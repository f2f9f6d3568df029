// A look at a description before the interpreter parses it, by the same parser. Any thread.
#pragma once

#include <string>
#include <vector>

namespace zuGevFeatures {

/// What the attributes pOffset of a description hold. Throws FeatureError for what is no well-formed XML, no
/// description of registers, has a document type of its own, or nests too deeply: the interpreter complains of such on
/// standard error, and crashes on some.
std::vector<std::string> checkXml(const std::string& description);

} // namespace zuGevFeatures
