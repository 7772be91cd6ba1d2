#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>
#include <stdexcept>
#include <vector>

#include <kest/cloud/storage/settings.h>

namespace kest::cloud::storage::metadatadb::conf {
namespace {

void load(Settings& settings, std::vector<const char*> args)
{
    args.insert(args.begin(), "metadata_storage");
    settings.load(static_cast<int>(args.size()), args.data());
}

TEST(SettingsTest, DataDirRules)
{
    Settings settings;
    load(settings, {});
    EXPECT_EQ(settings.dataDir(), "/opt/kest/metadata_storage/var");
    EXPECT_EQ(settings.analyticsDb().path, "/opt/kest/metadata_storage/var/analytics_db");

    load(settings, {"--dataDir="});
    EXPECT_EQ(settings.dataDir(), "/opt/kest/metadata_storage/var");

    load(settings, {"--varDir=/v"});
    EXPECT_EQ(settings.dataDir(), "/v");

    load(settings, {"--varDir=/v", "--dataDir=/d", "--analyticsDb/path=/elsewhere"});
    EXPECT_EQ(settings.dataDir(), "/d");
    EXPECT_EQ(settings.analyticsDb().path, "/elsewhere");
}

TEST(SettingsTest, LoadsEveryGroup)
{
    Settings settings;
    load(settings, {"--log/level=verbose", "--http/listenOn=127.0.0.1:0",
                    "--MongoDb/instances=h:27017", "--MongoDb/maxPoolSize=7"});
    ASSERT_EQ(settings.logging().loggers.size(), 1u);
    EXPECT_EQ(settings.logging().loggers[0].level, kest::utils::log::Level::verbose);
    ASSERT_EQ(settings.httpServer().endpoints.size(), 1u);
    EXPECT_EQ(settings.httpServer().endpoints[0].port, 0);
    EXPECT_EQ(settings.ddsConnection().instances.size(), 1u);
    EXPECT_EQ(settings.ddsConnection().maxPoolSize, 7u);
}

TEST(SettingsTest, ServeDocsIsAFlagThatDefaultsToOn)
{
    Settings settings;
    load(settings, {});
    EXPECT_TRUE(settings.serveDocs());
    load(settings, {"--http/serveDocs=Off"});
    EXPECT_FALSE(settings.serveDocs());
    load(settings, {"--http/serveDocs=1"});
    EXPECT_TRUE(settings.serveDocs());
    EXPECT_THROW(load(settings, {"--http/serveDocs=sometimes"}), std::invalid_argument);
}

TEST(SettingsTest, BadInstancesStopLoading)
{
    Settings settings;
    EXPECT_THROW(load(settings, {"--MongoDb/instances=justahost"}), std::invalid_argument);

    // The settings file reads a ";" as the command line does, so its second entry is seen too.
    QTemporaryDir dir;
    const QString path = dir.path() + "/metadata_storage.conf";
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("[MongoDb]\ninstances=127.0.0.1:1;justahost\n");
    file.close();
    const QByteArray path8 = path.toUtf8();
    EXPECT_THROW(load(settings, {"-c", path8.constData()}), std::invalid_argument);

    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    file.write("[MongoDb]\ninstances=a:1;b:2\npassword=p;ss\n");
    file.close();
    load(settings, {"-c", path8.constData()});
    EXPECT_EQ(settings.ddsConnection().instances,
              (std::vector<std::pair<std::string, std::uint32_t>>{{"a", 1}, {"b", 2}}));
    EXPECT_EQ(settings.ddsConnection().password, "p;ss");
}

TEST(SettingsTest, ClusterIsOffUnlessAnUrlIsAdvertised)
{
    Settings settings;
    load(settings, {});
    EXPECT_FALSE(settings.cluster().enabled());
    EXPECT_EQ(settings.cluster().dataAddressFlushInterval,
              ClusterSettings::kDefaultDataAddressFlushInterval);
    EXPECT_EQ(settings.cluster().peerTimeout, std::chrono::milliseconds(5000));

    load(settings, {"--cluster/advertisedUrl= http://10.0.0.5:8080 ",
                    "--cluster/dataAddressFlushIntervalMs=1", "--cluster/loadPublishIntervalMs=x",
                    "--cluster/peerTimeoutMs=-5", "--cluster/nominalPacketsPerSecond=0"});
    const ClusterSettings& cluster = settings.cluster();
    EXPECT_TRUE(cluster.enabled());
    EXPECT_EQ(cluster.advertisedUrl, "http://10.0.0.5:8080");
    EXPECT_EQ(cluster.dataAddressFlushInterval, ClusterSettings::kMinInterval);
    EXPECT_EQ(cluster.loadPublishInterval, ClusterSettings::kDefaultLoadPublishInterval);
    EXPECT_EQ(cluster.peerTimeout, ClusterSettings::kDefaultPeerTimeout);
    EXPECT_EQ(cluster.nominalPacketsPerSecond, ClusterSettings::kDefaultNominalPacketsPerSecond);

    // Peers could not reach a node stored as anything but an HTTP URL: refuse to start.
    EXPECT_THROW(load(settings, {"--cluster/advertisedUrl=10.0.0.5:8080"}), std::invalid_argument);
    EXPECT_THROW(load(settings, {"--cluster/advertisedUrl=ftp://h/"}), std::invalid_argument);
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::conf
