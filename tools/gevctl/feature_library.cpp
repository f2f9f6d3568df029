// Finds the library's one entry that has a C name.
#include "tools/gevctl/feature_library.h"

#include <stdexcept>

namespace gevctl {

namespace {

constexpr const char* libraryName = "zugevfeatures";
constexpr unsigned libraryVersion = 1;
constexpr const char* package = "libzugevfeatures1";

} // namespace

FeatureLibrary::FeatureLibrary() : library_(libraryName, libraryVersion)
{
    open_ = reinterpret_cast<Open>(library_.symbol("zugevfeatures_open_1"));
    if (open_ == nullptr)
        throw std::runtime_error(std::string("Features by name need the package ") + package + " (apt-get install " +
                                 package +
                                 "): " + (library_.isLoaded() ? "another library has its name" : library_.problem()));
}

std::unique_ptr<zuGevFeatures::Features> FeatureLibrary::open(const std::shared_ptr<zuGevFeatures::Port>& port,
                                                              const std::string& description) const
{
    return std::unique_ptr<zuGevFeatures::Features>(open_(port, description));
}

} // namespace gevctl
