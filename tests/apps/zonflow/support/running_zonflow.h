// running_zonflow.h - the program while it runs, with a test at both ends: it reads what the test
// writes.
#ifndef ZONFLOW_TESTS_RUNNING_ZONFLOW_H
#define ZONFLOW_TESTS_RUNNING_ZONFLOW_H

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/apps/zonflow/support/capture_file.h"

namespace zonflow_tests {

class running_zonflow {
public:
    // Reads standard input; ignored_signal is one that the shell has set to be ignored.
    explicit running_zonflow(std::vector<std::string> arguments, int ignored_signal = 0) {
        int to_program[2];
        int from_program[2];
        if (pipe2(to_program, O_CLOEXEC) != 0 || pipe2(from_program, O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
        arguments.insert(arguments.begin(), ZONFLOW_BINARY);
        std::vector<char*> words;
        for (std::string& argument : arguments) {
            words.push_back(argument.data());
        }
        words.push_back(nullptr);
        const int errors = open(errors_.path().c_str(), O_WRONLY | O_CLOEXEC);
        process_ = fork();
        if (process_ == 0) {
            dup2(to_program[0], STDIN_FILENO);
            dup2(from_program[1], STDOUT_FILENO);
            dup2(errors, STDERR_FILENO);
            if (ignored_signal != 0) {
                std::signal(ignored_signal, SIG_IGN);
            }
            execv(words[0], words.data());
            _exit(127);
        }
        close(to_program[0]);
        close(from_program[1]);
        close(errors);
        in_ = to_program[1];
        out_ = from_program[0];
    }
    ~running_zonflow() {
        if (process_ > 0) {
            kill(process_, SIGKILL);
            wait_for_end();
        }
        end_input();
        end_output();
    }
    running_zonflow(const running_zonflow&) = delete;
    running_zonflow& operator=(const running_zonflow&) = delete;

    void feed(const bytes& data) {
        if (write(in_, data.data(), data.size()) != static_cast<ssize_t>(data.size())) {
            throw std::runtime_error("the program does not read");
        }
    }
    void end_input() {
        if (in_ >= 0) {
            close(in_);
            in_ = -1;
        }
    }
    // Nobody reads on.
    void end_output() {
        if (out_ >= 0) {
            close(out_);
            out_ = -1;
        }
    }
    void send_signal(int signal) { kill(process_, signal); }

    // Waits for a whole line; "" at the end of the output.
    std::string next_line() {
        std::string line;
        for (char letter = 0; read(out_, &letter, 1) == 1 && letter != '\n';) {
            line += letter;
        }
        return line;
    }
    // Waits for the end of the output.
    std::string rest() {
        std::string text;
        char buffer[4096];
        for (ssize_t got = 0; (got = read(out_, buffer, sizeof(buffer))) > 0;) {
            text.append(buffer, static_cast<size_t>(got));
        }
        return text;
    }
    // The exit code, 128 and the signal's number for a program that a signal has ended.
    int wait_for_end() {
        int status = 0;
        waitpid(process_, &status, 0);
        process_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::string errors() const {
        std::ostringstream text;
        text << std::ifstream(errors_.path()).rdbuf();
        return text.str();
    }

private:
    temporary_file errors_{bytes{}};
    pid_t process_ = 0;
    int in_ = -1;
    int out_ = -1;
};

}  // namespace zonflow_tests

#endif
