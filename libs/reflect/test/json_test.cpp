#include <gtest/gtest.h>

#include <kest/reflect/json.h>
#include <kest/vms_common/zu_time_period_list.h>
#include <kest/vms_common/zu_uuid.h>

namespace kest::reflect::test {

enum class Color : int
{
    red = 0,
    green = 5
};
BOOST_DESCRIBE_ENUM(Color, red, green)

struct Inner
{
    std::string name;
    std::vector<int> values;
    friend bool operator==(const Inner&, const Inner&) = default;
};
BOOST_DESCRIBE_STRUCT(Inner, (), (name, values))

struct Outer
{
    ZuUuid id;
    bool flag = false;
    std::int64_t big = 0;
    std::uint32_t small = 7;
    double ratio = 0;
    Color color = Color::red;
    std::chrono::milliseconds timeout{0};
    std::optional<int> maybe;
    std::vector<Inner> inners;
    std::set<std::string> tags;
    ZuTimePeriodList periods;
    friend bool operator==(const Outer&, const Outer&) = default;
};
BOOST_DESCRIBE_STRUCT(Outer, (),
                      (id, flag, big, small, ratio, color, timeout, maybe, inners, tags, periods))

Outer fullOuter()
{
    Outer o;
    o.id = ZuUuid("{6c1b4a1e-3b1f-4a55-9d5e-7a1c2b3d4e5f}");
    o.flag = true;
    o.big = std::numeric_limits<std::int64_t>::min() + 1;
    o.small = std::numeric_limits<std::uint32_t>::max();
    o.ratio = 0.1 + 0.2;
    o.color = Color::green;
    o.timeout = std::chrono::milliseconds(1500);
    o.maybe = -3;
    o.inners = {{"a \"quoted\"\n", {1, 2}}, {"", {}}};
    o.tags = {"x", "y"};
    o.periods = {{1000, 2000}, {5000, ZuTimePeriod::kInfiniteDuration}};
    return o;
}

TEST(Json, RoundTripKeepsEveryField)
{
    const Outer o = fullOuter();
    const std::string text = json::serialize(o);
    Outer back;
    const auto result = json::deserialize(text, &back);
    ASSERT_TRUE(result) << result.errorDescription;
    EXPECT_EQ(back, o);
}

TEST(Json, WritesCompactDeclarationOrder)
{
    Outer o;
    EXPECT_EQ(json::serialize(o),
              R"({"id":"{00000000-0000-0000-0000-000000000000}","flag":false,"big":0,"small":7,)"
              R"("ratio":0.0,"color":"red","timeout":0,"inners":[],"tags":[],"periods":[]})");
}

}  // namespace kest::reflect::test
