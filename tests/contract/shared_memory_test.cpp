// Named shared memory objects.
#include "platform/shared_memory.h"
#include "tests/contract/contract_support.h"

#include <atomic>
#include <boost/interprocess/mapped_region.hpp>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace zuPlatform;
using namespace zuTest;
using Access = SharedMemory::Access;

namespace {

constexpr uid_t otherUser = 65534;

class Umask {
public:
    explicit Umask(mode_t mask) : previous_(::umask(mask)) {}
    ~Umask() { ::umask(previous_); }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

private:
    mode_t previous_;
};

} // namespace

class SharedMemoryTest : public testing::Test {
protected:
    ~SharedMemoryTest() override { SharedMemory::remove(name); }

    std::unique_ptr<SharedMemory> create(std::size_t size)
    {
        auto object = SharedMemory::create(name, size, error);
        EXPECT_NE(object, nullptr);
        EXPECT_EQ(error, 0);
        return object;
    }
    std::string file() const { return "/dev/shm/Global." + stem; }

    const std::string stem = uniqueName("shm");
    const std::string name = "Global\\" + stem;
    int error = -1;
};

TEST_F(SharedMemoryTest, WhatIsNotThereIsNotOpened)
{
    EXPECT_EQ(SharedMemory::open(name, Access::readOnly, error), nullptr);
    EXPECT_EQ(error, ENOENT);
    EXPECT_EQ(SharedMemory::open(name, Access::readWrite, error), nullptr);
    EXPECT_EQ(error, ENOENT);
    EXPECT_FALSE(SharedMemory::remove(name));
}

TEST_F(SharedMemoryTest, ANewObjectIsZeroAndExclusive)
{
    const auto object = create(2048);
    EXPECT_EQ(object->size(), 2048u);
    const char* const view = static_cast<const char*>(object->map(2048));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(std::vector<char>(view, view + 2048), std::vector<char>(2048));
    EXPECT_EQ(SharedMemory::create(name, 2048, error), nullptr);
    EXPECT_EQ(error, EEXIST);
    EXPECT_TRUE(SharedMemory::open(name, Access::readOnly, error) != nullptr) << "the loser leaves the object alone";
}

