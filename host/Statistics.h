#pragma once

namespace Host {
/// Prints to standard error what the library's memory ledger counted, and the highest resident set of the process.
void PrintStatistics();
}
