// The demo's input: what the kernel tells of the machine under /proc.

#pragma once

#include <vector>

#include "Machine.h"

namespace Demo {

std::vector< Interface > readInterfaces(); // /proc/net/dev
std::vector< Process > readProcesses();    // /proc/PID/stat

} // namespace Demo
