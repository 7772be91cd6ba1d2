#include <gtest/gtest.h>

#include <kest/utils/to_text.h>

#include <map>
#include <optional>
#include <set>
#include <vector>

namespace kest::utils::test {

namespace {
struct Named
{
    int id;
};
std::string toString(const Named& n)
{
    return "named#" + std::to_string(n.id);
}
}  // namespace

TEST(Format, ReplacesNumberedPlaceholdersInAnyOrder)
{
    EXPECT_EQ(format("%2 then %1", "a", 7), "7 then a");
    EXPECT_EQ(format("100% sure, %1%", true), "100% sure, true%");
    EXPECT_EQ(format("%1 %3", 1, 2), "1 %3");  // no third argument: left as is
    EXPECT_EQ(format("%1%1", "x"), "xx");
}

TEST(Format, TwoDigitPlaceholdersOnlyWhenThatManyArguments)
{
    EXPECT_EQ(format("%10", "a"), "a0");
    EXPECT_EQ(format("%10|%1", 1, 2, 3, 4, 5, 6, 7, 8, 9, "ten"), "ten|1");
}

TEST(ToText, ContainersOptionalsAndCustomTypes)
{
    EXPECT_EQ(toText(std::vector<int>{}), "none");
    EXPECT_EQ(toText(std::vector<int>{1, 2}), "{ 1, 2 }");
    EXPECT_EQ(toText(std::set<std::string>{"b", "a"}), "{ a, b }");
    EXPECT_EQ(toText(std::optional<int>{}), "none");
    EXPECT_EQ(toText(std::vector<Named>{{1}, {2}}), "{ named#1, named#2 }");
    EXPECT_EQ(toText(std::map<std::string, int>{{"k", 1}}), "{ k: 1 }");
    EXPECT_EQ(toText(QString("q")), "q");
    EXPECT_EQ(toText(2.5), "2.5");
}

}  // namespace kest::utils::test
