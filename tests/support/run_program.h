// Runs one of the project's programs as a child process and collects what it
// prints, so tests can check exit codes and output of the demo and the tools.
#ifndef SYSTEM_WRAPPERS_TESTS_RUN_PROGRAM_H_
#define SYSTEM_WRAPPERS_TESTS_RUN_PROGRAM_H_

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

extern char** environ;

// A started child with both output streams on pipes. The bounds only stop a
// broken program from hanging the test; the child is killed when they pass.
class ChildProgram {
public:
    ChildProgram() = default;
    ChildProgram(const ChildProgram&) = delete;
    ChildProgram& operator=(const ChildProgram&) = delete;
    ~ChildProgram() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            Reap(true);
        }
        CloseAll();
    }

    bool Start(const std::vector<std::string>& aArgv) {
        int out[2];
        int err[2];
        if (pipe2(out, O_CLOEXEC) != 0) return false;
        if (pipe2(err, O_CLOEXEC) != 0) {
            close(out[0]);
            close(out[1]);
            return false;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
        std::vector<char*> argv;
        for (const std::string& arg : aArgv) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        const int rv = posix_spawn(&m_pid, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        close(err[1]);
        m_fds[0] = out[0];
        m_fds[1] = err[0];
        if (rv != 0) {
            m_pid = -1;
            CloseAll();
            return false;
        }
        return true;
    }

    // Collects output until aDone(stdout text) holds or the bound passes.
    bool WaitForOutput(const std::function<bool(const std::string&)>& aDone,
                       std::chrono::milliseconds aBound = std::chrono::seconds(60)) {
        const auto end = std::chrono::steady_clock::now() + aBound;
        while (!aDone(m_out)) {
            if (std::chrono::steady_clock::now() > end) return false;
            if (!Pump(50) && m_fds[0] < 0 && m_fds[1] < 0) return aDone(m_out);
        }
        return true;
    }

    void Signal(int aSignal) {
        if (m_pid > 0) kill(m_pid, aSignal);
    }

    // Waits for the child to end; false when it had to be killed.
    bool Finish(std::chrono::milliseconds aBound = std::chrono::seconds(120)) {
        const auto end = std::chrono::steady_clock::now() + aBound;
        while (m_fds[0] >= 0 || m_fds[1] >= 0 || m_pid > 0) {
            if (std::chrono::steady_clock::now() > end) {
                Signal(SIGKILL);
                Reap(true);
                CloseAll();
                return false;
            }
            Pump(50);
            if (m_fds[0] < 0 && m_fds[1] < 0) Reap(false);
        }
        return true;
    }

    const std::string& Out() const { return m_out; }
    const std::string& Err() const { return m_err; }
    // The exit code, or -1 when the child ended by a signal (see TermSignal).
    int ExitCode() const { return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1; }
    int TermSignal() const { return WIFSIGNALED(m_status) ? WTERMSIG(m_status) : 0; }

private:
    // Reads what is there within aMillis; false when nothing arrived.
    bool Pump(int aMillis) {
        pollfd fds[2];
        nfds_t count = 0;
        int which[2];
        for (int i = 0; i < 2; ++i) {
            if (m_fds[i] < 0) continue;
            fds[count].fd = m_fds[i];
            fds[count].events = POLLIN;
            fds[count].revents = 0;
            which[count++] = i;
        }
        if (count == 0) {
            usleep(static_cast<useconds_t>(aMillis) * 1000);
            return false;
        }
        if (poll(fds, count, aMillis) <= 0) return false;
        for (nfds_t k = 0; k < count; ++k) {
            if (fds[k].revents == 0) continue;
            char buffer[4096];
            const ssize_t n = read(fds[k].fd, buffer, sizeof(buffer));
            if (n > 0) {
                (which[k] == 0 ? m_out : m_err).append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(m_fds[which[k]]);
                m_fds[which[k]] = -1;
            }
        }
        return true;
    }

    void Reap(bool aBlock) {
        if (m_pid <= 0) return;
        int status = 0;
        pid_t rv;
        do {
            rv = waitpid(m_pid, &status, aBlock ? 0 : WNOHANG);
        } while (rv == -1 && errno == EINTR);
        if (rv == m_pid || rv == -1) {
            if (rv == m_pid) m_status = status;
            m_pid = -1;
        } else if (!aBlock) {
            usleep(10000);
        }
    }

    void CloseAll() {
        for (int& fd : m_fds) {
            if (fd >= 0) close(fd);
            fd = -1;
        }
    }

    pid_t m_pid = -1;
    int m_fds[2] = {-1, -1};
    int m_status = 0;
    std::string m_out;
    std::string m_err;
};

#endif  // SYSTEM_WRAPPERS_TESTS_RUN_PROGRAM_H_
