#pragma once

// Real CalDAV servers on loopback for tests: each on a free port with its own folder, polled
// until it answers, killed on destruction.

#include "TempDir.h"

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace almanor::test {

inline sockaddr_in loopback(int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(std::uint16_t(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

class LoopbackServer {
  public:
    LoopbackServer() = default;
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;
    // Killed outright: its folder goes with it, so nothing it holds needs a clean shutdown.
    ~LoopbackServer() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
    int port() const { return port_; }

  protected:
    // Runs `args`, output in the folder's "log", until the port takes connections: the servers
    // listen once they can serve.
    void start(std::vector<std::string> args) {
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        const std::string log = (dir_ / "log").string();
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        for (int i = 0; i < 300 && pid_ > 0 && !listening(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }

    TempDir dir_;
    const int port_ = freePort();

  private:
    static int freePort() {
        int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr = loopback(0);
        ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        socklen_t len = sizeof addr;
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
        ::close(fd);
        return ntohs(addr.sin_port);
    }
    bool listening() const {
        int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr = loopback(port_);
        const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        ::close(fd);
        return ok;
    }

    pid_t pid_ = -1;
};

// Radicale with the user "alice", password "s3cret".
class RadicaleServer : public LoopbackServer {
  public:
    RadicaleServer() {
        std::ofstream(dir_ / "users") << "alice:s3cret\n";
        std::ofstream(dir_ / "config")
            << "[server]\nhosts = 127.0.0.1:" << port_
            << "\n[auth]\ntype = htpasswd\nhtpasswd_filename = " << (dir_ / "users").string()
            << "\nhtpasswd_encryption = plain\ndelay = 0\n[rights]\ntype = owner_only\n"
               "[storage]\nfilesystem_folder = "
            << (dir_ / "collections").string() << "\n[web]\ntype = none\n";
        start({"/usr/bin/python3", "-m", "radicale", "--config", (dir_ / "config").string()});
    }
};

// Xandikos, which takes any credentials.
class XandikosServer : public LoopbackServer {
  public:
    XandikosServer() {
        start({"/usr/bin/xandikos", "--defaults", "-d", (dir_ / "data").string(), "-l", "127.0.0.1",
               "-p", std::to_string(port_)});
    }
};

// The scripted CalDAV server of tests/support/scripted_dav.py: a small server in memory (user
// "alice", password "s3cret") that misbehaves on demand (setFault("fault=trickle every=0.5")).
class ScriptedDavServer : public LoopbackServer {
  public:
    explicit ScriptedDavServer(std::vector<std::string> options = {}) {
        setFault("fault=pass");
        options.insert(options.begin(),
                       {"/usr/bin/python3", ALMANOR_TEST_SUPPORT_DIR "/scripted_dav.py", "--port",
                        std::to_string(port_), "--control", (dir_ / "control").string(), "--log",
                        (dir_ / "requests").string()});
        start(options);
    }
    void setFault(const std::string& words) {
        std::ofstream(dir_ / "control.tmp") << words;
        std::filesystem::rename(dir_ / "control.tmp", dir_ / "control");
    }
    // Each request so far: "METHOD PATH USER" (USER "-" when no credentials came).
    std::vector<std::string> requests() const {
        std::vector<std::string> lines;
        std::ifstream in(dir_ / "requests");
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    }
};

} // namespace almanor::test
