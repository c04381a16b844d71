// A program as an operator runs it: its signals, its output, what it has open.
#pragma once

#include "netns/Netns.h"
#include "support/Folder.h"

#include <csignal>
#include <fcntl.h>
#include <optional>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Testing {

using Support::Folder;

/// A program in a network namespace. It writes its output into the folder, and is ended with the
/// object or with the test's own process, whichever ends first.
class Process {
  public:
    Process(Folder const& folder, std::string const& namespaceName,
            std::vector<std::string> command)
        : folder_(folder) {
        std::vector<char*> argv;
        argv.reserve(command.size() + 1);
        for (std::string& word : command) argv.push_back(word.data());
        argv.push_back(nullptr);
        std::string const output = folder.file("output");
        Netns::Inside const inside(namespaceName);
        pid_ = fork();
        if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
        if (pid_ > 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int const file = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(file, STDOUT_FILENO);
        dup2(file, STDERR_FILENO);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    ~Process() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    Process(Process const&) = delete;
    Process& operator=(Process const&) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number) const { kill(pid_, number); }
    /// What it has written so far, to standard output and standard error.
    std::string output() const { return folder_.read("output"); }
    /// Whether it comes to have written this text `times` times.
    bool says(std::string const& text, int times = 1) const {
        return waitUntil([&] {
            std::string const all = output();
            int found = 0;
            for (auto at = all.find(text); at != std::string::npos; at = all.find(text, at + 1))
                ++found;
            return found >= times;
        });
    }
    /// A field of /proc/PID/status: sets of signals or capabilities in hexadecimal, unless in that
    /// base.
    unsigned long long statusField(std::string const& name, int base = 16) const {
        std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
        for (std::string line; std::getline(status, line);)
            if (line.starts_with(name + ":"))
                return std::stoull(line.substr(name.size() + 1), {}, base);
        return 0;
    }
    std::size_t openDescriptors() const {
        std::filesystem::directory_iterator const files("/proc/" + std::to_string(pid_) + "/fd");
        return std::size_t(std::distance(begin(files), end(files)));
    }
    /// Its exit status, or the negative number of the signal that ended it; nothing while it runs
    /// on and on.
    std::optional<int> exitStatus() {
        int status = 0;
        if (!waitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) return {};
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

  private:
    Folder const& folder_;
    pid_t pid_ = -1;
};

} // namespace Testing
