#pragma once

// Real CalDAV servers on loopback for tests, started by harness.py as the Python tests' are: each
// on a free port with its own folder, killed when this object or this process ends.

#include "TempDir.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace almanor::test {

class LoopbackServer {
  public:
    ~LoopbackServer() {
        ::close(input_);
        if (pid_ > 0)
            ::waitpid(pid_, nullptr, 0);
    }
    std::string url() const { return url_; }
    int port() const { return std::stoi(url_.substr(url_.rfind(':') + 1)); }

  protected:
    LoopbackServer() = default;
    // The harness (standard library only: -S spares it the site packages' start) prints the URL
    // once the server answers, or ends within 20 s saying why; it kills the server once its input
    // closes, which our end closes too.
    void start(const std::string& kind, std::vector<std::string> options = {}) {
        options.insert(options.begin(),
                       {"/usr/bin/python3", "-S", ALMANOR_TEST_SUPPORT_DIR "/harness.py", kind,
                        dir_.path().string()});
        std::vector<char*> argv;
        for (auto& a : options)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe for the " + kind + " server");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        const bool spawned =
            posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) == 0;
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        input_ = in[1];
        char c = 0;
        while (spawned && ::read(out[0], &c, 1) == 1 && c != '\n')
            url_ += c;
        ::close(out[0]);
        if (url_.empty())
            throw std::runtime_error("the " + kind + " server did not start");
    }

    TempDir dir_;

  private:
    pid_t pid_ = -1;
    int input_ = -1;
    std::string url_;
};

// Radicale with the user "alice", password "s3cret".
class RadicaleServer : public LoopbackServer {
  public:
    RadicaleServer() { start("radicale"); }
};

// Xandikos, which takes any credentials.
class XandikosServer : public LoopbackServer {
  public:
    XandikosServer() { start("xandikos"); }
};

// The scripted CalDAV server of tests/support/scripted_dav.py: a small server in memory (user
// "alice", password "s3cret") that misbehaves on demand (setFault("fault=trickle every=0.5")).
class ScriptedDavServer : public LoopbackServer {
  public:
    explicit ScriptedDavServer(std::vector<std::string> options = {}) {
        setFault("fault=pass");
        start("scripted", std::move(options));
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
