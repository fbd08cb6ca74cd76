#include "base/shell.h"

#include "thread_watch.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <string>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

constexpr size_t all_of_it = 100000;
constexpr uint32_t short_limit_ms = 300;
constexpr double far_beyond_s = 20; // far beyond a short limit, even on a busy machine

static double seconds_of(const std::function<void()> &work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Is the process running? Its parent may be slow to reap it.
static bool is_alive(const std::string &pid) {
    std::ifstream status("/proc/" + pid + "/stat");
    std::string text;
    std::getline(status, text); // of a process that is just going away, reading may fail
    return !text.empty() && text.find(") Z ") == std::string::npos;
}

// Each test has its own folder.
class Shell : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/shell-test-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder_ = name;
    }
    void TearDown() override {
        run_shell(("rm -r " + folder_).c_str());
    }
    std::string file(const std::string &name) const {
        return folder_ + "/" + name;
    }
    std::string content(const std::string &name) const {
        std::ostringstream text;
        text << std::ifstream(file(name)).rdbuf();
        return text.str();
    }
    bool is_gone(const std::string &pid_file) const {
        const int pid = std::atoi(content(pid_file).c_str());
        return pid > 0 && wait_for([pid] { return !is_alive(std::to_string(pid)); });
    }

private:
    std::string folder_;
};

TEST_F(Shell, RunsTheTextAndWaitsForItsEnd) {
    run_shell(("sleep 0.1; echo done > " + file("a")).c_str());
    EXPECT_EQ(content("a"), "done\n");
}

TEST_F(Shell, GivesTheOutput) {
    EXPECT_EQ(shell_output("printf 'one\\ntwo\\n'; false", all_of_it), "one\ntwo\n");
    EXPECT_EQ(shell_output("printf 'one\\000two'", all_of_it), "one");
    EXPECT_EQ(shell_output_bytes("printf 'one\\000two'", all_of_it), std::string("one\0two", 7));
    EXPECT_EQ(shell_output("head -c 20000 /dev/zero | tr '\\000' x", all_of_it),
              std::string(20000, 'x'));
    EXPECT_EQ(shell_output("/none/such 2> /dev/null", all_of_it), "");
}

TEST_F(Shell, StopsAnOutputThatGoesBeyondItsLimit) {
    EXPECT_EQ(shell_output("yes", 5), "y\ny\ny");
}

// Nothing is printed and nothing is killed when there is no end to wait for.
TEST_F(Shell, LeavesAloneWhatGoesOnInTheBackground) {
    const std::string command = "(sleep 2; echo later > " + file("later") + ") > /dev/null 2>&1 &";
    testing::internal::CaptureStderr();
    EXPECT_LT(seconds_of([&] { run_shell(command.c_str()); }), 2.0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(wait_for([this] { return content("later") == "later\n"; }));
}

TEST_F(Shell, KillsTheGroupOfACommandThatHangs) {
    const std::string command =
        "sleep 1000 & echo $! > " + file("child") + "; echo $$ > " + file("shell") + "; sleep 1000";
    testing::internal::CaptureStderr();
    EXPECT_LT(seconds_of([&] { run_shell(command.c_str(), short_limit_ms); }), far_beyond_s);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Command killed after 0 s: " + command + "\n");
    EXPECT_TRUE(is_gone("child"));
    EXPECT_TRUE(is_gone("shell"));
}

TEST_F(Shell, NamesTheLimitAndTheFirstLineOfTheCommand) {
    testing::internal::CaptureStderr();
    run_shell("sleep 1000 # one\ntrue # two", 1000);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Command killed after 1 s: sleep 1000 # one\n");
}

TEST_F(Shell, GivesNothingOfACommandThatHangs) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(shell_output("printf 12; sleep 1000", all_of_it, short_limit_ms), "");
    // It may also have closed its output.
    EXPECT_EQ(shell_output("printf 12; exec >&-; sleep 1000", all_of_it, short_limit_ms), "");
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 2) << said;
}

TEST_F(Shell, GivesTheOutputOfOneThatLeavesAWriterBehindWithinItsLimit) {
    const std::string command = "sleep 1000 & echo $! > " + file("child") + "; printf abc";
    testing::internal::CaptureStderr();
    std::string output;
    EXPECT_LT(
        seconds_of([&] { output = shell_output(command.c_str(), all_of_it, short_limit_ms); }),
        far_beyond_s);
    EXPECT_EQ(output, "abc");
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(is_gone("child"));
}

