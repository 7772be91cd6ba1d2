#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <stdexcept>
#include <vector>

#include <kest/utils/basic_service_settings.h>

namespace kest::utils {
namespace {

class RecordingSettings : public BasicServiceSettings
{
public:
    RecordingSettings() : BasicServiceSettings("Org", "Acme", "widget") {}

    int loadSettingsCalls = 0;

protected:
    void loadSettings() override { ++loadSettingsCalls; }
    std::string additionalHelp() const override { return "  widget/size  the size\n"; }
};

void load(BasicServiceSettings& settings, std::vector<const char*> args)
{
    args.insert(args.begin(), "/usr/bin/widget");
    settings.load(static_cast<int>(args.size()), args.data());
}

class BasicServiceSettingsTest : public ::testing::Test
{
protected:
    QString writeFile(const char* content)
    {
        const QString path = m_dir.path() + "/widget.conf";
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
        return path;
    }

    QTemporaryDir m_dir;
    RecordingSettings m_settings;
};

TEST_F(BasicServiceSettingsTest, CommandLineOverridesFileWhateverTheOrder)
{
    const QString path = writeFile(
        "dataDir=/from/file\n"
        "[MongoDb]\n"
        "user=fileUser\n"
        "replicaSet=rs0\n");
    const QByteArray configArg = ("--configFile=" + path).toUtf8();
    load(m_settings, {"--MongoDb/user=cliUser", configArg.constData(), "--extra=1"});

    EXPECT_EQ(m_settings.settings().value("MongoDb/user").toString(), "cliUser");
    EXPECT_EQ(m_settings.settings().value("MongoDb/replicaSet").toString(), "rs0");
    EXPECT_EQ(m_settings.settings().value("extra").toString(), "1");
    EXPECT_EQ(m_settings.dataDir(), "/from/file");
    EXPECT_EQ(m_settings.loadSettingsCalls, 1);

    // Loading again starts from scratch.
    const QByteArray path8 = path.toUtf8();
    load(m_settings, {"-c", path8.constData()});
    EXPECT_EQ(m_settings.settings().value("MongoDb/user").toString(), "fileUser");
    EXPECT_TRUE(m_settings.settings().value("extra").isNull());
}

TEST_F(BasicServiceSettingsTest, FileValuesAreReadAsWrittenLikeTheCommandLine)
{
    const QString path = writeFile(
        "; a comment line\n"
        "# another one\n"
        "top = level value \n"
        "[General]\n"
        "general=g\n"
        "[MongoDb]\n"
        "instances=a:1;b:2 ; c:3\n"
        "password=p;ss,word#1\n"
        "quoted=\"h;1\":5\n"
        "empty=\n"
        "user=first\n"
        "user=last\r\n"
        "not a key line\n"
        "[http\\server]\n"
        "limits\\body=7\n");
    const QByteArray path8 = path.toUtf8();
    load(m_settings, {"-c", path8.constData()});
    const ZuSettings& store = m_settings.settings();

    EXPECT_EQ(store.value("top").toString(), "level value");
    EXPECT_EQ(store.value("general").toString(), "g");
    EXPECT_EQ(store.value("MongoDb/instances").toString(), "a:1;b:2 ; c:3");
    EXPECT_EQ(store.value("MongoDb/password").toString(), "p;ss,word#1");
    EXPECT_EQ(store.value("MongoDb/quoted").toString(), "\"h;1\":5");
    EXPECT_TRUE(store.contains("MongoDb/empty"));
    EXPECT_EQ(store.value("MongoDb/empty").toString(), "");
    EXPECT_EQ(store.value("MongoDb/user").toString(), "last");
    EXPECT_EQ(store.value("http/server/limits/body").toString(), "7");
    EXPECT_EQ(store.allKeys().size(), 8);
}

TEST_F(BasicServiceSettingsTest, OverrideValueMayContainEqualsAndBeEmpty)
{
    load(m_settings, {"--MongoDb/uri=mongodb://h/?a=b", "--dataDir="});
    EXPECT_EQ(m_settings.settings().value("MongoDb/uri").toString(), "mongodb://h/?a=b");
    EXPECT_TRUE(m_settings.settings().contains("dataDir"));
    EXPECT_EQ(m_settings.dataDir(), "/opt/acme/widget/var");
}

TEST_F(BasicServiceSettingsTest, HelpSkipsLoading)
{
    load(m_settings, {"-c", "/no/such/file.conf", "--help"});
    EXPECT_TRUE(m_settings.isShowHelpRequested());
    EXPECT_EQ(m_settings.loadSettingsCalls, 0);

    const std::string help = m_settings.cmdLineArgsHelp();
    EXPECT_NE(help.find("Usage: widget"), std::string::npos);
    EXPECT_NE(help.find("--configFile=FILE"), std::string::npos);
    EXPECT_NE(help.find("widget/size"), std::string::npos);

    load(m_settings, {"-h"});
    EXPECT_TRUE(m_settings.isShowHelpRequested());
    load(m_settings, {});
    EXPECT_FALSE(m_settings.isShowHelpRequested());
}

TEST_F(BasicServiceSettingsTest, BadCommandLinesThrow)
{
    EXPECT_THROW(load(m_settings, {"-c", "/no/such/file.conf"}), std::runtime_error);
    EXPECT_THROW(load(m_settings, {"-c"}), std::runtime_error);
    EXPECT_THROW(load(m_settings, {"stray"}), std::runtime_error);
    EXPECT_THROW(load(m_settings, {"--novalue"}), std::runtime_error);
    EXPECT_THROW(load(m_settings, {"--=x"}), std::runtime_error);
    EXPECT_EQ(m_settings.loadSettingsCalls, 0);

    try {
        load(m_settings, {"--configFile=/no/such/file.conf"});
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("/no/such/file.conf"), std::string::npos);
    }
}

TEST_F(BasicServiceSettingsTest, DataDirFallsBackToVarDir)
{
    load(m_settings, {"--varDir=/var/w"});
    EXPECT_EQ(m_settings.dataDir(), "/var/w");
    load(m_settings, {"--varDir=/var/w", "--dataDir=/data/w"});
    EXPECT_EQ(m_settings.dataDir(), "/data/w");
}

TEST_F(BasicServiceSettingsTest, LoggingReadsLogGroup)
{
    load(m_settings, {"--log/level=debug", "--log/file=/tmp/x.log"});
    const auto logging = m_settings.logging();
    ASSERT_EQ(logging.loggers.size(), 1u);
    EXPECT_EQ(logging.loggers[0].level, log::Level::debug);
    EXPECT_EQ(logging.loggers[0].file, "/tmp/x.log");
}

}  // namespace
}  // namespace kest::utils
