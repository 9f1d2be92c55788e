// What the child processes of the attach tests do; the parents name it to runChild.
//
//   loadAndUnload     loads and unloads the module; writes nothing itself
//   loadTwice TEXT    tries to load, writes the outcome, replaces the configuration by the text and
//                     tries again
//
// An outcome is a line on standard output: "loaded", or "failed ERROR TYPE: TEXT" with the loader's
// error in hexadecimal digits and the exception that left the attach handler.

#pragma once

#include "child.h"
