#pragma once

#include "host/JsonWriter.h"
#include "host/Session.h"

#include <functional>
#include <string>
#include <vector>

namespace Host {
/// Prints what `--json` promises: an object for each file, also for those that fail, which have an `error` instead of
/// the rest. What is wrong is told on standard error too.
/// @param write  puts down the fields of one file. It throws for one that fails, before it has put down anything.
/// @return whether every file was done.
bool PrintJsonReport(Session & session, std::vector<std::string> const & files,
                     std::function<void(JsonWriter & json, std::string const & file)> const & write);
}
