// A service that is killed at any moment forgets nothing that it has confirmed, and revives nothing that was
// stopped.
//
//   kills PROGRAM FOLDER [KILLS [SEED]]
//
// Runs PROGRAM serve --state FOLDER, submits requests, stops and cancels, kills it after a random time,
// starts it anew, and compares what lives with what was confirmed.
#include "viewclient.h"
#include "viewjson.h"

#include <pccast/pccast.h>

#include <sqlite3.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <map>
#include <random>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kOperations = 600; // in all lives together, most

// SENT and ASKED: nothing has been confirmed, so either outcome is right.
enum Knowledge { SENT, LIVES, ASKED, GONE };

struct Known {
    Knowledge eKnowledge = SENT;
    CASTInfo cast{};
    MSGInfo message{};
    bool bCast = true;
};

char gSource[] = "239.77.0.1", gGroup[] = "239.77.0.2", gText[] = "a message";
std::map<std::string, Known> gKnown; // by identity
unsigned long gConfirmed = 0;
unsigned long gStopped = 0;

[[noreturn]] void fail(const std::string &sWhat) {
    std::fprintf(stderr, "FAILED: %s\n", sWhat.c_str());
    std::exit(1);
}

pid_t startService(const char *pszProgram, const char *pszFolder) {
    const pid_t iService = fork();
    if (iService == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // when the test fails
        if (std::freopen("service.log", "a", stdout) == nullptr) {
            _exit(127);
        }
        execl(pszProgram, pszProgram, "serve", "--state", pszFolder, static_cast<char *>(nullptr));
        _exit(127);
    }
    return iService;
}

// Waits until everything is restored. Returns the view.
Json awaitRestored() {
    const auto end = Clock::now() + 60s;
    Json view;
    std::string sProblem;
    while (Clock::now() < end) {
        if (getView(&view, &sProblem) == VIEW_ANSWERED && view.contains("state") &&
            !view["state"].contains("restoring")) {
            if (!view["state"].value("ok", false)) {
                fail("the state is not kept: " + view["state"].dump());
            }
            return view;
        }
        std::this_thread::sleep_for(5ms);
    }
    fail("the service did not restore its requests: " + sProblem);
}

// Compares what lives with what is known, and learns the rest.
void compare(const Json &view) {
    std::map<std::string, int> living;
    for (const Json &request : view["requests"]) {
        if (request["kind"] != "stop" && request["kind"] != "cancel" && request["place"] != "over") {
            ++living[request["identity"].get<std::string>()];
        }
    }
    for (auto &[sIdentity, known] : gKnown) {
        const int iCount = living[sIdentity];
        if (iCount > 1) {
            fail("has come back twice: " + sIdentity);
        }
        if (known.eKnowledge == LIVES && iCount == 0) {
            fail("was confirmed, and is lost: " + sIdentity);
        }
        if (known.eKnowledge == GONE && iCount == 1) {
            fail("was stopped, and has come back: " + sIdentity);
        }
        known.eKnowledge = iCount == 1 ? LIVES : GONE;
    }
}

