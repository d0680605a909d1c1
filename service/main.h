#pragma once

#include "service/argumentvector.h"

// The service's identity, and how its parts are put together.
namespace service {

// What both entries of the process do with its arguments: everything. The result is the process's exit code.
int runProcess(ArgumentVector& arguments);

// The application's start: the process's product identifier, application paths and logger globals, and main between
// their beginning and their end.
int applicationStart(int argc, char** argv);

// Builds the service host with its callbacks and runs it; the host's result.
int main(int argc, char** argv);

} // namespace service
