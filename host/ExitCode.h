#pragma once

namespace Host {
/// What the program ends with, signals aside: 128 and their number.
enum ExitCode : int { AllDone = 0, FileFailed = 1, WrongUsage = 2 };
}
