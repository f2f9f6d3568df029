// Calls to systemd over the system bus.
#include "platform/linux/service_bus.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdlib>

namespace zuPlatform {

namespace {

constexpr const char* destination = "org.freedesktop.systemd1";
constexpr const char* managerPath = "/org/freedesktop/systemd1";
constexpr const char* unitPrefix = "/org/freedesktop/systemd1/unit";
constexpr const char* managerInterface = "org.freedesktop.systemd1.Manager";
constexpr const char* unitInterface = "org.freedesktop.systemd1.Unit";
constexpr const char* serviceInterface = "org.freedesktop.systemd1.Service";
constexpr const char* jobInterface = "org.freedesktop.systemd1.Job";

struct Error {
    Error() = default;
    ~Error() { ::sd_bus_error_free(&value); }
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;
    sd_bus_error value{};
};

struct Message {
    Message() = default;
    ~Message() { ::sd_bus_message_unref(value); }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    sd_bus_message* value = nullptr;
};

/// A result of the bus library as an errno value, 0 for success.
int toErrno(int result) { return result < 0 ? -result : 0; }

} // namespace

ServiceBus::~ServiceBus() { ::sd_bus_flush_close_unref(bus_); }

int ServiceBus::connect()
{
    if (bus_ && ::sd_bus_is_open(bus_) > 0)
        return 0;
    bus_ = ::sd_bus_flush_close_unref(bus_);
    return toErrno(::sd_bus_open_system(&bus_));
}

int ServiceBus::send(sd_bus_message* call)
{
    Error error;
    Message reply;
    return toErrno(::sd_bus_call(bus_, call, 0, &error.value, &reply.value));
}

int ServiceBus::jobCall(const char* method, const std::string& unit)
{
    Message call;
    int result =
        ::sd_bus_message_new_method_call(bus_, &call.value, destination, managerPath, managerInterface, method);
    if (result >= 0)
        result = ::sd_bus_message_append(call.value, "ss", unit.c_str(), "replace");
    return result < 0 ? toErrno(result) : send(call.value);
}

int ServiceBus::fileCall(const char* method, const std::string& unit, bool withForce)
{
    const int persistent = 0;
    const int force = 1;
    Message call;
    int result =
        ::sd_bus_message_new_method_call(bus_, &call.value, destination, managerPath, managerInterface, method);
    if (result >= 0)
        result = ::sd_bus_message_append(call.value, "asb", 1, unit.c_str(), persistent);
    if (result >= 0 && withForce)
        result = ::sd_bus_message_append(call.value, "b", force);
    return result < 0 ? toErrno(result) : send(call.value);
}

int ServiceBus::resetFailedUnit(const std::string& unit)
{
    Message call;
    int result = ::sd_bus_message_new_method_call(bus_, &call.value, destination, managerPath, managerInterface,
                                                  "ResetFailedUnit");
    if (result >= 0)
        result = ::sd_bus_message_append(call.value, "s", unit.c_str());
    return result < 0 ? toErrno(result) : send(call.value);
}

int ServiceBus::reload()
{
    Message call;
    const int result =
        ::sd_bus_message_new_method_call(bus_, &call.value, destination, managerPath, managerInterface, "Reload");
    return result < 0 ? toErrno(result) : send(call.value);
}

int ServiceBus::readText(const std::string& path, const char* interface, const char* name, std::string& value)
{
    Error error;
    char* text = nullptr;
    const int result =
        ::sd_bus_get_property_string(bus_, destination, path.c_str(), interface, name, &error.value, &text);
    if (result >= 0)
        value = text;
    std::free(text);
    return toErrno(result);
}

int ServiceBus::readProgram(const std::string& path, std::string& program)
{
    Error error;
    Message reply;
    int result = ::sd_bus_get_property(bus_, destination, path.c_str(), serviceInterface, "ExecStart", &error.value,
                                       &reply.value, "a(sasbttttuii)");
    if (result >= 0)
        result = ::sd_bus_message_enter_container(reply.value, 'a', "(sasbttttuii)");
    if (result >= 0)
        result = ::sd_bus_message_enter_container(reply.value, 'r', "sasbttttuii");
    const char* text = nullptr;
    if (result > 0)
        result = ::sd_bus_message_read(reply.value, "s", &text);
    if (result > 0)
        program = text;
    return toErrno(result);
}

int ServiceBus::readJob(const std::string& path, std::string& jobType)
{
    Error error;
    Message reply;
    int result = ::sd_bus_get_property(bus_, destination, path.c_str(), unitInterface, "Job", &error.value,
                                       &reply.value, "(uo)");
    std::uint32_t id = 0;
    const char* job = nullptr;
    if (result >= 0)
        result = ::sd_bus_message_read(reply.value, "(uo)", &id, &job);
    // The job may be done by now; it is then none.
    if (result > 0 && id != 0)
        readText(job, jobInterface, "JobType", jobType);
    return toErrno(result);
}

int ServiceBus::facts(const std::string& unit, UnitFacts& facts)
{
    if (const int error = connect())
        return error;
    char* encoded = nullptr;
    if (const int result = ::sd_bus_path_encode(unitPrefix, unit.c_str(), &encoded); result < 0)
        return -result;
    const std::string path = encoded;
    std::free(encoded);

    UnitFacts found;
    // The job comes first: a job that ends after this has brought the state that is read next.
    if (const int error = readJob(path, found.jobType))
        return error;
    if (const int error = readText(path, unitInterface, "LoadState", found.loadState))
        return error;
    if (const int error = readText(path, unitInterface, "ActiveState", found.activeState))
        return error;
    if (const int error = readText(path, unitInterface, "SubState", found.subState))
        return error;
    if (const int error = readText(path, unitInterface, "UnitFileState", found.fileState))
        return error;
    readProgram(path, found.program);
    Error error;
    ::sd_bus_get_property_trivial(bus_, destination, path.c_str(), serviceInterface, "MainPID", &error.value, 'u',
                                  &found.mainPid);
    facts = found;
    return 0;
}

} // namespace zuPlatform
