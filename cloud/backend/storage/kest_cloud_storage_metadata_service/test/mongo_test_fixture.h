#pragma once

#include <gtest/gtest.h>

#include <QUuid>
#include <cstdlib>
#include <string>

/** Tests against a live MongoDB, given by KEST_TEST_MONGODB_URI; skipped without it. */
class MongoTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const char* uri = std::getenv("KEST_TEST_MONGODB_URI");
        if (!uri || !*uri)
            GTEST_SKIP() << "KEST_TEST_MONGODB_URI is not set";
        m_uri = uri;
    }

    /** The stand-in is shared by parallel tests: every test works on names of its own. */
    static std::string uniqueName(const std::string& prefix)
    {
        return prefix + "-" + QUuid::createUuid().toString(QUuid::WithoutBraces).toStdString();
    }

    std::string m_uri;
};
