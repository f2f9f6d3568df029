// The objects are anonymous memory files, so that mapping them, by whatever means, works as ever.
#include "tests/support/fake_shared_memory.h"

#include "platform/shared_memory.h"

#include <cerrno>
#include <map>
#include <mutex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Failure {
    zuTest::FakeSharedMemory::Call call;
    int error;
    std::size_t times;
    std::size_t after;
};

/// A memory file, held by its name and by each handle.
struct File {
    File() : fd(::memfd_create("zu-fake", MFD_CLOEXEC)) {}
    ~File() { ::close(fd); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    std::size_t size() const
    {
        struct stat status {};
        return ::fstat(fd, &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0;
    }
    const int fd;
};

struct Objects {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<File>> files;
    std::vector<Failure> failures;
    std::vector<std::string> calls;

    int failureOf(zuTest::FakeSharedMemory::Call call)
    {
        for (Failure& failure : failures) {
            if (failure.call != call || failure.times == 0)
                continue;
            if (failure.after > 0) {
                --failure.after;
                continue;
            }
            --failure.times;
            return failure.error;
        }
        return 0;
    }
};

Objects& objects()
{
    static Objects& instance = *new Objects;
    return instance;
}

bool resize(const File& file, std::size_t size) { return ::ftruncate(file.fd, static_cast<off_t>(size)) == 0; }

} // namespace

namespace zuTest::FakeSharedMemory {

void reset()
{
    const std::lock_guard<std::mutex> lock(objects().mutex);
    objects().files.clear();
    objects().failures.clear();
    objects().calls.clear();
}

void fail(Call call, int error, std::size_t times, std::size_t after)
{
    const std::lock_guard<std::mutex> lock(objects().mutex);
    objects().failures.push_back({call, error, times, after});
}

void put(const std::string& name, const std::vector<std::uint8_t>& bytes)
{
    const auto file = std::make_shared<File>();
    [[maybe_unused]] const ssize_t count = ::pwrite(file->fd, bytes.data(), bytes.size(), 0);
    const std::lock_guard<std::mutex> lock(objects().mutex);
    objects().files[name] = file;
}

std::vector<std::uint8_t> content(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(objects().mutex);
    const auto found = objects().files.find(name);
    if (found == objects().files.end())
        return {};
    std::vector<std::uint8_t> bytes(found->second->size());
    const ssize_t count = ::pread(found->second->fd, bytes.data(), bytes.size(), 0);
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
}

bool exists(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(objects().mutex);
    return objects().files.count(name) > 0;
}

std::vector<std::string> calls()
{
    const std::lock_guard<std::mutex> lock(objects().mutex);
    return objects().calls;
}

} // namespace zuTest::FakeSharedMemory

namespace zuPlatform {

using zuTest::FakeSharedMemory::Call;

struct SharedMemory::State {
    State(std::shared_ptr<File> held, Access mode) : file(std::move(held)), access(mode) {}
    ~State() { unmap(); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    void unmap()
    {
        if (view)
            ::munmap(view, length);
        view = nullptr;
    }

    const std::shared_ptr<File> file;
    const Access access;
    void* view = nullptr;
    std::size_t length = 0;
};

SharedMemory::SharedMemory(std::unique_ptr<State> state) : state_(std::move(state)) {}
SharedMemory::~SharedMemory() = default;

std::unique_ptr<SharedMemory> SharedMemory::open(const std::string& name, Access access, int& error)
{
    const std::lock_guard<std::mutex> lock(objects().mutex);
    objects().calls.push_back((access == Access::readOnly ? "open read " : "open write ") + name);
    error = objects().failureOf(Call::open);
    const auto found = objects().files.find(name);
    if (!error && found == objects().files.end())
        error = ENOENT;
    if (error)
        return nullptr;
    return std::unique_ptr<SharedMemory>(new SharedMemory(std::make_unique<State>(found->second, access)));
}

std::unique_ptr<SharedMemory> SharedMemory::create(const std::string& name, std::size_t size, int& error, Writers)
{
    const std::lock_guard<std::mutex> lock(objects().mutex);
    objects().calls.push_back("create " + std::to_string(size) + ' ' + name);
    error = objects().failureOf(Call::create);
    if (!error && objects().files.count(name))
        error = EEXIST;
    if (error)
        return nullptr;
    const auto file = std::make_shared<File>();
    if (!resize(*file, size)) {
        error = errno;
        return nullptr;
    }
    objects().files[name] = file;
    return std::unique_ptr<SharedMemory>(new SharedMemory(std::make_unique<State>(file, Access::readWrite)));
}

std::size_t SharedMemory::size() const { return state_->file->size(); }

void* SharedMemory::map(std::size_t bytes)
{
    {
        const std::lock_guard<std::mutex> lock(objects().mutex);
        objects().calls.push_back("map " + std::to_string(bytes));
        if (const int error = objects().failureOf(Call::map)) {
            errno = error;
            return nullptr;
        }
    }
    const bool writable = state_->access == Access::readWrite;
    if (bytes == 0 || (size() < bytes && (!writable || !resize(*state_->file, bytes))))
        return nullptr;
    void* const view =
        ::mmap(nullptr, bytes, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, state_->file->fd, 0);
    if (view == MAP_FAILED)
        return nullptr;
    state_->unmap();
    state_->view = view;
    state_->length = bytes;
    return view;
}

void SharedMemory::unmap()
{
    const std::lock_guard<std::mutex> lock(objects().mutex);
    objects().calls.push_back("unmap");
    state_->unmap();
}

boost::interprocess::mapping_handle_t SharedMemory::get_mapping_handle() const
{
    return boost::interprocess::ipcdetail::mapping_handle_from_file_handle(state_->file->fd);
}

bool SharedMemory::remove(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(objects().mutex);
    objects().calls.push_back("remove " + name);
    return objects().files.erase(name) > 0;
}

} // namespace zuPlatform
