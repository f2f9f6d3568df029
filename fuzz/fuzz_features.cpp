// A description as it is fetched, unzipped, read and used: a camera whose memory is the input. Whatever stands there,
// it ends soon, in features or in a FeatureError.
#include "features/Features.h"
#include "fuzz_input.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

namespace {

using namespace zuGevFeatures;

constexpr std::uint32_t fileAt = 0x10000;
constexpr std::size_t mostFeatures = 40;
constexpr std::chrono::seconds timeLimit{20};

struct Refused : std::runtime_error {
    Refused() : std::runtime_error("refused") {}
};

/// The URL of the description, the description, and below it registers that hold what was written there.
class InputPort : public Port {
public:
    InputPort(const std::uint8_t* file, std::size_t size) : memory_(fileAt + size)
    {
        char url[64];
        std::snprintf(url, sizeof url, "Local:a.xml;%X;%X", static_cast<unsigned>(fileAt), static_cast<unsigned>(size));
        std::memcpy(memory_.data() + 0x200, url, std::strlen(url));
        std::copy(file, file + size, memory_.begin() + fileAt);
    }
    std::uint32_t readRegister(std::uint32_t address) override
    {
        std::uint8_t bytes[4];
        readMemory(address, bytes, sizeof bytes);
        return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 | bytes[3];
    }
    void writeRegister(std::uint32_t address, std::uint32_t value) override
    {
        const std::uint8_t bytes[4] = {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
                                       static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
        writeMemory(address, bytes, sizeof bytes);
    }
    void readMemory(std::uint32_t address, void* destination, std::size_t size) override
    {
        if (address > memory_.size() || size > memory_.size() - address)
            throw Refused();
        std::memcpy(destination, memory_.data() + address, size);
    }
    void writeMemory(std::uint32_t address, const void* source, std::size_t size) override
    {
        if (address > memory_.size() || size > memory_.size() - address)
            throw Refused();
        std::memcpy(memory_.data() + address, source, size);
    }
    bool isRefusal(std::exception_ptr) override { return true; }

private:
    zuFuzz::Bytes memory_;
};

template <typename Action>
void attempt(Action&& action)
{
    try {
        action();
    } catch (const FeatureError&) {
    } catch (const Refused&) {
    }
}

void use(Features& features)
{
    const std::vector<Feature> list = features.list();
    for (std::size_t i = 0; i < list.size() && i < mostFeatures; ++i) {
        const std::string& name = list[i].name;
        attempt([&] { features.state(name); });
        attempt([&] { features.getText(name); });
        attempt([&] { features.setTextAndTell(name, features.getText(name)); });
        attempt([&] { features.setText(name, "1"); });
        attempt([&] { features.execute(name); });
        attempt([&] { features.waitForEnd(name, std::chrono::milliseconds(0)); });
    }
    if (list.size() <= mostFeatures)
        attempt([&] { features.load(features.save().json); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0 || size > 65536)
        return 0;
    const auto start = std::chrono::steady_clock::now();
    attempt([&] { use(*openFeatures(std::make_shared<InputPort>(data, size))); });
    zuFuzz::check(std::chrono::steady_clock::now() - start < timeLimit);
    return 0;
}
