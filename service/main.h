#pragma once

#include "service/argumentvector.h"

// The service's identity, and how its parts are put together.
namespace service {

// Runs the whole process under the crash guard. Both entries end with this call. Returns the process's exit code.
int runProcess(ArgumentVector& arguments);

// Sets the product identifier and the application's paths, calls main, sends the pending reports of failed checks, and
// then ends the use of the logger. Returns main's result. The crash guard calls it.
int applicationStart(int argc, char** argv);

// Builds the service host with its callbacks, runs it and returns its result.
int main(int argc, char** argv);

} // namespace service
