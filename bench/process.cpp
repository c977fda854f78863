// The processes that are measured, the host program among them.
#include "bench.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace bench {

namespace {

std::string hostProgram() {
    std::array<char, 4096> path{};
    require(readlink("/proc/self/exe", path.data(), path.size() - 1) > 0, "/proc/self/exe");
    const std::string own = path.data();
    return own.substr(0, own.rfind('/') + 1) + "pccast";
}

} // namespace

pid_t inProcess(const std::function<void()> &body) {
    std::fflush(nullptr);
    const pid_t iChild = fork();
    require(iChild >= 0, "fork"); // a signal to child -1 would reach every process
    if (iChild == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        require(std::freopen("/dev/null", "w", stderr) != nullptr, "/dev/null");
        body();
        _exit(127);
    }
    return iChild;
}

void become(const std::vector<std::string> &command) {
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &word : command) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    require(std::freopen("/dev/null", "w", stdout) != nullptr, "/dev/null");
    execvp(arguments[0], arguments.data());
}

pid_t startService(const std::vector<std::string> &before) {
    return inProcess([&] {
        std::vector<std::string> command = before;
        command.insert(command.end(), {hostProgram(), "serve"});
        become(command);
    });
}

void request(const std::vector<std::string> &words) {
    std::string command = "for i in $(seq 100); do " + hostProgram();
    for (const std::string &word : words) {
        command += " " + word;
    }
    command += " >/dev/null 2>&1 && exit 0; sleep 0.1; done; exit 1";
    require(std::system(command.c_str()) == 0, words.front().c_str());
}

} // namespace bench
