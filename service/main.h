#pragma once

#include "service/argumentvector.h"

// The service's identity, and how its parts are put together.
namespace service {

// Runs the whole process under the crash guard. Both entries end with this call. Returns the process's exit code.
int runProcess(ArgumentVector& arguments);

// Sets the product identifier and the application's paths, calls main, and sends the pending reports of failed
// checks. The logger's globals exist until then. Returns main's result.
int applicationStart(int argc, char** argv);

// Builds the service host with its callbacks, runs it and returns its result.
int main(int argc, char** argv);

} // namespace service
