// The features library, which is loaded when a command asks for a feature: gevctl works without it.
#pragma once

#include "features/Features.h"
#include "platform/shared_library.h"

#include <memory>
#include <string>

namespace gevctl {

/// Loads the library; throws std::runtime_error, with the package to install in its words, where there is none. Must
/// outlive the features that it opens.
class FeatureLibrary {
public:
    FeatureLibrary();

    /// As zuGevFeatures::openFeatures.
    std::unique_ptr<zuGevFeatures::Features> open(const std::shared_ptr<zuGevFeatures::Port>& port,
                                                  const std::string& description = {}) const;

private:
    using Open = decltype(&zugevfeatures_open_1);
    zuPlatform::SharedLibrary library_;
    Open open_ = nullptr;
};

} // namespace gevctl
