// An smcrouted in a network namespace, with a directory of its own; it ends with the object.
#pragma once

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace Agent {

class StaticRouter {
  public:
    static bool installed() { return std::system("command -v smcrouted >/dev/null") == 0; }

    StaticRouter(std::string const& space, std::string const& configuration) : space_(space) {
        std::string path = testing::TempDir() + "smcrouteXXXXXX";
        directory_ = mkdtemp(path.data());
        std::ofstream(directory_ + "/conf") << configuration;
        std::string const command = "exec ip netns exec " + space_ + " smcrouted -n -N -f " +
                                    directory_ + "/conf -P " + directory_ + "/pid -u " + socket() +
                                    " >/dev/null 2>&1";
        pid_ = fork();
        if (pid_ == 0) {
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
    }
    ~StaticRouter() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        std::system(("rm -r " + directory_).c_str());
    }
    StaticRouter(StaticRouter const&) = delete;
    StaticRouter& operator=(StaticRouter const&) = delete;

    /// Whether it takes the command of smcroutectl.
    bool control(std::string const& command) const {
        return std::system(("ip netns exec " + space_ + " smcroutectl -u " + socket() + " " +
                            command + " >/dev/null 2>&1")
                               .c_str()) == 0;
    }

  private:
    std::string socket() const { return directory_ + "/sock"; }

    std::string space_;
    std::string directory_;
    pid_t pid_ = -1;
};

} // namespace Agent
