// zonflow_program.h - runs the program as a shell would, and reads fields of its JSON lines.
#ifndef ZONFLOW_TESTS_ZONFLOW_PROGRAM_H
#define ZONFLOW_TESTS_ZONFLOW_PROGRAM_H

#include <sys/wait.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/apps/zonflow/support/capture_file.h"

namespace zonflow_tests {

struct program_result {
    int exit_code = -1;
    std::string out;
    std::string err;
};

// The arguments are shell text; output_redirection sends standard output elsewhere.
inline program_result run_zonflow(const std::string& arguments,
                                  const std::string& output_redirection = "") {
    const temporary_file errors{bytes{}};
    const std::string command = std::string("'") + ZONFLOW_BINARY + "' " + arguments + " 2>'" +
                                errors.path() + "' </dev/null " + output_redirection;
    program_result result;
    std::FILE* pipe = popen(command.c_str(), "r");
    char buffer[4096];
    for (size_t got = 0; (got = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
        result.out.append(buffer, got);
    }
    const int status = pclose(pipe);
    result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::ostringstream text;
    text << std::ifstream(errors.path()).rdbuf();
    result.err = text.str();
    return result;
}

inline std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The value of a field, as written; "" where the line has none. Good for the flat fields of
// zonflow's own lines.
inline std::string json_field(const std::string& line, const std::string& name) {
    const std::string key = "\"" + name + "\":";
    const size_t at = line.find(key);
    if (at == std::string::npos) {
        return "";
    }
    const size_t begin = at + key.size();
    if (line[begin] == '"') {
        return line.substr(begin + 1, line.find('"', begin + 1) - begin - 1);
    }
    if (line[begin] == '{') {
        return line.substr(begin, line.find('}', begin) - begin + 1);
    }
    return line.substr(begin, line.find_first_of(",}", begin) - begin);
}

inline uint64_t json_number(const std::string& line, const std::string& name) {
    return std::strtoull(json_field(line, name).c_str(), nullptr, 10);
}

// The numbers of a flat object, added up: {"a":1,"b":2} gives 3.
inline uint64_t sum_of_object(const std::string& object) {
    uint64_t sum = 0;
    for (size_t at = object.find(':'); at != std::string::npos; at = object.find(':', at + 1)) {
        sum += std::strtoull(object.c_str() + at + 1, nullptr, 10);
    }
    return sum;
}

// The JSON lines of one capture, told apart.
struct json_result {
    int exit_code = -1;
    std::string err;
    std::vector<std::string> flows;
    std::vector<std::string> summaries;
    std::vector<std::string> groups;
};

inline json_result run_json(const std::string& arguments) {
    const program_result run = run_zonflow("-o json " + arguments);
    json_result result{run.exit_code, run.err, {}, {}, {}};
    for (const std::string& line : lines_of(run.out)) {
        const std::string type = json_field(line, "type");
        (type == "flow"    ? result.flows
         : type == "group" ? result.groups
                           : result.summaries)
            .push_back(line);
    }
    return result;
}

}  // namespace zonflow_tests

#endif
