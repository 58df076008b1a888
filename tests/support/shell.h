// Running the Debian tools some tests compare against (ffmpeg, exiftool, tshark).
#pragma once

#include <string>

namespace korvel {
namespace testsupport {

// Runs `cmd` through the shell and returns its standard output; *status (when given) gets
// the exit status as pclose reports it, -1 when the shell could not be started.
std::string run_command(const std::string& cmd, int* status = nullptr);

// Whether `tool` is on PATH.
bool on_path(const char* tool);

}  // namespace testsupport
}  // namespace korvel
