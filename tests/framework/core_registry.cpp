// Tests of the framework's registry.
#include "ktn_support.h"

#include <qxapi.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>

namespace {

class Registry : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(root);
        setenv("QX_REGISTRY_ROOT", root.c_str(), 1);
    }
    void TearDown() override {
        unsetenv("QX_REGISTRY_ROOT");
        std::filesystem::remove_all(root);
    }
    void write(const char *pszName, const std::string &text) { std::ofstream(root + pszName) << text; }

    // Returns the value of a key, "(none)" if there is no registry or no such key. Also checks the length.
    std::string value(const char *pszKey) {
        ts_qx_registry *pRegistry = QX_OpenRegistry("/master", "/slave", 0x10000002);
        if (pRegistry == nullptr) {
            return "(none)";
        }
        int iLength = 77;
        const char *pszValue = pRegistry->pOperations->pLookup(pRegistry, pszKey, &iLength);
        std::string value = pszValue != nullptr ? pszValue : "(none)";
        EXPECT_EQ(iLength, static_cast<int>(pszValue != nullptr ? value.size() : 0)) << pszKey;
        QX_CloseRegistry(pRegistry);
        return value;
    }

    const std::string root = testing::TempDir() + "registry_test";
};

TEST_F(Registry, SlaveOverridesMasterAndGarbledLinesHarmNoOthers) {
    using namespace std::string_literals;
    write("/master", "# comment\n/A=master\n/B=kept\r\n  /C = with blanks \t\n#/D=commented\nno equal sign\n"
                     "=no key\n/N=a\0b\n\n/E=\n/F=a=b#c\n/G=first\n/G=last"s);
    write("/slave", "/A=slave\n/E2=\n");
    testing::internal::CaptureStderr();
    const std::pair<const char *, const char *> expected[] = {
        {"/A", "slave"}, {"/B", "kept"}, {"/C", "with blanks"}, {"/D", "(none)"}, {"/E", ""},
        {"/F", "a=b#c"}, {"/G", "last"}, {"/N", "(none)"},      {"", "(none)"},   {"/a", "(none)"}};
    for (const auto &[pszKey, pszValue] : expected) {
        EXPECT_EQ(value(pszKey), pszValue) << pszKey;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), // once: a lookup a second must not flood
              "QX_OpenRegistry: " + root + "/master:6 is no key=value line, passed over\nQX_OpenRegistry: " +
                  root + "/master:7 is no key=value line, passed over\nQX_OpenRegistry: " + root +
                  "/master:8 is no key=value line, passed over\n");
    ts_qx_registry *pSlave = QX_OpenRegistry(nullptr, "/slave", 0); // a host with one file
    ASSERT_NE(pSlave, nullptr);
    EXPECT_STREQ(pSlave->pOperations->pLookup(pSlave, "/A", nullptr), "slave");
    EXPECT_EQ(pSlave->pOperations->pLookup(pSlave, "/B", nullptr), nullptr);
    int iLength = 77;
    EXPECT_EQ(pSlave->pOperations->pLookup(pSlave, nullptr, &iLength), nullptr);
    EXPECT_EQ(pSlave->pOperations->pLookup(nullptr, "/A", nullptr), nullptr);
    EXPECT_EQ(iLength, 0);
    QX_CloseRegistry(pSlave);
    QX_CloseRegistry(nullptr);
}

TEST_F(Registry, FileThatCanNotBeReadIsLeftOutByName) {
    std::filesystem::create_directory(root + "/folder");
    mkfifo((root + "/fifo").c_str(), 0600);
    std::filesystem::create_symlink("link", root + "/link");
    write("/large", std::string(std::size_t{1024} * 1024, '#') + "\n");
    write("/full", std::string(std::size_t{1024} * 1024 - 5, '#') + "\n/A=b");
    testing::internal::CaptureStderr();
    const long lObjects = faults().lObjects;
    for (const char *pszName : {"/missing", "/folder", "/fifo", "/link", "/large"}) {
        EXPECT_EQ(QX_OpenRegistry(pszName, nullptr, 0), nullptr) << pszName;
    }
    failOnce("new", 0);
    EXPECT_EQ(QX_OpenRegistry("/full", "/full", 0), nullptr);
    EXPECT_EQ(faults().lObjects, lObjects);
    EXPECT_EQ(reported(root), "QX_OpenRegistry: $/folder is left out: Is a directory\n"
                              "QX_OpenRegistry: $/fifo is left out: Invalid argument\n"
                              "QX_OpenRegistry: $/link is left out: Too many levels of symbolic links\n"
                              "QX_OpenRegistry: $/large is left out: File too large\n"
                              "QX_OpenRegistry: no memory for the registry\n");
    ts_qx_registry *pFull = QX_OpenRegistry("/folder", "/full", 0);
    ASSERT_NE(pFull, nullptr);
    EXPECT_STREQ(pFull->pOperations->pLookup(pFull, "/A", nullptr), "b");
    QX_CloseRegistry(pFull);
}

} // namespace
