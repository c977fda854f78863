#include "player.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kUnsentMost = 1ul << 20;
constexpr size_t kLineMost = 1ul << 20;
constexpr size_t kUnpipedMost = 4ul << 20; // of an ASF cast: half a minute of 1 Mbit/s
constexpr int kPipeSize = 1 << 20;
constexpr int kFarewell = 2000; // ms for the process to end by itself

// What the process is started with besides its socket. No file of the user's and no word of the network
// changes what it does.
constexpr std::array<const char *, 20> kArguments{
    "--no-config", "--load-scripts=no", "--ytdl=no", "--osc=no", "--no-terminal", "--idle=yes",
    "--force-window=yes", "--title=PCCAST", "--resume-playback=no", "--save-position-on-quit=no",
    // Nothing beside what is played is looked for.
    "--autoload-files=no", "--load-unsafe-playlists=no",
    // A stream is what it was announced as, and never a playlist: its format is set with each cast.
    "--demuxer=lavf",
    // A machine without a sound device still has the picture.
    "--audio-fallback-to-null=yes", "--audio-display=no",
    // The first picture soon, and no more than a moment kept of a live stream.
    "--demuxer-lavf-analyzeduration=1", "--cache=yes", "--cache-pause-wait=0.5", "--demuxer-max-bytes=32MiB",
    "--demuxer-max-back-bytes=0"};
// Nobody at the keyboard of a kiosk shall steer the player. The geometry is for a screen without a window
// manager.
constexpr std::array<const char *, 5> kFullScreen{"--fullscreen=yes", "--geometry=100%x100%+0+0",
                                                  "--input-default-bindings=no", "--input-vo-keyboard=no",
                                                  "--cursor-autohide=always"};

std::string errorText(const char *pszWhat) {
    return std::string(pszWhat) + ": " + std::strerror(errno);
}

std::string socketPath(const Player &player) {
    return player.sFolder + "/mpv";
}

// Writes as much as fits, and takes it off psBytes. Returns false when that fails.
bool writeSome(int iFile, std::string *psBytes) {
    while (!psBytes->empty()) {
        const ssize_t lWritten = write(iFile, psBytes->data(), psBytes->size());
        if (lWritten < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        psBytes->erase(0, static_cast<size_t>(lWritten));
    }
    return true;
}

void closePipe(Player *pPlayer) {
    pPlayer->pipe = Descriptor();
    pPlayer->sUnpiped.clear();
    if (!pPlayer->sPipe.empty()) {
        unlink(pPlayer->sPipe.c_str());
        pPlayer->sPipe.clear();
    }
}

void load(Player *pPlayer, const std::string &sPath, const char *pszFormat) {
    playerSend(pPlayer, Json{{"command", {"set_property", "demuxer-lavf-format", pszFormat}}});
    playerSend(pPlayer, Json{{"command", {"set_property", "pause", false}}}); // a live cast waits for nobody
    pPlayer->bLoading = true;
    playerSend(pPlayer, Json{{"command", {"loadfile", sPath, "replace"}}});
}

} // namespace

Descriptor::~Descriptor() {
    if (i >= 0) {
        close(i);
    }
}

std::string playerOpen(Player *pPlayer) {
    for (const char *pszVariable : {"XDG_RUNTIME_DIR", "TMPDIR", ""}) {
        const char *const pszFolder = *pszVariable == 0 ? "/tmp" : std::getenv(pszVariable);
        if (pszFolder == nullptr || *pszFolder != '/') {
            continue;
        }
        std::string sTemplate = std::string(pszFolder) + "/pccast-tune.XXXXXX";
        if (sTemplate.size() + 8 < sizeof(sockaddr_un::sun_path) && mkdtemp(sTemplate.data()) != nullptr) {
            pPlayer->sFolder = sTemplate;
            return "";
        }
    }
    return errorText("no folder for the player's socket can be made");
}

std::string playerStart(Player *pPlayer) {
    const std::string sSocket = "--input-ipc-server=" + socketPath(*pPlayer);
    std::vector<const char *> arguments{pPlayer->sProgram.c_str()};
    arguments.insert(arguments.end(), kArguments.begin(), kArguments.end());
    if (pPlayer->bFullScreen) {
        arguments.insert(arguments.end(), kFullScreen.begin(), kFullScreen.end());
    }
    arguments.push_back(sSocket.c_str());
    arguments.push_back(nullptr);

    unlink(socketPath(*pPlayer).c_str()); // of a process that was killed
    std::array<int, 2> aPipe{};           // carries the errno of an exec that fails, or its end
    if (pipe2(aPipe.data(), O_CLOEXEC) != 0) {
        return errorText("pipe");
    }
    const pid_t iParent = getpid();
    const pid_t iChild = fork();
    if (iChild == 0) {
        // The signals that tune waits for are the process's own again. It ends when tune does, however.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        std::signal(SIGPIPE, SIG_DFL);
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() == iParent) {
            execvp(arguments[0], const_cast<char *const *>(arguments.data()));
        }
        const int iErrno = errno;
        _exit(write(aPipe[1], &iErrno, sizeof iErrno) == sizeof iErrno ? 127 : 126);
    }
    int iErrno = errno;
    close(aPipe[1]);
    const bool bRuns = iChild > 0 && read(aPipe[0], &iErrno, sizeof iErrno) == 0;
    close(aPipe[0]);
    if (!bRuns) {
        if (iChild > 0) {
            waitpid(iChild, nullptr, 0);
        }
        return pPlayer->sProgram + " cannot be run: " + std::strerror(iErrno);
    }
    pPlayer->iProcess = iChild;
    pPlayer->process = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, pPlayer->iProcess, 0)));
    return pPlayer->process.i < 0 ? errorText("pidfd_open") : "";
}

