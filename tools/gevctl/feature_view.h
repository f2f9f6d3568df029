// Features as text for people and as JSON for programs.
#pragma once

#include "features/Features.h"
#include "tools/gevctl/camera_text.h"

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace gevctl {

/// "beginner", "expert", "guru", "invisible", and back.
const char* visibilityText(zuGevFeatures::Visibility visibility);
std::optional<zuGevFeatures::Visibility> parseVisibility(const std::string& text);

/// A feature with how it stands.
struct FeatureView {
    zuGevFeatures::Feature feature;
    zuGevFeatures::State state;
};

Json toJson(const zuGevFeatures::Value& value);
Json toJson(const FeatureView& view);
Json toJson(const zuGevFeatures::Change& change);
Json toJson(const std::vector<zuGevFeatures::Problem>& problems);

/// "5000 us", or why there is no value.
std::string valueWithUnit(const FeatureView& view);
/// "16 to 640 in steps of 4", "Mono8, Mono16", or empty.
std::string allowedText(const FeatureView& view);
/// What is different: "307200 -> 614400", "now read only", "allowed is now 0 to 320".
std::string changeText(const zuGevFeatures::Change& change);

/// A tree by category, values in columns.
void printTree(std::ostream& out, const std::vector<FeatureView>& views);
/// Everything about one feature.
void printDescription(std::ostream& out, const FeatureView& view);

} // namespace gevctl
