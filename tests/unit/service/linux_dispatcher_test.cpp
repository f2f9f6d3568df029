// Being a service under systemd, with the test as the manager: its notify socket and its signals.
#include "platform/service_manager.h"
#include "platform/service_notify.h"

#include "tests/support/files.h"
#include "tests/support/local_inbox.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace zuPlatform {
namespace {

using testing::ElementsAre;

constexpr int deadlineMs = 20000;

/// The manager's end: a datagram socket that services write their states to.
class NotifySocket {
public:
    NotifySocket()
    {
        ::setenv("NOTIFY_SOCKET", (folder_ / "socket").c_str(), 1);
        // The tests themselves may run below a service.
        ::unsetenv("SYSTEMD_EXEC_PID");
    }
    ~NotifySocket()
    {
        ::unsetenv("NOTIFY_SOCKET");
        ::unsetenv("SYSTEMD_EXEC_PID");
    }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    std::string receive() { return inbox_.receive(deadlineMs).value_or("nothing came"); }

private:
    const zuTest::TemporaryFolder folder_;
    zuTest::LocalInbox inbox_{folder_ / "socket"};
};

/// A service's two entries, which carry no context.
struct Service {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::uint32_t> controls;
    bool mayEnd = false;
    bool mayRegister = true;
    std::thread::id controlThread;
    std::thread::id bodyThread;
    std::string argument;
    std::string threadName;
    bool otherNameRefused = false;

    void set(bool Service::*flag)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        this->*flag = true;
        changed.notify_all();
    }

    bool waitFor(const std::function<bool()>& condition)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(deadlineMs), condition);
    }
};

Service* service = nullptr;
std::atomic<ServiceStatusHandle> statusHandle{0};

bool report(std::uint32_t state)
{
    ServiceStatus status;
    status.state = state;
    return setServiceStatus(statusHandle, status);
}

void onControl(std::uint32_t control)
{
    const std::lock_guard<std::mutex> lock(service->mutex);
    service->controls.push_back(control);
    service->controlThread = std::this_thread::get_id();
    service->changed.notify_all();
}

void serviceBody(std::uint32_t count, char** arguments)
{
    service->bodyThread = std::this_thread::get_id();
    service->argument = count == 1 ? arguments[0] : "";
    char name[16] = {};
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    service->threadName = name;
    EXPECT_TRUE(service->waitFor([] { return service->mayRegister; }));
    service->otherNameRefused = registerServiceControlHandler("other", onControl) == 0;
    statusHandle = registerServiceControlHandler("zuGevSvc", onControl);
    EXPECT_TRUE(report(4));
    EXPECT_TRUE(service->waitFor([] { return service->mayEnd; }));
    EXPECT_TRUE(report(1));
}

class LinuxDispatcher : public testing::Test {
protected:
    LinuxDispatcher()
    {
        service = &served;
        statusHandle = 0;
    }
    ~LinuxDispatcher() override
    {
        if (dispatcher.joinable())
            dispatcher.join();
        service = nullptr;
    }

    void start()
    {
        dispatcher = std::thread([this] {
            dispatcherThread = std::this_thread::get_id();
            result = startServiceDispatcher("zuGevSvc", serviceBody);
        });
    }

    Service served;
    NotifySocket manager;
    std::thread dispatcher;
    std::thread::id dispatcherThread;
    std::optional<bool> result;
};

TEST_F(LinuxDispatcher, SignalsAreControlsAndStatesAreTold)
{
    start();
    EXPECT_EQ(manager.receive(), "READY=1\nSTATUS=Running");

    ASSERT_EQ(::kill(::getpid(), SIGHUP), 0);
    EXPECT_TRUE(served.waitFor([this] { return served.controls.size() == 1; }));
    ASSERT_EQ(::kill(::getpid(), SIGTERM), 0);
    EXPECT_TRUE(served.waitFor([this] { return served.controls.size() == 2; }));
    EXPECT_TRUE(report(3));
    EXPECT_EQ(manager.receive(), "STOPPING=1\nSTATUS=Stopping");

    served.set(&Service::mayEnd);
    EXPECT_EQ(manager.receive(), "STOPPING=1\nSTATUS=Stopped");
    dispatcher.join();
    EXPECT_EQ(result, true);
    EXPECT_THAT(served.controls, ElementsAre(serviceControlReload, serviceControlStop));
    EXPECT_EQ(served.controlThread, dispatcherThread);
    EXPECT_NE(served.bodyThread, dispatcherThread);
    EXPECT_EQ(served.argument, "zuGevSvc");
    EXPECT_EQ(served.threadName, "zu-service") << "named as the threads of default priority are";
    EXPECT_TRUE(served.otherNameRefused);
}

