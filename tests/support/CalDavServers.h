#pragma once

// Real CalDAV servers on loopback for tests: each on a free port with its own folder, polled
// until it answers, stopped by PID on destruction.

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

inline int freePort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

// Whether the port takes connections: the servers listen once they can serve.
inline bool listening(int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(std::uint16_t(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    return ok;
}

class ServerProcess {
  public:
    ServerProcess() = default;
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;
    ~ServerProcess() { stop(); }

    void start(const std::vector<std::string>& args, const std::string& logFile, int port) {
        std::vector<char*> argv;
        for (const auto& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        port_ = port;
        for (int i = 0; i < 300 && pid_ > 0 && !listening(port); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    void stop() {
        if (pid_ <= 0)
            return;
        ::kill(pid_, SIGTERM);
        int status = 0;
        for (int i = 0; i < 100; ++i) {
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
    }
    int port() const { return port_; }

  private:
    pid_t pid_ = -1;
    int port_ = 0;
};

// A server started on a free loopback port, with its own folder; ended with the object. Each
// takes a list of options, so that tests start any of them alike; only the scripted one has any.
class LoopbackServer {
  public:
    std::string url() const { return "http://127.0.0.1:" + std::to_string(process_.port()) + "/"; }
    int port() const { return process_.port(); }

  protected:
    TempDir dir_;
    ServerProcess process_;
};

// Radicale with the user "alice", password "s3cret".
class RadicaleServer : public LoopbackServer {
  public:
    explicit RadicaleServer(const std::vector<std::string>& = {}) {
        const int port = freePort();
        std::ofstream(dir_ / "users") << "alice:s3cret\n";
        std::ofstream(dir_ / "config")
            << "[server]\nhosts = 127.0.0.1:" << port
            << "\n[auth]\ntype = htpasswd\nhtpasswd_filename = " << (dir_ / "users").string()
            << "\nhtpasswd_encryption = plain\ndelay = 0\n[rights]\ntype = owner_only\n"
               "[storage]\nfilesystem_folder = "
            << (dir_ / "collections").string() << "\n[web]\ntype = none\n";
        process_.start(
            {"/usr/bin/python3", "-m", "radicale", "--config", (dir_ / "config").string()},
            (dir_ / "log").string(), port);
    }
};

// Xandikos, which takes any credentials.
class XandikosServer : public LoopbackServer {
  public:
    explicit XandikosServer(const std::vector<std::string>& = {}) {
        const int port = freePort();
        process_.start({"/usr/bin/xandikos", "--defaults", "-d", (dir_ / "data").string(), "-l",
                        "127.0.0.1", "-p", std::to_string(port)},
                       (dir_ / "log").string(), port);
    }
};

// The scripted CalDAV server of tests/support/scripted_dav.py: a small server in memory (user
// "alice", password "s3cret") that misbehaves on demand (setFault("fault=trickle every=0.5")).
class ScriptedDavServer : public LoopbackServer {
  public:
    explicit ScriptedDavServer(std::vector<std::string> options = {}) {
        const int port = freePort();
        setFault("fault=pass");
        std::vector<std::string> args = {"/usr/bin/python3",
                                         std::string(ALMANOR_TEST_SUPPORT_DIR) + "/scripted_dav.py",
                                         "--port",
                                         std::to_string(port),
                                         "--control",
                                         (dir_ / "control").string(),
                                         "--log",
                                         (dir_ / "requests").string()};
        args.insert(args.end(), options.begin(), options.end());
        process_.start(args, (dir_ / "log").string(), port);
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
