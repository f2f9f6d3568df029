// A class derived from the interpreter's device, in its own object system.
#include "features/Device.h"

#include <array>
#include <mutex>

namespace zuGevFeatures {

namespace {

struct PortDevice {
    ArvDevice parent;
    Accesses* accesses;
    ArvGc* genicam; ///< not owned: it owns nothing of ours, and ends first
};

struct PortDeviceClass {
    ArvDeviceClass parent;
};

Accesses* accessesOf(ArvDevice* device) { return reinterpret_cast<PortDevice*>(device)->accesses; }

ArvGc* getGenicam(ArvDevice* device) { return reinterpret_cast<PortDevice*>(device)->genicam; }

const char* getXml(ArvDevice*, std::size_t* size)
{
    if (size != nullptr)
        *size = 0;
    return nullptr;
}

gboolean readMemory(ArvDevice* device, guint64 address, guint32 size, void* buffer, GError** error)
{
    return accessesOf(device)->read(address, buffer, size, error) ? TRUE : FALSE;
}

gboolean writeMemory(ArvDevice* device, guint64 address, guint32 size, void* buffer, GError** error)
{
    return accessesOf(device)->write(address, buffer, size, error) ? TRUE : FALSE;
}

gboolean readRegister(ArvDevice* device, guint64 address, guint32* value, GError** error)
{
    std::array<guint8, 4> bytes{};
    if (!accessesOf(device)->read(address, bytes.data(), bytes.size(), error))
        return FALSE;
    *value = guint32{bytes[0]} << 24 | guint32{bytes[1]} << 16 | guint32{bytes[2]} << 8 | bytes[3];
    return TRUE;
}

gboolean writeRegister(ArvDevice* device, guint64 address, guint32 value, GError** error)
{
    const std::array<guint8, 4> bytes{static_cast<guint8>(value >> 24), static_cast<guint8>(value >> 16),
                                      static_cast<guint8>(value >> 8), static_cast<guint8>(value)};
    return accessesOf(device)->write(address, bytes.data(), bytes.size(), error) ? TRUE : FALSE;
}

void initialiseClass(void* type, void*)
{
    auto* const device = &static_cast<PortDeviceClass*>(type)->parent;
    device->get_genicam_xml = getXml;
    device->get_genicam = getGenicam;
    device->read_memory = readMemory;
    device->write_memory = writeMemory;
    device->read_register = readRegister;
    device->write_register = writeRegister;
}

/// Registered once; a type can't be taken back, which is why the library can't be unloaded.
GType portDeviceType()
{
    static const GType type =
        g_type_register_static_simple(ARV_TYPE_DEVICE, "ZuGevFeaturesPortDevice", sizeof(PortDeviceClass),
                                      initialiseClass, sizeof(PortDevice), nullptr, GTypeFlags(0));
    return type;
}

/// The interpreter fills tables of the whole process the first time that it reads a description.
std::mutex& parserMutex()
{
    static std::mutex mutex;
    return mutex;
}

} // namespace

template <typename Access>
bool Accesses::attempt(std::uint64_t address, std::size_t size, GError** error, Access&& access) noexcept
{
    constexpr std::uint64_t addressSpace = std::uint64_t{1} << 32;
    if (!failure_) {
        try {
            if (address >= addressSpace || size > addressSpace - address)
                throw FeatureError(FeatureError::Reason::description, {},
                                   "the description leads beyond the camera's 32-bit addresses");
            if (left_ == 0)
                throw FeatureError(FeatureError::Reason::description, {},
                                   "the description takes more accesses than can be meant");
            --left_;
            access(static_cast<std::uint32_t>(address));
            return true;
        } catch (...) {
            failure_ = std::current_exception();
        }
    }
    g_set_error_literal(error, ARV_DEVICE_ERROR, ARV_DEVICE_ERROR_TRANSFER_ERROR, "access failed");
    return false;
}

bool Accesses::read(std::uint64_t address, void* destination, std::size_t size, GError** error) noexcept
{
    return attempt(address, size, error, [&](std::uint32_t at) {
        if (size != 4 || at % 4 != 0)
            return port_->readMemory(at, destination, size);
        const std::uint32_t value = port_->readRegister(at);
        auto* const bytes = static_cast<std::uint8_t*>(destination);
        for (int i = 0; i < 4; ++i)
            bytes[i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
    });
}

bool Accesses::write(std::uint64_t address, const void* source, std::size_t size, GError** error) noexcept
{
    return attempt(address, size, error, [&](std::uint32_t at) {
        if (size != 4 || at % 4 != 0)
            return port_->writeMemory(at, source, size);
        const auto* const bytes = static_cast<const std::uint8_t*>(source);
        std::uint32_t value = 0;
        for (int i = 0; i < 4; ++i)
            value = value << 8 | bytes[i];
        port_->writeRegister(at, value);
    });
}

Device::Device(std::shared_ptr<Port> port, const std::string& description) : accesses_(std::move(port))
{
    const std::lock_guard<std::mutex> lock(parserMutex());
    device_.reset(static_cast<ArvDevice*>(g_object_new(portDeviceType(), nullptr)));
    auto* const device = reinterpret_cast<PortDevice*>(device_.get());
    device->accesses = &accesses_;
    genicam_.reset(arv_gc_new(device_.get(), description.data(), description.size()));
    if (!genicam_)
        throw FeatureError(FeatureError::Reason::description, {},
                           "The camera's description is damaged: it is no XML, or none of GenICam");
    device->genicam = genicam_.get();
    // What others, or a restart of the camera, have changed must be seen; and bounds and access are off unless asked
    // for.
    arv_gc_set_register_cache_policy(genicam_.get(), ARV_REGISTER_CACHE_POLICY_DISABLE);
    arv_gc_set_range_check_policy(genicam_.get(), ARV_RANGE_CHECK_POLICY_ENABLE);
    arv_gc_set_access_check_policy(genicam_.get(), ARV_ACCESS_CHECK_POLICY_ENABLE);
}

Device::~Device() = default;

} // namespace zuGevFeatures
