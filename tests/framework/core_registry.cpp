// The registry of the stand-in framework.
#include <qxapi.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

namespace {

class Registry : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(Root + "/reg0");
        setenv("QX_REGISTRY_ROOT", Root.c_str(), 1);
    }
    void TearDown() override {
        unsetenv("QX_REGISTRY_ROOT");
        std::filesystem::remove_all(Root);
    }
    void write(const char *pszName, const std::string &Text) {
        std::ofstream(Root + pszName, std::ios::binary) << Text;
    }

    // The value of a key; nothing when the registry or the key is absent. Checks the length on the way.
    std::optional<std::string> value(const char *pszKey) {
        ts_qx_registry *pRegistry = QX_OpenRegistry("/reg0/master.reg", "/slave.reg", 0x10000002);
        if (pRegistry == nullptr)
            return std::nullopt;
        int iLength = 77;
        const char *pszValue = pRegistry->pOperations->pLookup(pRegistry, pszKey, &iLength);
        std::optional<std::string> Value;
        if (pszValue != nullptr)
            Value = pszValue;
        EXPECT_EQ(iLength, static_cast<int>(Value.value_or("").size())) << pszKey;
        QX_CloseRegistry(pRegistry);
        return Value;
    }

    const std::string Root = testing::TempDir() + "registry_test";
};

TEST_F(Registry, SlaveOverridesMasterAndGarbledLinesHarmNoOthers) {
    write("/reg0/master.reg", std::string("# comment\n"
                                          "/A=master\n"
                                          "/B=kept\r\n"
                                          "  /C = with blanks \t\n"
                                          "#/D=commented\n"
                                          "no equal sign\n"
                                          "=no key\n"
                                          "/N=a") +
                                  '\0' +
                                  "b\n"
                                  "\n"
                                  "/E=\n"
                                  "/F=a=b#c\n"
                                  "/G=first\n/G=last");
    write("/slave.reg", "/A=slave\n/E2=\n");
    testing::internal::CaptureStderr();
    const std::pair<const char *, std::optional<std::string>> Expected[] = {
        {"/A", "slave"}, {"/B", "kept"}, {"/C", "with blanks"}, {"/D", std::nullopt}, {"/E", ""},
        {"/F", "a=b#c"}, {"/G", "last"}, {"/N", std::nullopt},  {"", std::nullopt},   {"/a", std::nullopt}};
    for (const auto &[pszKey, Value] : Expected)
        EXPECT_EQ(value(pszKey), Value) << pszKey;
    const std::string Printed = testing::internal::GetCapturedStderr();
    for (const char *pszLine : {"master.reg:6 ", "master.reg:7 ", "master.reg:8 "}) {
        const size_t ulFirst = Printed.find(pszLine);
        EXPECT_NE(ulFirst, std::string::npos) << pszLine;
        EXPECT_EQ(Printed.find(pszLine, ulFirst + 1), std::string::npos)
            << "a lookup a second must not flood";
    }
}

TEST_F(Registry, MissingOrUnreadableFilesLeaveTheOther) {
    EXPECT_EQ(value("/A"), std::nullopt);
    EXPECT_EQ(QX_OpenRegistry("/reg0/master.reg", "/slave.reg", 0x10000002), nullptr);
    EXPECT_EQ(QX_OpenRegistry(nullptr, nullptr, 0), nullptr);
    write("/slave.reg", "/A=slave\n");
    EXPECT_EQ(value("/A"), "slave");
    std::filesystem::remove(Root + "/slave.reg");
    std::filesystem::create_directory(Root + "/slave.reg");
    write("/reg0/master.reg", "/A=master\n");
    EXPECT_EQ(value("/A"), "master");
}

TEST_F(Registry, MissingOutputsAndHandlesAreTolerated) {
    write("/slave.reg", "/A=slave\n");
    ts_qx_registry *pRegistry = QX_OpenRegistry(nullptr, "/slave.reg", 0x10000002);
    ASSERT_NE(pRegistry, nullptr);
    EXPECT_STREQ(pRegistry->pOperations->pLookup(pRegistry, "/A", nullptr), "slave");
    EXPECT_EQ(pRegistry->pOperations->pLookup(pRegistry, nullptr, nullptr), nullptr);
    QX_CloseRegistry(pRegistry);
    QX_CloseRegistry(nullptr);
}

} // namespace