TEST_F(Shell, EndsAnEndlessOutputInTime) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(shell_output("while :; do echo; sleep 0.01; done", 1U << 30U, short_limit_ms), "");
    testing::internal::GetCapturedStderr();
}

TEST_F(Shell, LeavesNoZombieAndNoDescriptor) {
    const auto descriptors = [] {
        const std::filesystem::directory_iterator folder("/proc/self/fd");
        return std::distance(begin(folder), end(folder));
    };
    const auto before = descriptors();
    testing::internal::CaptureStderr();
    run_shell("sleep 1000", 1);
    shell_output("sleep 1000", all_of_it, 1);
    shell_output("yes", 5);
    ShellCommand started{};
    ASSERT_TRUE(start_shell("sleep 1000", started));
    end_shell(started);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(Shell, EndsAStartedCommandWithAllThatItHasStarted) {
    ShellCommand started{};
    ASSERT_TRUE(
        start_shell("for i in $(seq 200); do sleep 1000 & echo $!; done; echo; wait", started));
    std::string numbers;
    char piece[4096];
    while (numbers.find("\n\n") == std::string::npos) {
        const ssize_t length = read(started.output, piece, sizeof piece);
        ASSERT_GT(length, 0);
        numbers.append(piece, static_cast<size_t>(length));
    }
    end_shell(started);
    std::istringstream lines(numbers);
    std::string number;
    int living = 0;
    while (lines >> number) {
        living += is_alive(number) ? 1 : 0;
    }
    EXPECT_EQ(living, 0);
}

// A tracer keeps the dead shell from its parent, as a dead disk would.
static pid_t start_tracer_of(pid_t pid) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t tracer = fork();
    if (tracer == 0) {
        const char is_tracing = ptrace(PTRACE_SEIZE, pid, nullptr, nullptr) == 0 ? 1 : 0;
        if (write(ends[1], &is_tracing, 1) == 1) {
            pause();
        }
        _exit(0);
    }
    char is_tracing = 0;
    EXPECT_EQ(read(ends[0], &is_tracing, 1), 1);
    close(ends[0]);
    close(ends[1]);
    if (is_tracing == 0) {
        kill(tracer, SIGKILL);
        waitpid(tracer, nullptr, 0);
    }
    return is_tracing == 0 ? -1 : tracer;
}

TEST_F(Shell, ReapsLaterWhatDoesNotEndWhenItIsKilled) {
    ShellCommand started{};
    ASSERT_TRUE(start_shell("sleep 1000", started));
    const pid_t tracer = start_tracer_of(started.pid);
    if (tracer < 0) {
        end_shell(started);
        GTEST_SKIP() << "no permission to trace";
    }
    EXPECT_LT(seconds_of([&] { end_shell(started); }), far_beyond_s);
    run_shell(":");
    EXPECT_EQ(kill(started.pid, 0), 0); // still exists
    kill(tracer, SIGKILL);
    waitpid(tracer, nullptr, 0);
    run_shell(":");
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(Shell, GivesACommandAProcessGroupOfItsOwn) {
    const std::string numbers = shell_output("echo $$; cut -d' ' -f5 /proc/$$/stat", all_of_it);
    const size_t half = numbers.size() / 2;
    EXPECT_EQ(numbers.substr(0, half), numbers.substr(half));
}

TEST_F(Shell, KeepsThePipeOfOneCommandFromTheOthers) {
    ShellCommand started{};
    ASSERT_TRUE(start_shell("sleep 1000", started));
    char pipe[64] = "";
    ASSERT_GT(readlink(("/proc/self/fd/" + std::to_string(started.output)).c_str(), pipe,
                       sizeof pipe - 1),
              0);
    const std::string listing = shell_output("ls -l /proc/$$/fd", all_of_it);
    EXPECT_NE(listing, "");
    EXPECT_EQ(listing.find(pipe), std::string::npos) << listing;
    end_shell(started);
}

TEST_F(Shell, HandsOnStandardInput) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const int before = dup(STDIN_FILENO);
    dup2(ends[0], STDIN_FILENO);
    ASSERT_EQ(write(ends[1], "typed\n", 6), 6);
    EXPECT_EQ(shell_output("read line; echo $line", all_of_it), "typed\n");
    dup2(before, STDIN_FILENO);
    close(before);
    close(ends[0]);
    close(ends[1]);
}

