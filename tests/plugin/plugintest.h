// plugintest.h - what the plug-in's tests share: the fixture that captures the output, an engine that the
// test controls, short ways to write records and bytes.
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

// Captures a standard stream as long as it lives. The text can be read at any moment.
struct Captured {
    explicit Captured(FILE *pOf) : pStream(pOf) {
        std::fflush(pStream);
        dup2(iFile, fileno(pStream));
    }
    ~Captured() {
        const std::string all = text();
        dup2(iSaved, fileno(pStream));
        close(iSaved);
        close(iFile);
        if (testing::Test::HasFailure()) { // the words of the failure were captured too
            std::fputs(all.c_str(), pStream);
            std::fflush(pStream);
        }
    }
    Captured(const Captured &) = delete;
    Captured &operator=(const Captured &) = delete;

    std::string text() const {
        std::fflush(pStream);
        std::string all(static_cast<size_t>(lseek(iFile, 0, SEEK_END)), '\0');
        return pread(iFile, all.data(), all.size(), 0) == static_cast<ssize_t>(all.size()) ? all : "?";
    }
    FILE *const pStream;
    const int iFile = memfd_create("captured", 0), iSaved = dup(fileno(pStream));
};

// Puts "#" for the source's line numbers, as in "[pccastmain:123]" and "name():123".
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

// Refuses the n-th allocation of the call. Returns its result.
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
        lBlocks = script::liveBlocks();
    }
    // Whatever a test did, nothing of it may be left.
    ~PluginTest() override {
        EXPECT_TRUE(script::threadsEnd());
        EXPECT_EQ(script::liveEndpoints(), 0);
        EXPECT_EQ(script::held(), 0);
        EXPECT_THAT(script::seen().faults, IsEmpty());
        EXPECT_EQ(script::liveBlocks(), lBlocks) << "blocks leaked";
    }
    std::string out() const { return withoutLines(captured.text()); }
    std::string err() const { return capturedErrors.text(); }

private:
    long lBlocks;
    Captured captured{stdout}, capturedErrors{stderr};
};

