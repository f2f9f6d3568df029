// Named objects as POSIX shared memory. Each object is used by one thread at a time.
#include "platform/shared_memory.h"

#include "platform/linux/object_name.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace zuPlatform {

namespace {

/// Grows the object, with its memory set aside: a full file system is an error here and no fault at the first access.
int grow(int fd, std::size_t size)
{
    int error = 0;
    do
        error = ::posix_fallocate(fd, 0, static_cast<off_t>(size));
    while (error == EINTR);
    if (error == EOPNOTSUPP)
        error = ::ftruncate(fd, static_cast<off_t>(size)) == 0 ? 0 : errno;
    return error;
}

} // namespace

struct SharedMemory::State {
    State(int descriptor, Access mode) : fd(descriptor), access(mode) {}
    ~State()
    {
        unmap();
        ::close(fd);
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void unmap()
    {
        if (view)
            ::munmap(view, length);
        view = nullptr;
        length = 0;
    }

    const int fd;
    const Access access;
    void* view = nullptr;
    std::size_t length = 0;
};

SharedMemory::SharedMemory(std::unique_ptr<State> state) : state_(std::move(state)) {}
SharedMemory::~SharedMemory() = default;

std::unique_ptr<SharedMemory> SharedMemory::open(const std::string& name, Access access, int& error)
{
    const int fd = ::shm_open(objectPath(name).c_str(), access == Access::readWrite ? O_RDWR : O_RDONLY, 0);
    if (fd < 0) {
        error = errno;
        return nullptr;
    }
    error = 0;
    return std::unique_ptr<SharedMemory>(new SharedMemory(std::make_unique<State>(fd, access)));
}

std::unique_ptr<SharedMemory> SharedMemory::create(const std::string& name, std::size_t size, int& error,
                                                   Writers writers)
{
    const std::string path = objectPath(name);
    const int fd = ::shm_open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) {
        error = errno;
        return nullptr;
    }
    auto state = std::make_unique<State>(fd, Access::readWrite);
    error = size ? grow(fd, size) : 0;
    // Last, so that other users find the object complete; and by fchmod, which the umask doesn't touch.
    if (!error && ::fchmod(fd, writers == Writers::everyone ? 0666 : 0644) != 0)
        error = errno;
    if (error) {
        ::shm_unlink(path.c_str());
        return nullptr;
    }
    return std::unique_ptr<SharedMemory>(new SharedMemory(std::move(state)));
}

std::size_t SharedMemory::size() const
{
    struct stat status {};
    return ::fstat(state_->fd, &status) == 0 && status.st_size > 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

void* SharedMemory::map(std::size_t bytes)
{
    State& state = *state_;
    if (bytes == 0)
        return nullptr;
    // Pages behind the object's end would fault when touched.
    if (size() < bytes && (state.access != Access::readWrite || grow(state.fd, bytes) != 0))
        return nullptr;
    const int protection = state.access == Access::readWrite ? PROT_READ | PROT_WRITE : PROT_READ;
    void* const view = ::mmap(nullptr, bytes, protection, MAP_SHARED, state.fd, 0);
    if (view == MAP_FAILED)
        return nullptr;
    state.unmap();
    state.view = view;
    state.length = bytes;
    return view;
}

void SharedMemory::unmap() { state_->unmap(); }

boost::interprocess::mapping_handle_t SharedMemory::get_mapping_handle() const
{
    return boost::interprocess::ipcdetail::mapping_handle_from_file_handle(state_->fd);
}

bool SharedMemory::remove(const std::string& name) { return ::shm_unlink(objectPath(name).c_str()) == 0; }

} // namespace zuPlatform
