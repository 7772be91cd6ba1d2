#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

#include <kest/utils/basic_service_settings.h>
#include <kest/utils/service.h>

namespace kest::utils {
namespace {

using namespace std::chrono_literals;

class TestSettings : public BasicServiceSettings
{
public:
    TestSettings() : BasicServiceSettings("Org", "Acme", "test_service") {}
};

class TestService : public Service
{
public:
    enum class Behaviour
    {
        runLoop,
        throwInMain,
        returnAtOnce
    };

    TestService(std::vector<const char*> args, Behaviour behaviour)
        : Service(static_cast<int>(args.size()), const_cast<char**>(args.data()), "Test Service"),
          m_behaviour(behaviour)
    {}

    std::atomic<int> mainCalls{0};
    std::string seenValue;

protected:
    std::unique_ptr<AbstractServiceSettings> createSettings() override
    {
        return std::make_unique<TestSettings>();
    }

    int serviceMain(const AbstractServiceSettings& settings) override
    {
        ++mainCalls;
        seenValue = static_cast<const TestSettings&>(settings)
                        .settings()
                        .value("value")
                        .toString()
                        .toStdString();
        switch (m_behaviour) {
            case Behaviour::runLoop:
                return runMainLoop();
            case Behaviour::throwInMain:
                throw std::runtime_error("cannot bind");
            case Behaviour::returnAtOnce:
                return 7;
        }
        return 0;
    }

private:
    Behaviour m_behaviour;
};

struct Started
{
    std::promise<bool> promise;
    std::future<bool> future = promise.get_future();
    std::atomic<int> calls{0};

    MoveOnlyFunc<void(bool)> handler()
    {
        return [this](bool ok) {
            ++calls;
            promise.set_value(ok);
        };
    }
};

TEST(ServiceTest, StartsReportsAndStopsFromAnotherThread)
{
    TestService service({"prog", "--value=42"}, TestService::Behaviour::runLoop);
    Started started;
    service.setOnStartedEventHandler(started.handler());

    auto result = std::async(std::launch::async, [&] { return service.exec(); });
    ASSERT_EQ(started.future.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(started.future.get());
    EXPECT_EQ(service.seenValue, "42");
    EXPECT_EQ(result.wait_for(50ms), std::future_status::timeout);

    std::thread([&] { service.pleaseStop(); }).join();
    ASSERT_EQ(result.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(result.get(), 0);
    EXPECT_EQ(started.calls, 1);
}

TEST(ServiceTest, ReloadsRunOnTheMainLoopsThreadAndRequestsTogetherRunOnce)
{
    TestService service({"prog"}, TestService::Behaviour::runLoop);
    Started started;
    service.setOnStartedEventHandler(started.handler());
    std::promise<std::thread::id> reloaded;
    std::atomic<int> reloads{0};
    service.setReloadHandler([&] {
        if (reloads++ == 0)
            reloaded.set_value(std::this_thread::get_id());
    });
    // Asked before the loop runs, as a SIGHUP during the start would: run once it does.
    service.pleaseReload();
    service.pleaseReload();

    std::thread::id loopThread;
    auto result = std::async(std::launch::async, [&] {
        loopThread = std::this_thread::get_id();
        return service.exec();
    });
    auto reloadThread = reloaded.get_future();
    ASSERT_EQ(reloadThread.wait_for(10s), std::future_status::ready);
    ASSERT_EQ(started.future.wait_for(10s), std::future_status::ready);
    service.pleaseStop();
    ASSERT_EQ(result.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(result.get(), 0);
    EXPECT_EQ(reloadThread.get(), loopThread);
    EXPECT_EQ(reloads, 1);
}

TEST(ServiceTest, StopBeforeMainLoopEndsItAtOnce)
{
    TestService service({"prog"}, TestService::Behaviour::runLoop);
    service.pleaseStop();
    EXPECT_EQ(service.exec(), 0);
}

TEST(ServiceTest, ThrowingServiceMainReportsFailure)
{
    TestService service({"prog"}, TestService::Behaviour::throwInMain);
    Started started;
    service.setOnStartedEventHandler(started.handler());
    EXPECT_EQ(service.exec(), 1);
    EXPECT_FALSE(started.future.get());
    EXPECT_EQ(started.calls, 1);
}

TEST(ServiceTest, ServiceMainReturningWithoutLoopIsNotAStart)
{
    TestService service({"prog"}, TestService::Behaviour::returnAtOnce);
    Started started;
    service.setOnStartedEventHandler(started.handler());
    EXPECT_EQ(service.exec(), 7);
    EXPECT_FALSE(started.future.get());
}

TEST(ServiceTest, BadSettingsAndHelpDoNotRunServiceMain)
{
    {
        TestService service({"prog", "bogus"}, TestService::Behaviour::runLoop);
        Started started;
        service.setOnStartedEventHandler(started.handler());
        EXPECT_NE(service.exec(), 0);
        EXPECT_FALSE(started.future.get());
        EXPECT_EQ(service.mainCalls, 0);
    }
    {
        TestService service({"prog", "--help"}, TestService::Behaviour::runLoop);
        Started started;
        service.setOnStartedEventHandler(started.handler());
        testing::internal::CaptureStdout();
        EXPECT_EQ(service.exec(), 0);
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find("Usage:"), std::string::npos);
        EXPECT_FALSE(started.future.get());
        EXPECT_EQ(service.mainCalls, 0);
    }
}

}  // namespace
}  // namespace kest::utils
