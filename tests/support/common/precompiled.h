// What many tests include and what is slow to read: compiled once for all of them. No source may rely
// on it.
#ifndef NV_TEST_PRECOMPILED_H
#define NV_TEST_PRECOMPILED_H

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#ifdef _WIN32
#include <windows.h>

#include <wincrypt.h>
#endif

#endif
