// messages.h - what zonflow says on standard error, a line each.
#ifndef ZONFLOW_MESSAGES_H
#define ZONFLOW_MESSAGES_H

#include <string>
#include <string_view>

namespace zonflow {

// Control characters as \xHH: names of files and interfaces may hold some, which would break a line
// or steer the terminal.
std::string printable(std::string_view text);

// "zonflow: ", the printable text and a newline; on a line of its own behind traces too, which end
// without one.
void say(std::string_view text);

}  // namespace zonflow

#endif
