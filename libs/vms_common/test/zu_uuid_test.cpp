#include <gtest/gtest.h>

#include <kest/vms_common/zu_uuid.h>

#include <unordered_set>

TEST(ZuUuid, TextFormsAndLenientParsing)
{
    const ZuUuid id("{6ba7b810-9dad-11d1-80b4-00c04fd430c8}");
    EXPECT_FALSE(id.isNull());
    EXPECT_EQ(id.toStdString(), "{6ba7b810-9dad-11d1-80b4-00c04fd430c8}");
    EXPECT_EQ(id.toSimpleStdString(), "6ba7b810-9dad-11d1-80b4-00c04fd430c8");
    EXPECT_EQ(ZuUuid("6BA7B810-9DAD-11D1-80B4-00C04FD430C8"), id);
    EXPECT_TRUE(ZuUuid("not-a-uuid").isNull());
    EXPECT_TRUE(ZuUuid("").isNull());
}

TEST(ZuUuid, StrictParsingRejectsWhatLenientTurnsToNull)
{
    ZuUuid out = ZuUuid::createUuid();
    EXPECT_FALSE(ZuUuid::parse("xyz", &out));
    EXPECT_FALSE(out.isNull());
    EXPECT_TRUE(ZuUuid::parse("{00000000-0000-0000-0000-000000000000}", &out));
    EXPECT_TRUE(out.isNull());
}

TEST(ZuUuid, HashAndOrder)
{
    const auto a = ZuUuid::createUuid();
    const auto b = ZuUuid::createUuid();
    std::unordered_set<ZuUuid> set{a, b, ZuUuid(a.toSimpleStdString())};
    EXPECT_EQ(set.size(), 2u);
    EXPECT_NE(a < b, b < a);
}
