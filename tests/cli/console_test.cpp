// Tests the pump between the service's console lines and an output that may not take them.
#include <consolepump.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>

namespace {

std::string takeAll(ConsoleQueue *pQueue) {
    std::string sAll;
    for (std::string sPiece = pQueue->take(7); !sPiece.empty(); sPiece = pQueue->take(7)) {
        sAll += sPiece;
    }
    return sAll;
}

TEST(ConsoleQueue, DropsWholeLinesAndSaysHowManyWhereTheyAreMissing) {
    ConsoleQueue queue(18, false);
    queue.put("first\nsec");
    EXPECT_EQ(takeAll(&queue), "first\n");
    queue.put("ond\n1234567890\n12345678\nx\n");
    EXPECT_EQ(takeAll(&queue),
              "second\n1234567890\npccast: lines dropped here because nobody read them in time: 2\n");
    queue.put("later\nend");
    queue.finish();
    EXPECT_EQ(takeAll(&queue), "later\nend");
}

TEST(ConsoleQueue, KeepsColoursForATerminalOnly) {
    const std::string sLine = "[pccast] \033[2;31m text \033[1;41m[ERROR]\033[0m \0337x\n";
    for (const bool bColour : {true, false}) {
        ConsoleQueue queue(100, bColour);
        queue.put(sLine);
        EXPECT_EQ(takeAll(&queue), bColour ? sLine : "[pccast]  text [ERROR] x\n");
    }
}

// A child prints more than pipe and queue hold into a pipe that is read only after it has ended.
TEST(ConsolePump, NeverWaitsForAReader) {
    std::array<int, 2> aPipe{};
    ASSERT_EQ(pipe(aPipe.data()), 0);
    const auto begin = std::chrono::steady_clock::now();
    std::fflush(stdout); // else the child prints it too
    const pid_t iChild = fork();
    if (iChild == 0) {
        dup2(aPipe[1], STDOUT_FILENO);
        dup2(aPipe[1], STDERR_FILENO);
        {
            const ConsolePump pump;
            for (int i = 0; i < 50; ++i) { // the order of the two is kept
                std::printf("%d\n", i);
                std::fflush(stdout);
                std::fprintf(stderr, "%d\n", i);
            }
            for (int i = 0; i < 20000; ++i) {
                std::printf("%060d\n", i);
            }
        }
        std::fprintf(stderr, "a late line\n");
        _exit(0);
    }
    close(aPipe[1]);
    int iStatus = 0;
    ASSERT_EQ(waitpid(iChild, &iStatus, 0), iChild);
    EXPECT_EQ(iStatus, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    std::string sRead;
    std::array<char, 4096> aBytes{};
    for (ssize_t lRead = 0; (lRead = read(aPipe[0], aBytes.data(), aBytes.size())) > 0;) {
        sRead.append(aBytes.data(), static_cast<size_t>(lRead));
    }
    close(aPipe[0]);
    std::string sFirst;
    for (int i = 0; i < 50; ++i) {
        sFirst += std::to_string(i) + "\n" + std::to_string(i) + "\n";
    }
    EXPECT_TRUE(sRead.starts_with(sFirst + std::string(60, '0') + "\n")) << sRead.substr(0, 200);
    EXPECT_EQ(sRead.find("a late line"), std::string::npos);
}

TEST(ConsolePump, EndsAsSoonAsAllIsWritten) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EXIT(
        {
            {
                const ConsolePump pump;
                std::fputs((std::string(200'000, 'x') + "all of it").c_str(), stderr);
            }
            _exit(0);
        },
        testing::ExitedWithCode(0), "all of it");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1500));
}

} // namespace