// The signals in a line of a command's /proc status, as bits.
static uint64_t signals_in(const std::string &line) {
    const std::string command = "sed -n 's/^" + line + ":.//p' /proc/self/status";
    return std::stoull(shell_output(command.c_str(), all_of_it), nullptr, 16);
}

TEST_F(Shell, StartsACommandWithItsSignalsAtTheirDefault) {
    constexpr uint64_t of_the_c_library = 0x180000000; // 32 and 33, which it reserves
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction before {};
    sigaction(SIGPIPE, &ignore, &before);
    sigset_t blocked;
    sigset_t mask;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &mask);
    EXPECT_EQ(signals_in("SigBlk"), 0U);
    EXPECT_EQ(signals_in("SigIgn") & ~of_the_c_library, 0U);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    sigaction(SIGPIPE, &before, nullptr);
}

TEST_F(Shell, RunsACommandWhereThereIsNoDescriptorToWaitWith) {
    testing::internal::CaptureStderr();
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    std::vector<int> taken;
    const rlimit few{20, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    for (int fd = 0; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
        taken.push_back(fd);
    }
    run_shell(("echo a > " + file("a")).c_str());
    const double taken_s = seconds_of([] { run_shell("sleep 1000", short_limit_ms); });
    EXPECT_EQ(shell_output("echo a", all_of_it), ""); // no descriptors for a pipe
    for (const int fd : taken) {
        close(fd);
    }
    setrlimit(RLIMIT_NOFILE, &before);
    testing::internal::GetCapturedStderr();
    EXPECT_LT(taken_s, far_beyond_s);
    EXPECT_EQ(content("a"), "a\n");
}

// Each thread gets the end of its own child, and leaves other threads' children alone.
TEST_F(Shell, ServesManyThreadsBesideTheChildrenOfOthers) {
    std::atomic<int> wrong{0};
    std::atomic<bool> is_over{false};
    std::thread other([&] {
        while (!is_over) {
            const pid_t pid = fork();
            if (pid == 0) {
                _exit(77);
            }
            int status = 0;
            wrong += waitpid(pid, &status, 0) == pid && WEXITSTATUS(status) == 77 ? 0 : 1;
        }
    });
    std::vector<std::thread> threads;
    for (int number = 0; number < 8; ++number) {
        threads.emplace_back([&wrong, number] {
            for (int round = 0; round < 25; ++round) {
                const std::string text = std::to_string(number * 100 + round);
                wrong += shell_output(("echo " + text).c_str(), all_of_it) == text + "\n" ? 0 : 1;
                run_shell(":");
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    is_over = true;
    other.join();
    EXPECT_EQ(wrong, 0);
}

static std::atomic<int> signals_seen;

// Handles SIGUSR1 without SA_RESTART.
class InterruptedReading : public testing::Test {
protected:
    void SetUp() override {
        signals_seen = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { ++signals_seen; };
        sigaction(SIGUSR1, &action, &before_);
    }
    void TearDown() override {
        sigaction(SIGUSR1, &before_, nullptr);
    }

private:
    struct sigaction before_ {};
};

// Signals that arrive between two pieces of the output.
constexpr const char *interrupting =
    "printf abc; for i in 1 2 3 4; do sleep 0.05; kill -USR1 $PPID; done; sleep 0.05; printf def";

TEST_F(InterruptedReading, GivesTheWholeOutput) {
    EXPECT_EQ(shell_output(interrupting, 100), "abcdef");
    EXPECT_GE(signals_seen, 1);
}

TEST_F(InterruptedReading, WaitsForTheEndOfACommand) {
    const double taken_s = seconds_of(
        [] { run_shell("for i in 1 2 3 4; do sleep 0.05; kill -USR1 $PPID; done; sleep 0.05"); });
    EXPECT_GE(taken_s, 0.25);
    EXPECT_GE(signals_seen, 1);
}

TEST(ShellWord, LosesTheBlanksAroundIt) {
    for (const char *value : {"a1", " a1", "a1 ", "\t a1\r\n", "a1\n"}) {
        EXPECT_EQ(shell_word(value), "a1") << value;
        EXPECT_EQ(shell_quoted_text(value), "a1") << value;
    }
    EXPECT_EQ(shell_word(" a b\t"), "'a b'");
    EXPECT_EQ(shell_quoted_text(" a $b\t"), "a \\$b");
    for (const char *value : {"", " ", "\t\r\n "}) {
        EXPECT_EQ(shell_word(value), "");
        EXPECT_EQ(shell_quoted_text(value), "");
    }
}
