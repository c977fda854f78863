// plugintest.h - what the plug-in's tests share: the fixture with captured output, a thread body under
// control, records and item packets in short.
#ifndef PLUGINTEST_H
#define PLUGINTEST_H

#include "scripted.h"

#include "castlistmgr.h"
#include "engines.h"
#include "msglistmgr.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <regex>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

using script::Bytes;
using script::Step;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Takes over a standard stream until it ends; what was written can be read at any moment.
class Captured {
public:
    explicit Captured(FILE *pStream) : m_pStream(pStream), m_iFile(memfd_create("captured", 0)) {
        fflush(m_pStream);
        m_iSaved = dup(fileno(m_pStream));
        dup2(m_iFile, fileno(m_pStream));
    }
    ~Captured() {
        const std::string all = text();
        dup2(m_iSaved, fileno(m_pStream));
        close(m_iSaved);
        close(m_iFile);
        if (testing::Test::HasFailure()) { // the failure's own text lies in what was captured
            fputs(all.c_str(), m_pStream);
            fflush(m_pStream);
        }
    }
    Captured(const Captured &) = delete;
    Captured &operator=(const Captured &) = delete;

    std::string text() const {
        fflush(m_pStream);
        std::string all(static_cast<size_t>(lseek(m_iFile, 0, SEEK_END)), '\0');
        return pread(m_iFile, all.data(), all.size(), 0) == static_cast<ssize_t>(all.size()) ? all : "?";
    }

private:
    FILE *m_pStream;
    int m_iFile, m_iSaved;
};

// The lines' numbers change with the source: "[pccastmain:123]" and "name():123" read as "#".
inline std::string withoutLines(const std::string &text) {
    static const std::regex number(R"((\[\w+:|\(\):)\d+)");
    return std::regex_replace(text, number, "$1#");
}

inline size_t count(const std::string &text, const std::string &part) {
    size_t ulCount = 0;
    for (size_t ul = text.find(part); ul != std::string::npos; ul = text.find(part, ul + part.size())) {
        ++ulCount;
    }
    return ulCount;
}

inline std::string joined(const std::vector<std::string> &texts) {
    std::string all;
    for (const std::string &text : texts) {
        all += text + "\n";
    }
    return all;
}

// The result of the call while its n-th allocation is refused.
template <typename Call>
int withoutAllocation(long lNth, Call call) {
    script::failAllocation(lNth);
    const int iResult = call();
    script::failAllocation(0);
    return iResult;
}

class PluginTest : public testing::Test {
protected:
    PluginTest() {
        setenv("TZ", "UTC", 1);
        tzset();
        script::reset();
        m_lBlocks = script::liveBlocks();
    }
    // Whatever a test did, nothing of it may be left.
    ~PluginTest() override {
        EXPECT_TRUE(script::threadsEnd());
        EXPECT_EQ(script::liveEndpoints(), 0);
        EXPECT_EQ(script::livePayloads(), 0);
        EXPECT_EQ(script::liveRegistries(), 0);
        EXPECT_EQ(script::lentPackets(), 0);
        EXPECT_EQ(script::liveBlocks(), m_lBlocks) << "blocks leaked";
    }
    std::string out() const { return withoutLines(m_out.text()); }
    std::string err() const { return m_err.text(); }

private:
    long m_lBlocks;
    Captured m_out{stdout}, m_err{stderr};
};

// A thread body on a block of its own; the test is its controller. The end stops it and waits.
struct Engine {
    KTPLUGIN_INFO_TAG block{};
    explicit Engine(int (*pBody)(KTPLUGIN_INFO_TAG *), void *pWork = nullptr, long lFailAllocation = 0) {
        block.eState = ENGINE_STOPPED;
        block.pWork = pWork;
        script::startThread([this, pBody] { pBody(&block); }, lFailAllocation);
        EXPECT_TRUE(script::eventually([this] { return block.iThreadCount == 1; }));
    }
    ~Engine() { stop(); }
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    void stop() {
        engineRequestStop(&block);
        EXPECT_TRUE(script::threadsEnd());
    }
    // Hands a cast over as the supervisor does, and waits for the answer.
    void handOver(CASTInfo *pInfo) {
        EXPECT_TRUE(script::eventually([this] { return block.pWork == nullptr && block.eState == 0; }));
        block.pWork = pInfo;
        EXPECT_TRUE(script::eventually([this] { return block.pWork == nullptr; }));
    }
    bool becomes(int iState) const {
        return script::eventually([this, iState] { return block.eState == iState; });
    }
};

// Whether the header holds these words and lengths, and 0 in all its other bytes.
inline bool isHeader(const script::Frame &frame, unsigned int uiIdent, unsigned int uiService,
                     unsigned long ulCommand, unsigned long ulParam) {
    KTNET_PACKET expected{};
    expected.uiIdent = uiIdent;
    expected.uiService = uiService;
    expected.uiCommand = static_cast<unsigned int>(ulCommand);
    expected.uiParam = static_cast<unsigned int>(ulParam);
    expected.ulPayloadLen = expected.ulPayloadSize = frame.payload.size();
    return memcmp(&frame.header, &expected, sizeof expected) == 0;
}

struct CastFields {
    unsigned long ulCMD = CAST_CMD_START, ulType = CAST_TYPE_STREAM, ulEPGID = 1, ulCT = 100;
    unsigned long ulST = script::START, ulET = script::START + 100, ulFormat = CAST_FORMAT_TS;
    const char *pszSource = "224.1.1.1", *pszTarget = "224.2.2.2", *pszFile = "/a.ts";
    unsigned short usSourcePort = 9100, usTargetPort = 5000;
    int iEncryption = 0, iSplit = 0;
    Bytes key{};
};

// A record of the plug-in's; the caller owns it.
inline CASTInfo *cast(const CastFields &fields) {
    CASTInfo *pInfo = nullptr;
    if (MAKECASTInfo(&pInfo, fields.pszSource, fields.pszTarget, fields.pszFile, fields.ulType) != 1) {
        return nullptr;
    }
    pInfo->ulCMD = fields.ulCMD;
    pInfo->uliEPGID = fields.ulEPGID;
    pInfo->ulCT = fields.ulCT;
    pInfo->ulST = fields.ulST;
    pInfo->ulET = fields.ulET;
    pInfo->ulSTREAMFormat = fields.ulFormat;
    pInfo->usSRCPort = fields.usSourcePort;
    pInfo->usDSTPort = fields.usTargetPort;
    pInfo->iEncryptionType = fields.iEncryption;
    pInfo->iASFSplit = fields.iSplit;
    pInfo->iEncryptionKeyLen = static_cast<int>(fields.key.size());
    if (!fields.key.empty()) {
        pInfo->pEncryptionKey = static_cast<unsigned char *>(malloc(fields.key.size()));
        memcpy(pInfo->pEncryptionKey, fields.key.data(), fields.key.size());
    }
    return pInfo;
}

// Bytes written as hexadecimal digits, blanks and texts in single quotes: "0B 00 09 00 '224.2.2.2'".
inline Bytes bytes(const std::string &text) {
    Bytes result;
    for (size_t ul = 0; ul < text.size();) {
        if (text[ul] == '\'') {
            for (++ul; text[ul] != '\''; ++ul) {
                result.push_back(static_cast<unsigned char>(text[ul]));
            }
            ++ul;
        } else if (text[ul] == ' ') {
            ++ul;
        } else {
            result.push_back(static_cast<unsigned char>(std::stoi(text.substr(ul, 2), nullptr, 16)));
            ul += 2;
        }
    }
    return result;
}

#endif
