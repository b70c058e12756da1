// The built kv3000-sim: its first lines, serving over TCP and the
// pseudo-terminal, the console on stdin, and stopping on SIGINT, SIGTERM and
// the end of stdin.
#include "sim_test_util.h"

#include <signal.h>
#include <sys/wait.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using namespace simtest;

namespace {

// The built simulator with pipes on its stdin and stdout.
class Process {
public:
    explicit Process(std::vector<std::string> args) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
        args.insert(args.begin(), KV3000_SIM_BINARY);
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], STDIN_FILENO);
            dup2(out[1], STDOUT_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        stdin_ = in[1];
        stdout_ = out[0];
    }
    ~Process() {
        closeStdin();
        if (stdout_ >= 0) ::close(stdout_);
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    pid_t pid() const { return pid_; }
    void write(const std::string& text) { EXPECT_TRUE(writeAll(stdin_, Bytes(text.begin(), text.end()))); }
    void closeStdin() {
        if (stdin_ >= 0) ::close(stdin_);
        stdin_ = -1;
    }
    // One line from stdout, without its newline; empty after the timeout.
    std::string line() {
        std::string l;
        for (Bytes b; (b = readFd(stdout_, 1, 3000)).size() == 1 && b[0] != '\n';) l += char(b[0]);
        return l;
    }
    // Everything until stdout closes.
    std::string rest() {
        std::string all;
        for (Bytes b; !(b = readFd(stdout_, 4096, 3000)).empty();) all.append(b.begin(), b.end());
        return all;
    }
    // Exit status, or -1 when it did not end in time.
    int wait(int timeoutMs = 3000) {
        for (int waited = 0; waited < timeoutMs; waited += 10) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                reaped_ = true;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }

private:
    pid_t pid_ = -1;
    int stdin_ = -1;
    int stdout_ = -1;
    bool reaped_ = false;
};

uint16_t portOf(const std::string& firstLine) {
    const std::string prefix = "listening on 127.0.0.1:";
    if (firstLine.rfind(prefix, 0) != 0) return 0;
    return static_cast<uint16_t>(std::stoi(firstLine.substr(prefix.size())));
}

TEST(Binary, ServesTcpAndStopsOnSigint) {
    Process p({"--listen", "127.0.0.1:0"});
    ASSERT_GT(p.pid(), 0);
    const uint16_t port = portOf(p.line());
    ASSERT_NE(port, 0);
    {
        Client c(port);
        ASSERT_TRUE(c.ok());
        EXPECT_TRUE(goodReply(c.transact(kHandshake1, 9), 9));
        EXPECT_TRUE(goodReply(c.transact(readRequest(6, 3, 100), 17), 17));
    }
    kill(p.pid(), SIGINT);
    const std::string out = p.rest();
    EXPECT_EQ(p.wait(), 0);
    EXPECT_NE(out.find("requests 2 handshakes 1 reads 1 "), std::string::npos) << out;
    EXPECT_NE(out.find("faults drop 0"), std::string::npos) << out;
}

TEST(Binary, StopsOnSigtermAndQuit) {
    for (bool quit : {false, true}) {
        Process p({"--listen=127.0.0.1:0", "--faults", "delay=0.5:10", "--seed", "3", "--live"});
        ASSERT_NE(portOf(p.line()), 0);
        if (quit) {
            p.write("quit\n");
        } else {
            kill(p.pid(), SIGTERM);
            EXPECT_NE(p.rest().find("faults "), std::string::npos);
        }
        EXPECT_EQ(p.wait(), 0) << quit;
    }
}

TEST(Binary, ConsoleOnStdinAndStopAtItsEnd) {
    Process p({"--listen", "127.0.0.1:0"});
    const uint16_t port = portOf(p.line());
    ASSERT_NE(port, 0);
    p.write("set DM100 1234 5678\nget DM100:2\nget R5.03\nget XX\n");
    EXPECT_EQ(p.line(), "ok");
    EXPECT_EQ(p.line(), "DM100 1234");
    EXPECT_EQ(p.line(), "DM101 5678");
    EXPECT_EQ(p.line(), "R5.03 0");
    EXPECT_EQ(p.line().rfind("error: ", 0), 0u);
    {
        Client c(port);
        const Bytes r = c.transact(readRequest(6, 2, 100), 15);
        ASSERT_TRUE(goodReply(r, 15));
        EXPECT_EQ(be16(r, 9), 1234u);
        EXPECT_EQ(be16(r, 11), 5678u);
    }
    p.write("stats\n");
    EXPECT_EQ(p.line().rfind("requests 1 ", 0), 0u);
    EXPECT_EQ(p.line().rfind("faults ", 0), 0u);
    p.closeStdin();
    EXPECT_EQ(p.wait(), 0);
    EXPECT_NE(p.rest().find("requests 1 "), std::string::npos);
}

TEST(Binary, ServesThePseudoTerminal) {
    Process p({"--listen", "127.0.0.1:0", "--pty"});
    ASSERT_NE(portOf(p.line()), 0);
    const std::string serial = p.line();
    ASSERT_EQ(serial.rfind("serial on /dev/", 0), 0u) << serial;
    const int fd = openRawLine(serial.substr(std::strlen("serial on ")));
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(writeAll(fd, readRequest(6, 1, 0)));
    const Bytes got = readFd(fd, 13);
    ::close(fd);
    EXPECT_TRUE(goodReply(got, 13));
    kill(p.pid(), SIGINT);
    EXPECT_EQ(p.wait(), 0);
}

TEST(Binary, HelpAndBadOptions) {
    {
        Process p({"--help"});
        const std::string out = p.rest();
        EXPECT_EQ(p.wait(), 0);
        for (const char* section : {"NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "CONSOLE", "EXAMPLES",
                                    "--listen", "--pty", "--faults", "--seed", "--live"})
            EXPECT_NE(out.find(section), std::string::npos) << section;
    }
    const std::vector<std::vector<std::string>> bad = {{"--bogus"},
                                                       {"--listen"},
                                                       {"--listen", "127.0.0.1"},
                                                       {"--listen", "127.0.0.1:70000"},
                                                       {"--faults", "jam=1"},
                                                       {"--faults", ""},
                                                       {"--seed", "x"}};
    for (const auto& args : bad) {
        Process p(args);
        EXPECT_EQ(p.rest(), "");
        EXPECT_EQ(p.wait(), 2) << args[0];
    }
}

}  // namespace
