// Times LoadLibrary up to the return of GetKeyStorageInterface, for the module as it is shipped and
// for an empty DLL that imports the same functions. In that time, the module's attach handler reads
// its configuration file. Unloading is not counted.

#include <windows.h>

#include <chrono>
#include <stdexcept>

#include "base/cng.h"
#include "profile.h"
#include "results.h"
#include "scripted_token.h"

namespace {

using namespace NV::bench;

double loadAndAsk(const wchar_t* dll)
{
    const auto start = std::chrono::steady_clock::now();
    HMODULE module = LoadLibraryW(dll);
    if (module == nullptr)
        throw std::runtime_error("a DLL cannot be loaded");
    const auto getInterface = reinterpret_cast<GetKeyStorageInterfaceFn>(
        reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")));
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    getInterface(nullptr, &table, 0);
    const std::chrono::duration<double, std::nano> elapsed =
        std::chrono::steady_clock::now() - start;
    FreeLibrary(module);
    if (GetModuleHandleW(dll) != nullptr)
        throw std::runtime_error("a DLL stays loaded");
    return elapsed.count();
}

void benchmark(Results& results, const Plan& plan)
{
    const NV::test::Profile profile;
    profile.writeConfig("logLevel=TRACE\nlogTypes=\nlogRotate=7\np11File=" +
                        NV::test::narrowPath(NV::test::ScriptedToken::widePath()) + "\n");
    const Comparison comparison = compareTimed(
        [] { return loadAndAsk(MODULE); }, [] { return loadAndAsk(EMPTY_MODULE); }, plan.pairs * 5);
    const Measure measure{"loading", "LoadLibrary to GetKeyStorageInterface answered",
                          "an empty DLL with the same imports"};
    results.ratio(measure, comparison, report);
    results.added(measure, comparison, report);
}

}  // namespace

int main(int argc, char** argv)
{
    return runBenchmark(argc, argv, benchmark);
}
