// How the libraries of this folder mark their exports.

#pragma once

#if defined(_WIN32)
#define NV_EXPORTED __declspec(dllexport)
#else
#define NV_EXPORTED __attribute__((visibility("default")))
#endif
