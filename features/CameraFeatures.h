// The features of a camera that is reached through the daemon. All of it is compiled into the program that includes it,
// so the features library and the client library need not know of each other.
#pragma once

#include "client/GevClient.h"
#include "features/Features.h"

namespace zuGevFeatures {

/// A Connection as a Port. What the camera refuses stays a zuGevClient::CameraError, with the feature in its words and,
/// for a refused setting, who holds the camera. The connection must outlive it.
class ConnectionPort : public Port {
public:
    explicit ConnectionPort(zuGevClient::Connection& connection) : connection_(connection) {}

    std::uint32_t readRegister(std::uint32_t address) override { return connection_.readRegister(address); }
    void writeRegister(std::uint32_t address, std::uint32_t value) override
    {
        connection_.writeRegister(address, value);
    }
    void readMemory(std::uint32_t address, void* destination, std::size_t size) override
    {
        connection_.readMemory(address, destination, size);
    }
    void writeMemory(std::uint32_t address, const void* source, std::size_t size) override
    {
        connection_.writeMemory(address, source, size);
    }
    bool isRefusal(std::exception_ptr cause) override
    {
        try {
            std::rethrow_exception(cause);
        } catch (const zuGevClient::CameraError& error) {
            return error.status() != zuGevClient::Status::timeout &&
                   error.status() != zuGevClient::Status::responseTimeout;
        } catch (...) {
            return false;
        }
    }
    [[noreturn]] void raise(const std::string& doing, bool writing, std::exception_ptr cause) override
    {
        try {
            std::rethrow_exception(cause);
        } catch (const zuGevClient::CameraError& error) {
            std::string text = doing + ": " + error.what();
            // A camera that nobody controls, or somebody else does, answers so.
            if (writing && (error.status() == zuGevClient::Status::accessDenied ||
                            error.status() == zuGevClient::Status::generalFailure))
                text += "; " + holder();
            throw zuGevClient::CameraError(text, error.status());
        }
    }

private:
    /// "the camera is held by 10.0.0.5:1234", from the registers of the standard.
    std::string holder()
    {
        constexpr std::uint32_t privilege = 0x0A00;
        constexpr std::uint32_t applicationPort = 0x0A04;
        constexpr std::uint32_t applicationAddress = 0x0A14;
        constexpr std::uint32_t exclusiveOrControl = 3;
        try {
            if ((connection_.readRegister(privilege) & exclusiveOrControl) == 0)
                return "nobody holds the camera, and setting takes a link with control";
        } catch (const zuGevClient::CameraError&) {
            return "the camera may be held by another application";
        }
        try {
            const zuGevClient::Endpoint application{
                connection_.readRegister(applicationAddress),
                static_cast<std::uint16_t>(connection_.readRegister(applicationPort))};
            if (application.address != 0)
                return "the camera is held by " + zuGevClient::toString(application);
        } catch (const zuGevClient::CameraError&) {
            // Not every camera tells.
        }
        return "the camera is held by an application that it doesn't name";
    }

    zuGevClient::Connection& connection_;
};

/// `openFeatures` for the camera of this connection, which must outlive the result. Reading needs no link.
inline std::unique_ptr<Features> openFeatures(zuGevClient::Connection& connection, const std::string& description = {})
{
    return openFeatures(std::make_shared<ConnectionPort>(connection), description);
}

} // namespace zuGevFeatures