TEST_F(LinuxDispatcher, ControlThatComesEarlyWaitsForTheFirstState)
{
    served.mayRegister = false;
    start();
    // The handlers are set before the body starts.
    struct sigaction action {};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
    do {
        std::this_thread::yield();
        ::sigaction(SIGTERM, nullptr, &action);
    } while (action.sa_handler == SIG_DFL && std::chrono::steady_clock::now() < deadline);
    ASSERT_NE(action.sa_handler, SIG_DFL);
    ASSERT_EQ(::kill(::getpid(), SIGTERM), 0);

    served.set(&Service::mayRegister);
    EXPECT_TRUE(served.waitFor([this] { return !served.controls.empty(); }));
    EXPECT_EQ(manager.receive(), "READY=1\nSTATUS=Running") << "running was told before the control was passed on";
    served.set(&Service::mayEnd);
    dispatcher.join();
    EXPECT_THAT(served.controls, ElementsAre(serviceControlStop));
}

TEST_F(LinuxDispatcher, OneDispatcherAtATime)
{
    start();
    EXPECT_EQ(manager.receive(), "READY=1\nSTATUS=Running");
    EXPECT_FALSE(startServiceDispatcher("zuGevSvc", serviceBody));
    EXPECT_NE(serviceError(), 0u);
    served.set(&Service::mayEnd);
    dispatcher.join();
    EXPECT_EQ(result, true);
}

TEST_F(LinuxDispatcher, StatesOfNoServiceAreRefused)
{
    EXPECT_FALSE(report(4));
    EXPECT_NE(serviceError(), 0u);
    EXPECT_EQ(registerServiceControlHandler("zuGevSvc", onControl), 0u);
}

TEST(LinuxDispatcherByHand, FailsAtOnceWithoutAManager)
{
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_FALSE(startedByServiceManager());
    EXPECT_FALSE(startServiceDispatcher("zuGevSvc", [](std::uint32_t, char**) { ADD_FAILURE() << "the body ran"; }));
    EXPECT_NE(serviceError(), 0u);
    EXPECT_FALSE(notifyServiceReady("Running"));
    EXPECT_FALSE(notifyServiceStopping("Stopping"));
}

TEST(LinuxDispatcherByHand, WhatAServiceStartsIsNotTheService)
{
    NotifySocket manager;
    ::setenv("SYSTEMD_EXEC_PID", std::to_string(::getppid()).c_str(), 1);
    EXPECT_FALSE(startedByServiceManager());
    EXPECT_FALSE(startServiceDispatcher("zuGevSvc", [](std::uint32_t, char**) { ADD_FAILURE() << "the body ran"; }));
    EXPECT_FALSE(notifyServiceReady("Running"));
    EXPECT_FALSE(notifyServiceStopping("Stopping"));
    EXPECT_FALSE(notifyServiceStatus("Somebody else"));

    ::setenv("SYSTEMD_EXEC_PID", std::to_string(::getpid()).c_str(), 1);
    EXPECT_TRUE(startedByServiceManager());
    EXPECT_TRUE(notifyServiceStatus("Here"));
    EXPECT_EQ(manager.receive(), "STATUS=Here") << "and nothing before it";
}

TEST(LinuxDispatcherDeath, ExceptionOutOfTheControlHandlerEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            const NotifySocket manager;
            startServiceDispatcher("zuGevSvc", [](std::uint32_t, char**) {
                statusHandle = registerServiceControlHandler(
                    "zuGevSvc", [](std::uint32_t) { throw std::runtime_error("no stop for you"); });
                report(4);
                ::kill(::getpid(), SIGTERM);
                // Either the process ends, or the test does.
                std::this_thread::sleep_for(std::chrono::milliseconds(deadlineMs));
                std::_Exit(0);
            });
        },
        "no stop for you");
}

TEST(LinuxDispatcherDeath, ExceptionOutOfTheBodyEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            const NotifySocket manager;
            startServiceDispatcher("zuGevSvc", [](std::uint32_t, char**) { throw std::runtime_error("no object"); });
        },
        "");
}

} // namespace
} // namespace zuPlatform
