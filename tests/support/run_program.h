// Runs one of the project's programs as a child process, its output streams
// going to temporary files, so tests can check what it prints and how it ends.
#ifndef SYSTEM_WRAPPERS_TESTS_RUN_PROGRAM_H_
#define SYSTEM_WRAPPERS_TESTS_RUN_PROGRAM_H_

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

// The bounds only stop a broken program from hanging the test: the child is
// killed when they pass.
class ChildProgram {
public:
    ChildProgram() = default;
    ChildProgram(const ChildProgram&) = delete;
    ChildProgram& operator=(const ChildProgram&) = delete;
    ~ChildProgram() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        for (const std::string& path : m_paths) unlink(path.c_str());
    }

    bool Start(const std::vector<std::string>& aArgv) {
        int fds[2];
        for (int i = 0; i < 2; ++i) {
            char path[] = "/tmp/sw_child_output_XXXXXX";
            fds[i] = mkostemp(path, O_CLOEXEC);
            if (fds[i] == -1) return false;
            m_paths[i] = path;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[0], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
        std::vector<char*> argv;
        for (const std::string& arg : aArgv) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        const int rv = posix_spawn(&m_pid, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(fds[0]);
        close(fds[1]);
        if (rv != 0) m_pid = -1;
        return rv == 0;
    }

    // Waits until aDone(what the child has printed on stdout) holds.
    bool WaitForOutput(const std::function<bool(const std::string&)>& aDone,
                       std::chrono::milliseconds aBound = std::chrono::seconds(60)) {
        const auto end = std::chrono::steady_clock::now() + aBound;
        while (!aDone(Out())) {
            if (!Running() || std::chrono::steady_clock::now() > end) return aDone(Out());
            usleep(10000);
        }
        return true;
    }

    void Signal(int aSignal) {
        if (m_pid > 0) kill(m_pid, aSignal);
    }

    // Waits for the child to end; false when it had to be killed.
    bool Finish(std::chrono::milliseconds aBound = std::chrono::seconds(120)) {
        const auto end = std::chrono::steady_clock::now() + aBound;
        while (Running()) {
            if (std::chrono::steady_clock::now() > end) {
                kill(m_pid, SIGKILL);
                waitpid(m_pid, nullptr, 0);
                m_pid = -1;
                return false;
            }
            usleep(10000);
        }
        return true;
    }

    std::string Out() const { return Read(m_paths[0]); }
    std::string Err() const { return Read(m_paths[1]); }
    // The exit code, or -1 when the child ended by a signal.
    int ExitCode() const { return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1; }

private:
    bool Running() {
        if (m_pid <= 0) return false;
        pid_t rv;
        do {
            rv = waitpid(m_pid, &m_status, WNOHANG);
        } while (rv == -1 && errno == EINTR);
        if (rv == 0) return true;
        m_pid = -1;
        return false;
    }

    static std::string Read(const std::string& aPath) {
        std::ifstream file(aPath);
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }

    pid_t m_pid = -1;
    int m_status = 0;
    std::string m_paths[2];
};

#endif  // SYSTEM_WRAPPERS_TESTS_RUN_PROGRAM_H_
