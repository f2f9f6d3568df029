// Libraries that a program loads while it runs, so that it works without them.
#pragma once

#include <memory>
#include <string>

namespace zuPlatform {

/// A shared library, held for the object's life. Any thread.
class SharedLibrary {
public:
    /// Looks for the library of this name (without prefix and ending) and version where the system looks for those that
    /// a program is linked with. Does not throw where there is none: then `isLoaded` is false and `problem` says why.
    SharedLibrary(const std::string& name, unsigned version);
    ~SharedLibrary();
    SharedLibrary(const SharedLibrary&) = delete;
    SharedLibrary& operator=(const SharedLibrary&) = delete;

    bool isLoaded() const;
    const std::string& problem() const; ///< in the system's words; empty if it is loaded

    /// What the library exports under this C name; null if it doesn't, or isn't loaded.
    void* symbol(const char* name) const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace zuPlatform
