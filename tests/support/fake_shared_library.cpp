// No library is ever there.
#include "platform/shared_library.h"

namespace zuPlatform {

struct SharedLibrary::State {
    std::string problem;
};

SharedLibrary::SharedLibrary(const std::string& name, unsigned) : state_(std::make_unique<State>())
{
    state_->problem = name + ": no such file";
}

SharedLibrary::~SharedLibrary() = default;

bool SharedLibrary::isLoaded() const { return false; }

const std::string& SharedLibrary::problem() const { return state_->problem; }

void* SharedLibrary::symbol(const char*) const { return nullptr; }

} // namespace zuPlatform
