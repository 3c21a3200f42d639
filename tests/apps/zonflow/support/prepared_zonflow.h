// prepared_zonflow.h - the program in a process that has been prepared: without a privilege, with a
// limit, with other descriptors.
#ifndef ZONFLOW_TESTS_PREPARED_ZONFLOW_H
#define ZONFLOW_TESTS_PREPARED_ZONFLOW_H

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/apps/zonflow/support/capture_file.h"

namespace zonflow_tests {

struct ended_program {
    int exit_code;
    std::string err;
};

constexpr int unprepared = 126;

// Where the preparation fails, the exit code is `unprepared`.
template <typename preparation>
ended_program run_prepared(std::vector<std::string> arguments, preparation prepare) {
    const temporary_file errors{bytes{}};
    arguments.insert(arguments.begin(), ZONFLOW_BINARY);
    std::vector<char*> words;
    for (std::string& argument : arguments) {
        words.push_back(argument.data());
    }
    words.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int file = open(errors.path().c_str(), O_WRONLY);
        dup2(file, STDERR_FILENO);
        if (!prepare()) {
            _exit(unprepared);
        }
        execv(words[0], words.data());
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    std::ostringstream told;
    told << std::ifstream(errors.path()).rdbuf();
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), told.str()};
}

}  // namespace zonflow_tests

#endif
