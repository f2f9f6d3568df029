// Named shared memory objects through which processes of different users meet.
#pragma once

#include <boost/interprocess/detail/os_file_functions.hpp>

#include <cstddef>
#include <memory>
#include <string>

namespace zuPlatform {

/// An open named object. Not safe for several threads at once. The object outlives its holders; `remove` ends it.
class SharedMemory {
public:
    enum class Access { readOnly, readWrite };
    enum class Writers { everyone, owner };

    /// Opens an existing object. Null with `error` set if there is none or access is refused.
    static std::unique_ptr<SharedMemory> open(const std::string& name, Access access, int& error);

    /// Creates an object of `size` zero bytes, whatever the umask: every local user may read it, and every one or only
    /// its owner may write it. Whoever may write it may also cut it short, and touching what was cut off is a fault.
    /// Null with `error` set if it can't be made, or exists already.
    static std::unique_ptr<SharedMemory> create(const std::string& name, std::size_t size, int& error,
                                                Writers writers = Writers::everyone);

    ~SharedMemory();
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    /// The object's present size in bytes.
    std::size_t size() const;

    /// Maps `bytes` bytes from the start with the object's access; an object opened for writing that is shorter grows
    /// first. Null if refused. The view belongs to this object and goes with it.
    void* map(std::size_t bytes);
    void unmap();

    /// For `boost::interprocess::mapped_region`.
    boost::interprocess::mapping_handle_t get_mapping_handle() const;

    /// Removes the name. Holders keep what they have mapped. True if a name was removed.
    static bool remove(const std::string& name);

private:
    struct State;
    explicit SharedMemory(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

/// Puts `prefix` before the names of all shared objects and mutexes that this process opens from now on, so that a test
/// can stay out of the way of a daemon on the same machine.
void setObjectNamePrefixForTesting(const std::string& prefix);

} // namespace zuPlatform
