#include <gtest/gtest.h>

#include <cmath>

#include <kest/cloud/storage/controller/errors_provider_controller.h>
#include <kest/cloud/storage/controller/instance_selector.h>

#include "log_capture.h"

namespace kest::cloud::storage::metadatadb {
namespace {

using namespace kest::network::http;

TEST(InstanceSelectorTest, FirstOfTheSmallestLongTermLoadWins)
{
    const auto host = [](const std::vector<InstanseLoad>& loads) {
        const InstanseLoad* chosen = InstanceSelector::selectOptimal(loads);
        return chosen ? chosen->host : std::string("none");
    };
    EXPECT_EQ("h2", host({{"h1", 0, 0.7}, {"h2", 0, 0.2}, {"h3", 0, 0.2}}));
    EXPECT_EQ("h1", host({{"h1", 0.1, 99}}));
    EXPECT_EQ("none", host({}));
    // The short-term load does not count.
    EXPECT_EQ("h2", host({{"h1", 0, 0.5}, {"h2", 9, 0.4}}));
    // A NaN never replaces the kept record, and nothing replaces a NaN kept first.
    EXPECT_EQ("h1", host({{"h1", 0, 0.5}, {"h2", 0, std::nan("")}}));
    EXPECT_EQ("h1", host({{"h1", 0, std::nan("")}, {"h2", 0, 0.1}}));
}

RequestContext contextWithDeviceIds(std::optional<std::string> deviceIds)
{
    RequestContext context;
    if (deviceIds)
        context.requestPathParams.add("deviceIds", *deviceIds);
    return context;
}

TEST(ErrorsProviderControllerTest, DeviceIdsAreSplitOnSemicolonsLeniently)
{
    const ZuUuid a("{11111111-1111-1111-1111-111111111111}");
    const ZuUuid b("{22222222-2222-2222-2222-222222222222}");
    const ErrorsProviderController controller(nullptr);
    const auto parse = [&](std::optional<std::string> text) {
        return controller.parseDeviceIdsFromRequest(contextWithDeviceIds(std::move(text)));
    };
    EXPECT_EQ(
        (std::unordered_set<ZuUuid>{a, b}),
        parse("11111111-1111-1111-1111-111111111111;;{22222222-2222-2222-2222-222222222222};"));
    EXPECT_EQ((std::unordered_set<ZuUuid>{a}), parse(toString(a) + ";" + toString(a)));
    EXPECT_TRUE(parse(";;").empty());
    EXPECT_TRUE(parse("").empty());
    EXPECT_TRUE(parse(std::nullopt).empty());
    EXPECT_EQ((std::unordered_set<ZuUuid>{ZuUuid(), a}), parse("junk;" + toString(a)));
}

TEST(ErrorsProviderControllerTest, MissingStorageAnswers500WithoutBody)
{
    test::LogCapture log;
    ErrorsProviderController controller(nullptr);
    Request request;
    request.method = "GET";
    request.setTarget("/metadataDb/v1/dataSaveErrors/;?clearData=true&timestamp=1000");
    std::optional<RequestResult> response;
    static_cast<AbstractRequestHandler&>(controller)
        .processRequest(RequestContext(std::move(request), {}),
                        [&](RequestResult result) { response = std::move(result); });
    ASSERT_TRUE(response);
    EXPECT_EQ(StatusCode::internalServerError, response->statusCode);
    EXPECT_TRUE(response->body.empty());
    EXPECT_TRUE(
        log.containsLine("Attempt to read from non initialized DB, errors storage ptr is null"));
    EXPECT_TRUE(log.containsLine(
        "Processing get errors request with params: timestamp: 1000 clearData: true, deviceIds: "
        "none"));
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb
