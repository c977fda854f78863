// Tests of the framework's registry.
#include <qxapi.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

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
    const std::string printed = testing::internal::GetCapturedStderr();
    for (const char *pszLine : {"master:6 ", "master:7 ", "master:8 "}) {
        const std::size_t ulFirst = printed.find(pszLine);
        EXPECT_NE(ulFirst, std::string::npos) << pszLine;
        EXPECT_EQ(printed.find(pszLine, ulFirst + 1), std::string::npos)
            << "a lookup a second must not flood";
    }
    ts_qx_registry *pSlave = QX_OpenRegistry(nullptr, "/slave", 0); // a host with one file
    ASSERT_NE(pSlave, nullptr);
    EXPECT_STREQ(pSlave->pOperations->pLookup(pSlave, "/A", nullptr), "slave");
    EXPECT_EQ(pSlave->pOperations->pLookup(pSlave, "/B", nullptr), nullptr);
    QX_CloseRegistry(pSlave);
    EXPECT_EQ(QX_OpenRegistry("/missing", nullptr, 0), nullptr);
}

} // namespace
