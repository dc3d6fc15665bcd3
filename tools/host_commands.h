// plc-host's commands; each returns the tool's exit status.
#pragma once

#include "tools/host_session.h"

namespace plc::host {

int cmd_read(Host &h);
int cmd_write(Host &h);
int cmd_poll(Host &h, const std::vector<std::string> &names);
int cmd_tags(const Host &h);
// Needs no controller: checks the file named on the command line.
int cmd_check(const Options &opt);

} // namespace plc::host