bool playerConnect(Player *pPlayer) {
    if (pPlayer->socket.i >= 0) {
        return true;
    }
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    const std::string sPath = socketPath(*pPlayer);
    sPath.copy(address.sun_path, sizeof address.sun_path - 1);
    Descriptor made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (made.i < 0 ||
        connect(made.i, reinterpret_cast<const struct sockaddr *>(&address), sizeof address) != 0) {
        return false;
    }
    pPlayer->socket = std::move(made);
    pPlayer->sUnsent.clear();
    pPlayer->sReceived.clear();
    return true;
}

void playerSend(Player *pPlayer, const Json &command) {
    if (pPlayer->socket.i < 0) {
        return;
    }
    pPlayer->sUnsent += writeJSON(command) + "\n";
    if (!writeSome(pPlayer->socket.i, &pPlayer->sUnsent) || pPlayer->sUnsent.size() > kUnsentMost) {
        pPlayer->socket = Descriptor();
    }
}

std::vector<Json> playerReceive(Player *pPlayer) {
    std::vector<Json> messages;
    std::array<char, 16384> aBytes{};
    bool bOpen = writeSome(pPlayer->socket.i, &pPlayer->sUnsent);
    while (bOpen) {
        const ssize_t lRead = read(pPlayer->socket.i, aBytes.data(), aBytes.size());
        if (lRead <= 0) {
            bOpen = lRead < 0 && (errno == EAGAIN || errno == EINTR);
            break;
        }
        pPlayer->sReceived.append(aBytes.data(), static_cast<size_t>(lRead));
        size_t uEnd = 0;
        while ((uEnd = pPlayer->sReceived.find('\n')) != std::string::npos) {
            Json message = Json::parse(pPlayer->sReceived.substr(0, uEnd), nullptr, false);
            const std::string sEvent = playerEvent(message);
            pPlayer->bLoading = pPlayer->bLoading && sEvent != "start-file";
            if (message.is_object() && !(pPlayer->bLoading && sEvent == "end-file")) {
                messages.push_back(std::move(message));
            }
            pPlayer->sReceived.erase(0, uEnd + 1);
        }
        bOpen = pPlayer->sReceived.size() <= kLineMost;
    }
    if (!bOpen) {
        pPlayer->socket = Descriptor();
    }
    return messages;
}

std::string playerEvent(const Json &message) {
    const auto event = message.is_object() ? message.find("event") : message.end();
    return event != message.end() && event->is_string() ? event->get<std::string>() : "";
}

void playerPlayURL(Player *pPlayer, const std::string &sURL) {
    closePipe(pPlayer);
    load(pPlayer, sURL, "mpegts");
}

void playerPlayPipe(Player *pPlayer) {
    closePipe(pPlayer);
    const std::string sPath = pPlayer->sFolder + "/asf" + std::to_string(++pPlayer->uiPipes);
    if (mkfifo(sPath.c_str(), 0600) != 0) {
        return;
    }
    pPlayer->sPipe = sPath;
    // For reading too: then neither we nor the player wait for the other side to open it.
    pPlayer->pipe = Descriptor(open(sPath.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    fcntl(pPlayer->pipe.i, F_SETPIPE_SZ, kPipeSize);
    load(pPlayer, sPath, "asf");
}

bool playerWrite(Player *pPlayer, const std::string &sBytes) {
    if (pPlayer->pipe.i < 0 || pPlayer->sUnpiped.size() + sBytes.size() > kUnpipedMost) {
        return false;
    }
    pPlayer->sUnpiped += sBytes;
    playerFlush(pPlayer);
    return true;
}

void playerFlush(Player *pPlayer) {
    if (!writeSome(pPlayer->pipe.i, &pPlayer->sUnpiped)) {
        closePipe(pPlayer);
    }
}

void playerStop(Player *pPlayer) {
    playerSend(pPlayer, Json{{"command", {"stop"}}});
    closePipe(pPlayer);
}

std::string playerReap(Player *pPlayer) {
    int iStatus = 0;
    if (waitpid(pPlayer->iProcess, &iStatus, WNOHANG) == 0) {
        kill(pPlayer->iProcess, SIGKILL);
        waitpid(pPlayer->iProcess, &iStatus, 0);
    }
    pPlayer->iProcess = 0;
    pPlayer->process = Descriptor();
    pPlayer->socket = Descriptor();
    closePipe(pPlayer);
    return WIFSIGNALED(iStatus) ? std::string("signal: ") + strsignal(WTERMSIG(iStatus))
                                : "exit code " + std::to_string(WEXITSTATUS(iStatus));
}

void playerClose(Player *pPlayer) {
    if (pPlayer->iProcess != 0) {
        kill(pPlayer->iProcess, SIGTERM);
        struct pollfd ended {
            pPlayer->process.i, POLLIN, 0
        };
        poll(&ended, 1, kFarewell);
        playerReap(pPlayer);
    }
    if (!pPlayer->sFolder.empty()) {
        unlink(socketPath(*pPlayer).c_str());
        rmdir(pPlayer->sFolder.c_str());
        pPlayer->sFolder.clear();
    }
}