TEST_F(SharedMemoryTest, OneOfManyCreators)
{
    std::atomic<int> made{0};
    std::atomic<int> found{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            int own = 0;
            if (SharedMemory::create(name, 64, own))
                ++made;
            else if (own == EEXIST)
                ++found;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(made, 1);
    EXPECT_EQ(found, 7);
}

TEST_F(SharedMemoryTest, EveryUserMayReadAndWriteWhateverTheUmask)
{
    {
        const Umask mask(077);
        create(64);
    }
    struct stat status {};
    ASSERT_EQ(::stat(file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0666u);

    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    EXPECT_EQ(inChild([&] {
                  if (::setuid(otherUser) != 0)
                      return 1;
                  const auto object = SharedMemory::open(name, Access::readWrite, error);
                  void* const view = object ? object->map(64) : nullptr;
                  if (!view)
                      return 2;
                  std::memcpy(view, "hello", 5);
                  return 0;
              }),
              0);
    const auto object = SharedMemory::open(name, Access::readOnly, error);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(std::memcmp(object->map(64), "hello", 5), 0);
}

TEST_F(SharedMemoryTest, AnObjectCanBeItsOwnersToWrite)
{
    {
        const Umask mask(077);
        ASSERT_NE(SharedMemory::create(name, 64, error, SharedMemory::Writers::owner), nullptr);
    }
    struct stat status {};
    ASSERT_EQ(::stat(file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
    EXPECT_NE(SharedMemory::open(name, Access::readWrite, error), nullptr);

    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    EXPECT_EQ(inChild([&] {
                  if (::setuid(otherUser) != 0)
                      return 1;
                  if (SharedMemory::open(name, Access::readWrite, error) != nullptr)
                      return 2;
                  if (::truncate(file().c_str(), 0) == 0)
                      return 3;
                  const auto object = SharedMemory::open(name, Access::readOnly, error);
                  return object && object->map(64) ? 0 : 4;
              }),
              0);
}

TEST_F(SharedMemoryTest, ViewsShowTheSameMemory)
{
    const auto writer = create(64);
    const auto reader = SharedMemory::open(name, Access::readOnly, error);
    ASSERT_NE(reader, nullptr);
    char* const to = static_cast<char*>(writer->map(64));
    const char* const from = static_cast<const char*>(reader->map(64));
    std::strcpy(to, "shared");
    EXPECT_STREQ(from, "shared");
    EXPECT_EQ(inChild([&] {
                  std::strcpy(to, "child");
                  return 0;
              }),
              0);
    EXPECT_STREQ(from, "child");
}

TEST_F(SharedMemoryTest, AReadOnlyViewIsReadOnlyAndNeverBeyondTheObject)
{
    create(64);
    const auto reader = SharedMemory::open(name, Access::readOnly, error);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->map(65), nullptr);
    EXPECT_EQ(reader->map(0), nullptr);
    EXPECT_EQ(reader->size(), 64u);
    char* const view = static_cast<char*>(reader->map(64));
    ASSERT_NE(view, nullptr);
    EXPECT_NE(inChild([&] {
                  *static_cast<volatile char*>(view) = 1;
                  return 0;
              }),
              0);
}

TEST_F(SharedMemoryTest, AnObjectOpenedForWritingGrows)
{
    create(0);
    const auto small = SharedMemory::open(name, Access::readWrite, error);
    ASSERT_NE(small, nullptr);
    EXPECT_EQ(small->size(), 0u);
    char* const view = static_cast<char*>(small->map(5000));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(small->size(), 5000u);
    view[4999] = 'x';
    EXPECT_NE(small->map(100), nullptr);
    EXPECT_EQ(small->size(), 5000u) << "never shrinks";
}

TEST_F(SharedMemoryTest, MapsAnewAndUnmaps)
{
    const auto object = create(100);
    std::strcpy(static_cast<char*>(object->map(100)), "kept");
    EXPECT_STREQ(static_cast<char*>(object->map(50)), "kept");
    object->unmap();
    object->unmap();
    EXPECT_STREQ(static_cast<char*>(object->map(100)), "kept");
}

TEST_F(SharedMemoryTest, HandleServesMappedRegion)
{
    const auto object = create(24);
    std::strcpy(static_cast<char*>(object->map(24)), "region");
    const boost::interprocess::mapped_region region(*object, boost::interprocess::read_only, 0, 24);
    EXPECT_STREQ(static_cast<const char*>(region.get_address()), "region");
}

TEST_F(SharedMemoryTest, OutlivesItsHoldersAndItsNameMayGoFirst)
{
    std::strcpy(static_cast<char*>(create(64)->map(64)), "stays");
    const auto later = SharedMemory::open(name, Access::readOnly, error);
    ASSERT_NE(later, nullptr);
    const char* const view = static_cast<const char*>(later->map(64));
    EXPECT_STREQ(view, "stays");
    EXPECT_TRUE(SharedMemory::remove(name));
    EXPECT_STREQ(view, "stays");
    EXPECT_EQ(SharedMemory::open(name, Access::readOnly, error), nullptr);
    const auto fresh = create(64);
    EXPECT_STREQ(static_cast<const char*>(fresh->map(64)), "");
}

TEST_F(SharedMemoryTest, GivesBackItsDescriptorAndPassesNoneOn)
{
    const std::set<int> before = openDescriptors();
    {
        const auto object = create(64);
        for (const int fd : openDescriptors())
            EXPECT_TRUE(before.count(fd) || (::fcntl(fd, F_GETFD) & FD_CLOEXEC)) << fd;
        EXPECT_EQ(openDescriptors().size(), before.size() + 1);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SharedMemoryTest, RefusesNamesAndSizesThatCannotBe)
{
    EXPECT_EQ(SharedMemory::create("", 64, error), nullptr);
    EXPECT_NE(error, 0);
    EXPECT_EQ(SharedMemory::create("../" + stem, 64, error), nullptr);
    EXPECT_NE(error, 0);
    EXPECT_EQ(SharedMemory::create(std::string(300, 'n'), 64, error), nullptr);
    EXPECT_NE(error, 0);
    EXPECT_EQ(SharedMemory::create(name, std::size_t{1} << 62, error), nullptr);
    EXPECT_NE(error, 0);
    EXPECT_NE(::access(file().c_str(), F_OK), 0) << "an object that could not get its memory is not left behind";
}

TEST_F(SharedMemoryTest, APrefixKeepsTestsApart)
{
    create(64);
    setObjectNamePrefixForTesting("zuPrefix.");
    EXPECT_EQ(SharedMemory::open(name, Access::readOnly, error), nullptr);
    const auto other = SharedMemory::create(name, 8, error);
    EXPECT_NE(other, nullptr);
    EXPECT_EQ(::access(("/dev/shm/zuPrefix.Global." + stem).c_str(), F_OK), 0);
    EXPECT_TRUE(SharedMemory::remove(name));
    setObjectNamePrefixForTesting("");
    EXPECT_NE(SharedMemory::open(name, Access::readOnly, error), nullptr);
}
