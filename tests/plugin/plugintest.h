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
struct Captured {
    explicit Captured(FILE *pOf) : pStream(pOf) {
        fflush(pStream);
        dup2(iFile, fileno(pStream));
    }
    ~Captured() {
        const std::string all = text();
        dup2(iSaved, fileno(pStream));
        close(iSaved);
        close(iFile);
        if (testing::Test::HasFailure()) { // the failure's own text lies in what was captured
            fputs(all.c_str(), pStream);
            fflush(pStream);
        }
    }
    Captured(const Captured &) = delete;
    Captured &operator=(const Captured &) = delete;

    std::string text() const {
        fflush(pStream);
        std::string all(static_cast<size_t>(lseek(iFile, 0, SEEK_END)), '\0');
        return pread(iFile, all.data(), all.size(), 0) == static_cast<ssize_t>(all.size()) ? all : "?";
    }
    FILE *const pStream;
    const int iFile = memfd_create("captured", 0), iSaved = dup(fileno(pStream));
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
        EXPECT_EQ(script::held(), 0);
        EXPECT_THAT(script::seen().faults, IsEmpty());
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
        EXPECT_TRUE(
            script::eventually([this] { return block.iThreadCount == 1 && block.eState != ENGINE_STOPPED; }));
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
    void finish() {
        engineMove(&block, ENGINE_RUNNING, ENGINE_FINISH);
        EXPECT_TRUE(becomes(ENGINE_IDLE));
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

// Second by second; after each, every thread does what it has to.
inline void runTo(unsigned long ulSeconds) {
    EXPECT_TRUE(script::settle(4));
    while (script::now() < script::START + ulSeconds) {
        script::advance(1);
        EXPECT_TRUE(script::settle(10));
    }
}

// "TIME COMMAND EPGID" of each announcement until then, times from START.
constexpr const char *ANNOUNCEMENTS = "tx 224.9.9.9:7890";
inline std::vector<std::string> announced(unsigned long ulSeconds = 0) {
    runTo(ulSeconds);
    std::vector<std::string> texts;
    for (const script::Frame &frame : script::frames(ANNOUNCEMENTS)) {
        EXPECT_EQ(frame.header.uiParam, static_cast<unsigned int>(frame.ulTime));
        EXPECT_EQ(frame.header.ulReserved, 0u); // the library's marks of the time before are wiped
        EXPECT_EQ(frame.header.uiStatus, 0u);
        texts.push_back(std::to_string(frame.ulTime - script::START) +
                        (frame.header.uiCommand == 0x40030   ? " on air "
                         : frame.header.uiCommand == 0x40033 ? " end "
                                                             : " ? ") +
                        std::to_string(frame.payload.at(12)));
    }
    return texts;
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