void checkFile(const std::string &sPath) {
    sqlite3 *pHandle = nullptr;
    std::string sAnswer;
    const auto take = [](void *pText, int, char **ppValues, char **) {
        *static_cast<std::string *>(pText) = ppValues[0];
        return 0;
    };
    if (sqlite3_open_v2(sPath.c_str(), &pHandle, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK ||
        sqlite3_exec(pHandle, "PRAGMA integrity_check", take, &sAnswer, nullptr) != SQLITE_OK ||
        sAnswer != "ok") {
        fail("the file is not sound: " + sAnswer + sqlite3_errmsg(pHandle));
    }
    sqlite3_close(pHandle);
}

// Takes note of what the service has confirmed. Returns false when it is dead.
bool learn(unsigned long *pulLast, unsigned int uiWait) {
    Json answer;
    std::string sProblem;
    if (getEvents(*pulLast, uiWait, &answer, &sProblem) != VIEW_ANSWERED) {
        return false;
    }
    *pulLast = answer.value("last", *pulLast);
    for (const Json &event : answer["events"]) {
        const auto found = gKnown.find(event.value("identity", ""));
        if (found == gKnown.end() || event["event"] != "filed") {
            continue;
        }
        const bool bStop = event["kind"] == "stop" || event["kind"] == "cancel";
        found->second.eKnowledge = bStop ? GONE : LIVES;
        ++(bStop ? gStopped : gConfirmed);
    }
    return true;
}

void submitNew(std::mt19937 *pRandom) {
    static unsigned long ulEPG = 0;
    const auto ulNow = static_cast<unsigned long>(std::time(nullptr));
    Known known;
    known.bCast = (*pRandom)() % 2 == 0;
    const bool bDue = (*pRandom)() % 4 == 0;
    const unsigned long ulST = bDue ? ulNow : ulNow + 3600;
    if (known.bCast) {
        CASTInfo &cast = known.cast;
        cast.ulCMD = CAST_CMD_START;
        cast.uliEPGID = ++ulEPG;
        cast.ulCT = ulNow;
        cast.ulCASTType = CAST_TYPE_STREAM;
        cast.ulSTREAMFormat = CAST_FORMAT_TS;
        cast.ulST = ulST;
        cast.ulET = ulNow + 7200;
        cast.pSRCIP = gSource;
        cast.usSRCPort = 4000;
        cast.pDSTIP = gGroup;
        cast.usDSTPort = 5000;
        gKnown[identityOf(cast)] = known;
        TxCASTInfoToPlugIn(CAST_CMD_START, &cast);
    } else {
        known.message = {PCMBC_CMD_MSG, ++ulEPG, (*pRandom)() % 2, ulNow, ulST, ulNow + 7200, 0, 0, 0, gText};
        gKnown[identityOf(known.message)] = known;
        TxPCMBCInfoToPlugIn(PCMBC_CMD_MSG, &known.message);
    }
}

void takeBack(std::mt19937 *pRandom) {
    std::vector<Known *> living;
    for (auto &[sIdentity, known] : gKnown) {
        if (known.eKnowledge == LIVES) {
            living.push_back(&known);
        }
    }
    if (living.empty()) {
        return;
    }
    Known &known = *living[(*pRandom)() % living.size()];
    known.eKnowledge = ASKED;
    if (known.bCast) {
        CASTInfo stop = known.cast;
        stop.ulCT = static_cast<unsigned long>(std::time(nullptr));
        TxCASTInfoToPlugIn(CAST_CMD_STOP, &stop);
    } else {
        TxPCMBCInfoToPlugIn(PCMBC_CMD_CANCEL, &known.message);
    }
}

void live(pid_t iService, int iOperations, std::mt19937 *pRandom) {
    const auto time = std::chrono::milliseconds((*pRandom)() % 1000);
    std::thread killer([=] {
        std::this_thread::sleep_for(time);
        kill(iService, SIGKILL);
    });
    unsigned long ulLast = ULONG_MAX;
    bool bAlive = learn(&ulLast, 0); // the number of the newest event
    for (int i = 0; i < iOperations && bAlive; ++i) {
        (*pRandom)() % 3 == 0 ? takeBack(pRandom) : submitNew(pRandom);
        bAlive = learn(&ulLast, (*pRandom)() % 2);
    }
    while (bAlive) {
        bAlive = learn(&ulLast, 1);
    }
    killer.join();
    waitpid(iService, nullptr, 0);
}

int run(int iArguments, char **ppArguments) {
    if (iArguments < 3) {
        std::fprintf(stderr, "usage: kills PROGRAM FOLDER [KILLS [SEED]]\n");
        return 64;
    }
    const std::string sFile = std::string(ppArguments[2]) + "/pccast.db";
    const int iKills = iArguments > 3 ? std::atoi(ppArguments[3]) : 10;
    const unsigned long ulSeed = iArguments > 4 ? std::strtoul(ppArguments[4], nullptr, 10) : 1;
    std::mt19937 random(static_cast<unsigned int>(ulSeed));
    std::signal(SIGPIPE, SIG_IGN);
    long lLongest = 0;
    for (int i = 0; i <= iKills; ++i) {
        if (random() % 4 == 0) { // in the middle of its start
            const pid_t iStarting = startService(ppArguments[1], ppArguments[2]);
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));
            kill(iStarting, SIGKILL);
            waitpid(iStarting, nullptr, 0);
        }
        const auto begin = Clock::now();
        const pid_t iService = startService(ppArguments[1], ppArguments[2]);
        compare(awaitRestored());
        const auto lTook =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
        lLongest = std::max(lLongest, lTook);
        if (i < iKills) {
            live(iService, std::clamp(kOperations / iKills, 3, 30), &random);
            checkFile(sFile);
        } else {
            kill(iService, SIGTERM);
            waitpid(iService, nullptr, 0);
        }
    }
    std::printf(
        "%d kills (seed %lu): %lu requests and %lu stops confirmed, none lost, none revived; the longest "
        "start with %zu requests known took %ld ms\n",
        iKills, ulSeed, gConfirmed, gStopped, gKnown.size(), lLongest);
    return gConfirmed > 0 && gStopped > 0 ? 0 : 1;
}

} // namespace

int main(int iArguments, char **ppArguments) {
    try {
        return run(iArguments, ppArguments);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "FAILED: %s\n", error.what());
        return 1;
    }
}
