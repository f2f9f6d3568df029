// Libraries by the dynamic loader. The version is that of the soname.
#include "platform/shared_library.h"

#include <dlfcn.h>

namespace zuPlatform {

struct SharedLibrary::State {
    void* handle = nullptr;
    std::string problem;
};

SharedLibrary::SharedLibrary(const std::string& name, unsigned version) : state_(std::make_unique<State>())
{
    const std::string file = "lib" + name + ".so." + std::to_string(version);
    state_->handle = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (state_->handle == nullptr) {
        const char* const words = ::dlerror();
        state_->problem = words != nullptr ? words : file + " can't be loaded";
    }
}

SharedLibrary::~SharedLibrary()
{
    if (state_->handle != nullptr)
        ::dlclose(state_->handle);
}

bool SharedLibrary::isLoaded() const { return state_->handle != nullptr; }

const std::string& SharedLibrary::problem() const { return state_->problem; }

void* SharedLibrary::symbol(const char* name) const
{
    return state_->handle != nullptr ? ::dlsym(state_->handle, name) : nullptr;
}

} // namespace zuPlatform