// Runs a thread body on a block of its own, with the test as its controller. The destructor stops it and
// waits.
struct Engine {
    KTPLUGIN_INFO_TAG block{};
    explicit Engine(int (*pBody)(KTPLUGIN_INFO_TAG *), void *pWork = nullptr, long lFailAllocation = 0) {
        block.eState = ENGINE_STOPPED;
        block.pWork = pWork;
        script::startThread([this, pBody] { EXPECT_EQ(pBody(&block), 0); }, lFailAllocation);
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

// Returns whether the header holds these words and lengths, and 0 in all other bytes.
inline bool isHeader(const script::Frame &frame, unsigned int uiIdent, unsigned int uiService,
                     unsigned long ulCommand, unsigned long ulParam) {
    KTNET_PACKET expected{};
    expected.uiIdent = uiIdent;
    expected.uiService = uiService;
    expected.uiCommand = static_cast<unsigned int>(ulCommand);
    expected.uiParam = static_cast<unsigned int>(ulParam);
    expected.ulPayloadLen = expected.ulPayloadSize = frame.payload.size();
    return std::memcmp(&frame.header, &expected, sizeof expected) == 0;
}

// Moves the clock second by second. After each second every thread does what is due.
inline void runTo(unsigned long ulSeconds) {
    EXPECT_TRUE(script::settle(4));
    while (script::now() < script::kStart + ulSeconds) {
        script::advance(1);
        EXPECT_TRUE(script::settle(10));
    }
}

// Runs until then. Returns "TIME COMMAND EPGID" of each announcement, with times from kStart.
constexpr const char *kAnnouncements = "tx 224.9.9.9:7890";
inline std::vector<std::string> announced(unsigned long ulSeconds = 0) {
    runTo(ulSeconds);
    std::vector<std::string> texts;
    for (const script::Frame &frame : script::frames(kAnnouncements)) {
        EXPECT_EQ(frame.header.uiParam, static_cast<unsigned int>(frame.ulTime));
        EXPECT_EQ(frame.header.ulReserved, 0u); // the library's marks of the time before are wiped
        EXPECT_EQ(frame.header.uiStatus, 0u);
        texts.push_back(std::to_string(frame.ulTime - script::kStart) +
                        (frame.header.uiCommand == 0x40030   ? " on air "
                         : frame.header.uiCommand == 0x40033 ? " end "
                                                             : " ? ") +
                        std::to_string(frame.payload.at(12)));
    }
    return texts;
}

struct CastFields {
    unsigned long ulCMD = CAST_CMD_START, ulType = CAST_TYPE_STREAM, ulEPGID = 1, ulCT = 100;
    unsigned long ulST = script::kStart, ulET = script::kStart + 100, ulFormat = CAST_FORMAT_TS;
    const char *pszSource = "224.1.1.1", *pszTarget = "224.2.2.2", *pszFile = "/a.ts";
    unsigned short usSourcePort = 9100, usTargetPort = 5000;
    int iEncryption = 0, iSplit = 0;
    Bytes key{};
};

// Makes a record, which the caller owns.
inline CASTInfo *cast(const CastFields &of) {
    const auto copy = [](const char *pszText) { return pszText == nullptr ? nullptr : strdup(pszText); };
    const bool bFile = of.ulType == CAST_TYPE_FILE;
    auto *pInfo = static_cast<CASTInfo *>(std::calloc(1, sizeof(CASTInfo)));
    *pInfo = {of.ulCMD,
              of.ulEPGID,
              of.ulCT,
              of.ulType,
              of.ulFormat,
              of.ulST,
              of.ulET,
              copy(bFile ? nullptr : of.pszSource),
              copy(of.pszTarget),
              of.usSourcePort,
              of.usTargetPort,
              copy(bFile ? of.pszFile : nullptr),
              0,
              of.iEncryption,
              static_cast<int>(of.key.size()),
              nullptr,
              of.iSplit};
    if (!of.key.empty()) {
        pInfo->pEncryptionKey = static_cast<unsigned char *>(std::malloc(of.key.size()));
        std::memcpy(pInfo->pEncryptionKey, of.key.data(), of.key.size());
    }
    return pInfo;
}

// Every field: "CMD TYPE EPGID CT ST ET SOURCE:PORT TARGET:PORT FILE FORMAT MSID ENCRYPTION/KEYLENGTH KEY
// SPLIT".
inline std::string shown(const CASTInfo &info) {
    const auto orDash = [](const char *pszText) { return pszText == nullptr ? "-" : pszText; };
    char szText[512];
    std::snprintf(szText, sizeof szText, "%lu %lu %lu %lu %lu %lu %s:%d %s:%d %s %lx %lu %d/%d", info.ulCMD,
                  info.ulCASTType, info.uliEPGID, info.ulCT, info.ulST, info.ulET, orDash(info.pSRCIP),
                  info.usSRCPort, orDash(info.pDSTIP), info.usDSTPort, orDash(info.pCASTFile),
                  info.ulSTREAMFormat, info.ulMSID, info.iEncryptionType, info.iEncryptionKeyLen);
    std::string text = szText;
    for (int i = 0; info.pEncryptionKey != nullptr && i < info.iEncryptionKeyLen; ++i) {
        text += " " + std::to_string(info.pEncryptionKey[i]);
    }
    return text + (info.iASFSplit == 0 ? "" : " split " + std::to_string(info.iASFSplit));
}

// The two lists that an engine takes in pWork. The threads must end before the lists go.
template <typename List, int (*kCreate)(List *), int (*kDestroy)(List *)>
struct TwoLists {
    TwoLists() {
        kCreate(&lists[0]);
        kCreate(&lists[1]);
    }
    ~TwoLists() {
        EXPECT_TRUE(script::threadsEnd());
        kDestroy(&lists[0]);
        kDestroy(&lists[1]);
    }

    List lists[2]{}, *work[2] = {&lists[0], &lists[1]};
};
using TwoMessageLists = TwoLists<MSGList, CREATEMSGList, DESTROYMSGList>;
using TwoCastLists = TwoLists<CASTList, CREATECASTList, DESTROYCASTList>;

// Reads hexadecimal digits, blanks and texts in single quotes: "0B 00 09 00 '224.2.2.2'".
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
